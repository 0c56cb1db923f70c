#include "lib_test_support.h"
#include "mpu_param_file.h"
#include "mpu_params.h"

#include <cstring>

namespace {

/** A field stored into a zeroed block through a row of the table or one of the test's own. */
class ParamValue : public testing::Test {
  protected:
    ParamValue() { pMpuParams = &block; }
    ~ParamValue() override { pMpuParams = nullptr; }

    std::string store(const char* name, const char* value) {
        const NonXML_s* row = tagList;
        while (strcmp(row->name, name) != 0) {
            row++;
        }
        return errorsOf([&] { nonXMLStoreValue(*row, name, 0, value); });
    }
    std::string bytes(size_t offset, size_t length) {
        return {reinterpret_cast<char*>(&block) + offset, length};
    }
    U32_t word(size_t offset) {
        U32be_t value;
        memcpy(&value, reinterpret_cast<char*>(&block) + offset, sizeof(value));
        return value;
    }
    U32_t storedWord(const char* name, const char* value, size_t offset) {
        EXPECT_EQ(store(name, value), "");
        return word(offset);
    }

    MPU_PARAMS_t block = {};
};

} // namespace

TEST_F(ParamValue, NumbersTakeEveryBase) {
    EXPECT_EQ(storedWord("Slot", "0x10", 8), 16U);
    EXPECT_EQ(storedWord("Slot", "010", 8), 8U);
    EXPECT_EQ(storedWord("Slot", "10", 8), 10U);
    EXPECT_EQ(storedWord("Slot", "12 apples", 8), 12U);
}

TEST_F(ParamValue, EmptyAndWordyNumbersAreZero) {
    block.slotId = 5;
    EXPECT_EQ(storedWord("Slot", "", 8), 0U);
    block.slotId = 5;
    EXPECT_EQ(storedWord("Slot", "five", 8), 0U);
}

TEST_F(ParamValue, NumbersKeepTheirLow32Bits) {
    EXPECT_EQ(storedWord("Slot", "0xFFFFFFFF", 8), 0xFFFFFFFFU);
    EXPECT_EQ(storedWord("Slot", "4294967297", 8), 1U);
    EXPECT_EQ(storedWord("Slot", "-1", 8), 0xFFFFFFFFU);
    EXPECT_EQ(storedWord("Slot", "0x1122334455667788", 8), 0x55667788U);
}

TEST_F(ParamValue, NumbersBeyond64BitsAreClampedFirst) {
    EXPECT_EQ(storedWord("Slot", "99999999999999999999", 8), 0xFFFFFFFFU);
    EXPECT_EQ(storedWord("Slot", "-99999999999999999999", 8), 0U);
}

TEST_F(ParamValue, SmallNumbersKeepTheirLowBytes) {
    EXPECT_EQ(store("NumberOfPorts", "0x1FE"), "");
    EXPECT_EQ(bytes(14, 3), std::string("\x00\xFE\x00", 3));
    EXPECT_EQ(store("AsicDeviceId", "0x12345"), "");
    EXPECT_EQ(bytes(63, 4), std::string("\x00\x23\x45\x00", 4));
}

TEST_F(ParamValue, U64StoresTheHighWordFirst) {
    const NonXML_s row = {"Wide", NONXML_E_TYPE_U64, 16, 8, 1, nullptr};
    EXPECT_EQ(errorsOf([&] { nonXMLStoreValue(row, "Wide", 0, "0x0102030405060708"); }), "");
    EXPECT_EQ(bytes(16, 8), "\x01\x02\x03\x04\x05\x06\x07\x08");
}

TEST_F(ParamValue, KeywordsMatchInAnyCase) {
    const struct {
        const char* name;
        const char* keyword;
        size_t offset;
        int value;
    } cases[] = {
        {"iCharMode", "driver", 14, 1},
        {"iCharMode", "iss", 14, 2},
        {"iCharMode", "StubServer", 14, 3},
        {"iCharMode", "StubClient", 14, 4},
        {"HaccMode", "STANDALONE", 70, 1},
        {"HaccMode", "DualSim", 70, 2},
        {"HaccMode", "eBlade", 70, 3},
        {"HaccMode", "Default", 70, 4},
        {"ChassisType", "None", 71, 1},
        {"ChassisType", "model2", 71, 2},
        {"ChassisType", "Model3", 71, 3},
        {"portConfiguration", "1gige", 696, 1},
        {"portConfiguration", "10GIGE", 696, 2},
        {"Bus", "True", 732, 1},
        {"Bus", "false", 732, 0},
        {"BatteryMgtPolicy", "Unknown", 46, 0},
        {"BatteryMgtPolicy", "Ignore", 46, 1},
        {"BatteryMgtPolicy", "WriteThrough", 46, 2},
        {"BatteryMgtPolicy", "Quiesce", 46, 3},
        {"BatteryMgtPolicy", "UPSPresent", 46, 4},
    };
    for (const auto& line : cases) {
        memset(&block, 0x77, sizeof(block));
        EXPECT_EQ(store(line.name, line.keyword), "") << line.name << "=" << line.keyword;
        EXPECT_EQ(bytes(line.offset, 2), std::string({static_cast<char>(line.value), 0x77}));
    }
}

TEST_F(ParamValue, UnknownKeywordsTakeTheDefault) {
    const struct {
        const char* name;
        size_t offset;
        int value;
    } cases[] = {{"iCharMode", 14, 1},          {"HaccMode", 70, 1}, {"ChassisType", 71, 1},
                 {"portConfiguration", 696, 1}, {"Bus", 732, 0},     {"BatteryMgtPolicy", 46, 0}};
    for (const auto& line : cases) {
        memset(&block, 0x77, sizeof(block));
        EXPECT_EQ(store(line.name, "unknown?"),
                  "+++ Warning: Unrecognized enumeration in configuration file - unknown?\n"
                  "    Using default " +
                      std::to_string(line.value) + "\n");
        EXPECT_EQ(bytes(line.offset, 1), std::string(1, static_cast<char>(line.value)));
    }
}

TEST_F(ParamValue, StringsZeroTheRestOfTheirField) {
    memset(&block, 'z', sizeof(block));
    EXPECT_EQ(store("SerialNumber", "B7"), "");
    EXPECT_EQ(bytes(119, 66), "zB7" + std::string(62, '\0') + "z");
}

TEST_F(ParamValue, StringOfExactlyTheFieldLosesItsLastByteSilently) {
    EXPECT_EQ(store("SerialNumber", std::string(64, 'a').c_str()), "");
    EXPECT_EQ(bytes(120, 65), std::string(63, 'a') + std::string(2, '\0'));
}

TEST_F(ParamValue, LongerStringIsTruncatedWithAWarning) {
    EXPECT_EQ(store("SerialNumber", std::string(65, 'a').c_str()),
              "String for SerialNumber too long.  Truncating to 64\n");
    EXPECT_EQ(bytes(120, 65), std::string(63, 'a') + std::string(2, '\0'));
}

TEST_F(ParamValue, BlankPaddedTextOfExactlyTheFieldKeepsItsLastByte) {
    EXPECT_EQ(store("RevisionLevel", "1234"), "");
    EXPECT_EQ(bytes(727, 6), std::string("\0001234\0", 6));
}

TEST_F(ParamValue, LongerBlankPaddedTextFillsTheField) {
    EXPECT_EQ(store("VendorId", "ABCDEFGHI"), "String for VendorId too long.  Truncating to 8\n");
    EXPECT_EQ(bytes(704, 9), std::string("ABCDEFGH\0", 9));
}

TEST_F(ParamValue, EmptyBlankPaddedTextIsAllBlanks) {
    EXPECT_EQ(store("ProductId", ""), "");
    EXPECT_EQ(bytes(712, 16), std::string(16, ' '));
}

TEST_F(ParamValue, MacAddressIsDecimalAndLeavesItsFiller) {
    memset(&block, 0x55, sizeof(block));
    EXPECT_EQ(store("MacAddress", "0:17:164:ff:0x10:256:7"), "");
    EXPECT_EQ(bytes(248, 8), std::string("\x00\x11\xA4\x00\x00\x00\x55\x55", 8));
}

TEST_F(ParamValue, MissingMacPartsAreZero) {
    memset(&block, 0x55, sizeof(block));
    EXPECT_EQ(store("MacAddress", "1:2"), "");
    EXPECT_EQ(bytes(248, 8), std::string("\x01\x02\x00\x00\x00\x00\x55\x55", 8));
}

TEST_F(ParamValue, MissingAddressPartsShiftAllTheSame) {
    EXPECT_EQ(storedWord("IssIpAddress", "10.1", 40), 0x0A010000U);
    EXPECT_EQ(storedWord("IssIpAddress", "", 40), 0U);
    EXPECT_EQ(storedWord("IssIpAddress", "1.2.3.4.5", 40), 0x01020304U);
}

TEST_F(ParamValue, AddressPartsAbove255JustAdd) {
    EXPECT_EQ(storedWord("IssIpAddress", "1.256.0.1", 40), 0x02000001U);
    EXPECT_EQ(storedWord("IssIpAddress", "0.0.0.4294967297", 40), 1U);
}

TEST_F(ParamValue, VersionsLeaveTheMaintenanceNumber) {
    memset(&block, 0x55, sizeof(block));
    EXPECT_EQ(store("MpuSoftwareVersion", "1.2.3.4"), "");
    EXPECT_EQ(bytes(48, 8), std::string("\x00\x01\x00\x02\x55\x55\x00\x03", 8));
}

TEST_F(ParamValue, MissingVersionPartsAreLeft) {
    memset(&block, 0x55, sizeof(block));
    EXPECT_EQ(store("R7qFirmwareVersion", "08"), "");
    EXPECT_EQ(bytes(56, 8), std::string("\x00\x08\x55\x55\x55\x55\x55\x55", 8));
}

TEST_F(ParamValue, AdaptersNeedNoSecondNumber) {
    EXPECT_EQ(storedWord("Adapter", "5", 736), 0x00050000U);
    EXPECT_EQ(storedWord("Adapter", "0x10/010", 736), 0x00100008U);
    EXPECT_EQ(storedWord("Adapter", "1/0x10000", 736), 0x00020000U);
    EXPECT_EQ(storedWord("Adapter", "0x12345/1", 736), 0x23450001U);
}

TEST_F(ParamValue, SizesShiftBySuffixInEitherCase) {
    EXPECT_EQ(storedWord("SystemMemorySize", "64M", 96), 67108864U);
    EXPECT_EQ(storedWord("SystemMemorySize", "64m", 96), 67108864U);
    EXPECT_EQ(storedWord("SystemMemorySize", "2K", 96), 2048U);
    EXPECT_EQ(storedWord("SystemMemorySize", "2k", 96), 2048U);
    EXPECT_EQ(storedWord("SystemMemorySize", "3g", 96), 0xC0000000U);
    EXPECT_EQ(storedWord("SystemMemorySize", "1G", 96), 0x40000000U);
    EXPECT_EQ(storedWord("SystemMemorySize", "77", 96), 77U);
    EXPECT_EQ(storedWord("SystemMemorySize", "64MB", 96), 67108864U);
}

TEST_F(ParamValue, SuffixMustFollowTheDigits) {
    EXPECT_EQ(storedWord("SystemMemorySize", "64 M", 96), 64U);
    EXPECT_EQ(storedWord("SystemMemorySize", "64T", 96), 64U);
    EXPECT_EQ(storedWord("SystemMemorySize", "0x10k", 96), 0U);
}

TEST_F(ParamValue, SizesKeepTheirLow32Bits) {
    EXPECT_EQ(storedWord("SystemMemorySize", "64G", 96), 0U);
    EXPECT_EQ(storedWord("SystemMemorySize", "4097m", 96), 0x00100000U);
}

TEST_F(ParamValue, TypeAboveTheLastIsAnInternalError) {
    const NonXML_s row = {"Odd", static_cast<NonXML_types_e>(12), 8, 4, 1, nullptr};
    EXPECT_EQ(errorsOf([&] { nonXMLStoreValue(row, "Odd", 0, "1"); }),
              "+++ Internal error parsing configuration file - 12\n");
    EXPECT_EQ(word(8), 0U);
}

TEST_F(ParamValue, EveryTypeButTextsInsistsOnItsSize) {
    const struct {
        NonXML_types_e type;
        int size;
    } cases[] = {{NONXML_E_TYPE_U32, 4},    {NONXML_E_TYPE_ENUM, 1},    {NONXML_E_TYPE_U8, 1},
                 {NONXML_E_TYPE_U16, 2},    {NONXML_E_TYPE_U64, 8},     {NONXML_E_TYPE_MACADDR, 8},
                 {NONXML_E_TYPE_IPADDR, 4}, {NONXML_E_TYPE_VERSION, 8}, {NONXML_E_TYPE_ADAPTERS, 4},
                 {NONXML_E_TYPE_SIZE, 4}};
    for (const auto& line : cases) {
        const NonXML_s row = {"Odd", line.type, 8, 3, 1, nullptr};
        EXPECT_EQ(errorsOf([&] { nonXMLStoreValue(row, "Odd", 0, "1"); }),
                  "Internal error: Entry size does not match type! 3 != " +
                      std::to_string(line.size) + "\n");
    }
    EXPECT_EQ(bytes(0, 744), std::string(744, '\0'));
}
