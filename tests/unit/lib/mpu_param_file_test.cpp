#include "mpu_param_file.h"

#include "lib_test_support.h"
#include "mpu_params.h"

#include <cstring>
#include <vector>

namespace {

/** A zeroed block with guard bytes behind it, filled from text. */
class ParamFile : public testing::Test {
  protected:
    static constexpr size_t GUARD = 64;

    ParamFile() {
        memset(memory + 744, 0xEE, GUARD);
        pMpuParams = reinterpret_cast<MPU_PARAMS_t*>(memory);
    }
    ~ParamFile() override {
        pMpuParams = nullptr;
        for (size_t i = 744; i < 744 + GUARD; i++) {
            EXPECT_EQ(memory[i], 0xEE) << "byte " << i << " behind the block was written";
        }
    }

    /** Reads a text as a parameter file. @return its lines on standard error */
    std::string read(const std::string& text) {
        return errorsOf([&] {
            FILE* file = tmpfile();
            fwrite(text.data(), 1, text.size(), file);
            rewind(file);
            EXPECT_EQ(readNonXML(file), nullptr);
            fclose(file);
        });
    }
    std::string bytes(size_t offset, size_t length) {
        return {reinterpret_cast<char*>(memory) + offset, length};
    }
    /** The block is zero but for these bytes. */
    void expectOnly(size_t offset, const std::string& expected) {
        std::string whole(744, '\0');
        whole.replace(offset, expected.size(), expected);
        EXPECT_EQ(bytes(0, 744), whole) << "at offset " << offset;
    }
    void clear() { memset(memory, 0, 744); }

    alignas(8) U8_t memory[744 + GUARD] = {};
};

std::string text(const char* characters, size_t size) {
    std::string padded(characters);
    padded.resize(size);
    return padded;
}

struct Field {
    const char* line;
    size_t offset;
    std::string expected;
};

/** One line for every name that a file can set, with the bytes it leaves. */
const std::vector<Field>& everyField() {
    static const std::vector<Field> fields = {
        {"Version=0x01020304", 0, {"\x01\x02\x03\x04", 4}},
        {"Flags=0x80000001", 4, {"\x80\x00\x00\x01", 4}},
        {"Slot=66051", 8, {"\x00\x01\x02\x03", 4}},
        {"iCharMode=StubClient", 14, "\x04"},
        {"NumberOfPorts=0xAB", 15, "\xAB"},
        {"IssIpAddress=192.168.0.1", 40, {"\xC0\xA8\x00\x01", 4}},
        {"NumberOfBusses=2", 44, "\x02"},
        {"NumberOfAdapters=3", 45, "\x03"},
        {"BatteryMgtPolicy=UPSPresent", 46, "\x04"},
        {"MpuSoftwareVersion=258.3.4", 48, {"\x01\x02\x00\x03\x00\x00\x00\x04", 8}},
        {"R7qFirmwareVersion=1.515.4", 56, {"\x00\x01\x02\x03\x00\x00\x00\x04", 8}},
        {"AsicDeviceId=0x1234", 64, "\x12\x34"},
        {"PciVendorId=0x5678", 66, "\x56\x78"},
        {"AsicRevision=0x9ABC", 68, "\x9A\xBC"},
        {"HaccMode=eBlade", 70, "\x03"},
        {"ChassisType=Model3", 71, "\x03"},
        {"SerialValue=0x11223344", 72, "\x11\x22\x33\x44"},
        {"OUINumber=0x22334455", 80, "\x22\x33\x44\x55"},
        {"ProductIdNumber=0x33445566", 84, "\x33\x44\x55\x66"},
        {"BoardRevNumber=0x44556677", 88, "\x44\x55\x66\x77"},
        {"SystemMemorySize=64M", 96, {"\x04\x00\x00\x00", 4}},
        {"BufferMemorySize=3k", 100, {"\x00\x00\x0C\x00", 4}},
        {"HaccStartingIpAddress=10.1.2.3", 104, {"\x0A\x01\x02\x03", 4}},
        {"HaccNetmask=255.255.255.0", 108, {"\xFF\xFF\xFF\x00", 4}},
        {"MgtPortIpAddress=172.16.5.9", 112, {"\xAC\x10\x05\x09", 4}},
        {"MgtPortNetmask=255.255.0.0", 116, {"\xFF\xFF\x00\x00", 4}},
        {"SerialNumber=BLADE-7", 120, text("BLADE-7", 64)},
        {"ChassisSerialNumber=CH-1 a", 184, text("CH-1 a", 64)},
        {"MacAddress=0:17:164:1:2:3", 248, {"\x00\x11\xA4\x01\x02\x03\x00\x00", 8}},
        {"MmsgDirectory=/var/mmsg", 312, text("/var/mmsg", 128)},
        {"NvramDirectory=/nvram", 440, text("/nvram", 128)},
        {"LogDirectory=/log", 568, text("/log", 128)},
        {"portConfiguration=10gige", 696, "\x02"},
        {"VendorId=ACME", 704, "ACME    "},
        {"ProductId=Blade 9", 712, "Blade 9         "},
        {"RevisionLevel=A1", 728, "A1  "},
        {"Bus=True", 732, "\x01"},
        {"Adapter=0x102/0x304", 736, "\x01\x02\x03\x04"},
    };
    return fields;
}

} // namespace

TEST_F(ParamFile, EveryNameFillsItsBytes) {
    ASSERT_EQ(everyField().size(), 38U);
    for (const Field& field : everyField()) {
        clear();
        EXPECT_EQ(read(std::string(field.line) + "\n"), "") << field.line;
        SCOPED_TRACE(field.line);
        expectOnly(field.offset, field.expected);
    }
}

TEST_F(ParamFile, TableHasNoFurtherName) {
    size_t rows = 0;
    for (const NonXML_s* row = tagList; row->name != nullptr; row++, rows++) {
        std::string line = everyField().at(rows).line;
        EXPECT_EQ(line.substr(0, line.find('=')), row->name);
        EXPECT_EQ(everyField().at(rows).offset, row->offset);
    }
    EXPECT_EQ(rows, 38U);
}

TEST_F(ParamFile, AllNamesTogetherGiveOneBlock) {
    std::string file;
    std::string whole(744, '\0');
    for (const Field& field : everyField()) {
        file += std::string(field.line) + "\n";
        whole.replace(field.offset, field.expected.size(), field.expected);
    }
    EXPECT_EQ(read(file), "");
    EXPECT_EQ(bytes(0, 744), whole);
}

TEST_F(ParamFile, CaseAndBlanksAroundEqualsDoNotMatter) {
    EXPECT_EQ(read("slot = 3\n"), "");
    expectOnly(8, {"\x00\x00\x00\x03", 4});
}

TEST_F(ParamFile, CommentsAndEmptyLinesAreSkipped) {
    EXPECT_EQ(read("# Slot=1\n\n \t\r\n#\n"), "");
    expectOnly(0, "");
}

TEST_F(ParamFile, CarriageReturnsAndControlsAtTheEndGo) {
    EXPECT_EQ(read("MmsgDirectory=/a \x01\x1F\t\r\n"), "");
    expectOnly(312, "/a");
}

TEST_F(ParamFile, BytesAbove127AreKept) {
    EXPECT_EQ(read("SerialNumber=\xE4\xFF\n"), "");
    expectOnly(120, "\xE4\xFF");
}

TEST_F(ParamFile, LastLineNeedsNoLineFeed) {
    EXPECT_EQ(read("Slot=7"), "");
    expectOnly(8, {"\x00\x00\x00\x07", 4});
}

TEST_F(ParamFile, LeadingBlanksAreNotRemoved) {
    EXPECT_EQ(read("  Slot=3\n #x\n"),
              "+++ Warning: Unrecognized option in configuration file:   Slot\n"
              "+++ Warning: Unrecognized flag in configuration file:  #x\n");
    expectOnly(0, "");
}

TEST_F(ParamFile, UnknownNamesAreReported) {
    EXPECT_EQ(read("Colour =red\nShiny\n=5\n"),
              "+++ Warning: Unrecognized option in configuration file: Colour\n"
              "+++ Warning: Unrecognized flag in configuration file: Shiny\n"
              "+++ Warning: Unrecognized option in configuration file: \n");
    expectOnly(0, "");
}

TEST_F(ParamFile, LineOf1023CharactersGoesOnAsANewLine) {
    EXPECT_EQ(read("#" + std::string(1022, 'x') + "Slot=5\n"), "");
    expectOnly(8, {"\x00\x00\x00\x05", 4});
}

TEST_F(ParamFile, LineOf1022CharactersIsWhole) {
    EXPECT_EQ(read("#" + std::string(1021, 'x') + "\nSlot=5\n"), "");
    expectOnly(8, {"\x00\x00\x00\x05", 4});
}

TEST_F(ParamFile, NulEndsALine) {
    EXPECT_EQ(read(std::string("Slot=1\0=2\nSlot=3\n", 17)), "");
    expectOnly(8, {"\x00\x00\x00\x03", 4});
}

TEST_F(ParamFile, EveryFlagSetsItsBit) {
    const struct {
        const char* name;
        std::string flags;
    } flags[] = {
        {"OtherBladePresent", {"\x00\x00\x00\x02", 4}},
        {"RestartRecovery", {"\x00\x00\x00\x04", 4}},
        {"BatterySafe", {"\x00\x00\x00\x08", 4}},
        {"CacheValid", {"\x00\x00\x00\x10", 4}},
        {"ResetAsserted", {"\x00\x00\x00\x20", 4}},
        {"BatteryPresent", {"\x00\x00\x00\x40", 4}},
        {"DisableBreakpoint", {"\x00\x01\x00\x00", 4}},
        {"InitializeDrives", {"\x00\x02\x00\x00", 4}},
        {"DisableTimeouts", {"\x00\x04\x00\x00", 4}},
        {"ClearPersistence", {"\x00\x08\x00\x00", 4}},
        {"MgtPortNotInited", {"\x00\x10\x00\x00", 4}},
        {"ReduceEvents", {"\x00\x20\x00\x00", 4}},
        {"CmapTracingEnabled", {"\x01\x00\x00\x00", 4}},
        {"CmapHaTracingEnabled", {"\x02\x00\x00\x00", 4}},
    };
    for (const auto& flag : flags) {
        clear();
        EXPECT_EQ(read(std::string(flag.name) + "\n"), "");
        SCOPED_TRACE(flag.name);
        expectOnly(4, flag.flags);
    }
    size_t rows = 0;
    while (nonXML_Flags[rows].name != nullptr) {
        rows++;
    }
    EXPECT_EQ(rows, std::size(flags));
}

TEST_F(ParamFile, FlagsAddUpWhateverTheirCase) {
    EXPECT_EQ(read("Flags=0x40000000\ncachevalid \nREDUCEEVENTS\n"), "");
    expectOnly(4, {"\x40\x20\x00\x10", 4});
}

TEST_F(ParamFile, IndexBehindTheName) {
    EXPECT_EQ(read("MacAddress-1=0:17:164:1:2:3\n"), "");
    expectOnly(256, {"\x00\x11\xA4\x01\x02\x03", 6});
}

TEST_F(ParamFile, IndexInTheValue) {
    EXPECT_EQ(read("MacAddress=1- 0:17:164:1:2:3\n"), "");
    expectOnly(256, {"\x00\x11\xA4\x01\x02\x03", 6});
}

TEST_F(ParamFile, BlanksAroundTheDashOfAnIndexedName) {
    EXPECT_EQ(read("Bus - 1 = True\n"), "");
    expectOnly(733, "\x01");
}

TEST_F(ParamFile, NinthMacAddressFallsIntoTheNextField) {
    EXPECT_EQ(read("MacAddress-8=1:2:3:4:5:6\n"), "");
    expectOnly(312, "\x01\x02\x03\x04\x05\x06");
}

TEST_F(ParamFile, OneElementPastEveryFieldIsAccepted) {
    const Field past[] = {
        {"portConfiguration-8=10gige", 704, "\x02"},
        {"Bus-2=True", 734, "\x01"},
        {"R7qFirmwareVersion-1=1.2.3", 64, {"\x00\x01\x00\x02\x00\x00\x00\x03", 8}},
        {"MgtPortNetmask-1=1.2.3.4", 120, "\x01\x02\x03\x04"},
        {"Slot-1=0x05060708", 12, "\x05\x06\x07\x08"},
        {"SystemMemorySize=1-2", 100, {"\x00\x00\x00\x02", 4}},
    };
    for (const Field& field : past) {
        clear();
        EXPECT_EQ(read(std::string(field.line) + "\n"), "") << field.line;
        SCOPED_TRACE(field.line);
        expectOnly(field.offset, field.expected);
    }
}

TEST_F(ParamFile, ThirdAdapterLiesBehindTheBlockAndIsNotWritten) {
    EXPECT_EQ(read("Adapter-2=0x102/0x304\n"), "");
    expectOnly(0, "");
}

TEST_F(ParamFile, IndexesPastThatAreRefused) {
    EXPECT_EQ(read("MacAddress-9=1:2:3:4:5:6\nMacAddress=9-1:2\nBus -3=True\nSlot=5-3\n"),
              "Error: Array index out of range for MacAddress\n"
              "Error: Array index out of range for MacAddress\n"
              "Error: Array index out of range for Bus\n"
              "Error: Array index out of range for Slot\n");
    expectOnly(0, "");
}

TEST_F(ParamFile, NegativeAndHugeIndexesAreRefused) {
    EXPECT_EQ(read("MacAddress--1=1:2\nBus-4294967296=True\nBus-99999999999999999999=True\n"
                   "Bus=18446744073709551616-True\n"),
              "Error: Array index out of range for MacAddress\n"
              "Error: Array index out of range for Bus\n"
              "Error: Array index out of range for Bus\n"
              "Error: Array index out of range for Bus\n");
    expectOnly(0, "");
}

TEST_F(ParamFile, DashAtTheStartOfAValueIsElementZero) {
    EXPECT_EQ(read("Slot=-1\n"), "");
    expectOnly(8, {"\x00\x00\x00\x01", 4});
}

TEST_F(ParamFile, TextsTakeNoIndex) {
    EXPECT_EQ(read("SerialNumber-1=x\nVendorId-0=y\nSerialNumber=1-x\n"),
              "+++ Warning: Unrecognized option in configuration file: SerialNumber-1\n"
              "+++ Warning: Unrecognized option in configuration file: VendorId-0\n");
    expectOnly(120, "1-x");
}

TEST_F(ParamFile, ValueOfAnIndexedNameIsTakenWhole) {
    EXPECT_EQ(read("Slot-0=-2\n"), "");
    expectOnly(8, "\xFF\xFF\xFF\xFE");
}

TEST_F(ParamFile, WithoutABlockNothingIsRead) {
    pMpuParams = nullptr;
    EXPECT_EQ(read("Slot=1\nCacheValid\n"), "");
}
