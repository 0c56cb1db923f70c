/**
 * The record format: checksum, first entry, dummy entry, index.
 */
#include "altEventLog.h"
#include "bug_check_texts.h"
#include "store_fixture.h"

#include <fcntl.h>

namespace {

using logimage::Bytes;
using logimage::hex;
using logimage::Image;
using logimage::Record;
using logimage::slice;
using logimage::zeros;

constexpr char DUMMY_FUNCTION[] = "empWriteDummyEntryToLogFile";
constexpr char FIRST_FUNCTION[] = "empWriteFirstEntryToLogFile"; // not the function's own name

/** Enclosure "ENCLOSURE-SERIAL-0123456789-ABC", blade "BLADE-0042", slot 3. */
constexpr char IDENTITY[] = "454e434c4f535552452d53455249414c2d303132333435363738392d41424300"
                            "0000000000000000000000000000000000000000000000000000000000000000"
                            "424c4144452d3030343200000000000000000000000000000000000000000000"
                            "0000000000000000000000000000000000000000000000000000000000000000"
                            "00000003";

class RecordTest : public StoreTest {
  protected:
    RecordTest() {
        hooks::state.clock = 0x65A0B0C0;
        empLogTake(open(logPath.c_str(), O_RDWR | O_CREAT, 0700));
    }
    void dummy(uint32_t offset, uint32_t length, int fill) {
        outputOf([&] { empWriteDummyEntryToLogFile(offset, length, fill); });
    }
    static void seek(int64_t offset) { empLogFilePosition = offset; }
    uint16_t lengthAt(uint32_t offset) { return logimage::get16(readLog(), offset + 152); }
};

// --- Checksum ---

TEST_F(RecordTest, ChecksumIsCastagnoliWithItsBytesReversed) {
    EXPECT_EQ(computeCRC32("123456789", 9), 0x839206E3U);
    EXPECT_EQ(computeCRC32(zeros(152).data(), 152), 0x3DC53C3BU);
    EXPECT_EQ(computeCRC32("", 0), 0U);
    EXPECT_EQ(logimage::checksum(reinterpret_cast<const uint8_t*>("123456789"), 9), 0x839206E3U);
}

TEST_F(RecordTest, EveryByteFrom8OnIsCoveredByTheChecksum) {
    Bytes record = encode(Record::event(5, 24));
    putImage(record);
    uint32_t gap = 1;
    ASSERT_EQ(empFindValidEventEntry(0, &gap), EMP_E_OK);
    EXPECT_EQ(gap, 0U);
    for (size_t at = 8; at < record.size(); at++) {
        Bytes changed = record;
        changed[at] ^= 0x01;
        putImage(changed);
        outputOf([&] { EXPECT_EQ(empFindValidEventEntry(0, &gap), EMP_E_GENERR) << at; });
    }
}

TEST_F(RecordTest, VersionAndReservedByteAreOutsideTheChecksum) {
    Record record = Record::event(5, 24);
    record.version = 0;
    record.reserved = 0xEE;
    EXPECT_EQ(slice(encode(record), 4, 4), slice(encode(Record::event(5, 24)), 4, 4));
    putImage(encode(record));
    uint32_t gap = 1;
    EXPECT_EQ(empFindValidEventEntry(0, &gap), EMP_E_OK);
}

TEST_F(RecordTest, SignatureIsOutsideTheChecksum) {
    outputOf(empWriteFirstEventEntryToLogFile);
    const Bytes good = readLog();
    ASSERT_EQ(good.size(), 200U);
    for (size_t at : {0U, 1U}) {
        Bytes changed = good;
        changed[at] ^= 0x01;
        putImage(changed);
        uint32_t gap = 1;
        // No record any more, but not for its checksum: no line says that it does not match.
        EXPECT_EQ(outputOf([&] {
                      EXPECT_EQ(empFindValidEventEntry(0, &gap), EMP_E_GENERR);
                  }).find("CRCChecksum"),
                  std::string::npos);
        EXPECT_EQ(logimage::get32(readLog(), 4), logimage::checksum(&changed[8], 192));
    }
}

// --- First entry ---

TEST_F(RecordTest, FirstEntryIsTwoHundredBytes) {
    outputOf([] { empWriteFirstEventEntryToLogFile(); });
    Bytes wanted =
        hex(std::string("b68f010083f7e722") + IDENTITY +
            "00000000"         // instance
            "00000000"         // sequence id
            "65a0b0c0"         // time
            "00281b0102010002" // 40 bytes, source 27, type 1, category 2, version 1, id 2
            "454e434c4f535552452d53455249414c2d30313233343536" // 24 of the enclosure id
            "00000000000000000000000000000000");
    EXPECT_EQ(readLog(), wanted);
}

TEST_F(RecordTest, FirstEntryTakesAnIdAndIsCountedAndIndexed) {
    empControl.empSequenceId = 12'345;
    empControl.empInstanceNumber = 7;
    outputOf([] { empWriteFirstEventEntryToLogFile(); });
    EXPECT_EQ(state(), (LogState{200, 0, 0, 12'346, WRAP_FALSE, 0, 1, 1, 0, 7}));
    EXPECT_TRUE(indexed(12'345));
    EXPECT_EQ(offsetOf(12'345), 0U);
    EXPECT_EQ(logimage::get32(readLog(), 144), 12'345U);
    EXPECT_EQ(logimage::get32(readLog(), 140), 7U);
    EXPECT_EQ(position(), 200); // not restored
}

TEST_F(RecordTest, FirstEntryGoesToTheTopWhateverTheFilePosition) {
    putImage(zeros(1000));
    seek(500);
    outputOf([] { empWriteFirstEventEntryToLogFile(); });
    EXPECT_EQ(slice(readLog(), 0, 4), hex("b68f0100"));
    EXPECT_EQ(slice(readLog(), 200, 800), zeros(800));
}

TEST_F(RecordTest, FirstEntryReportsUnderItsOtherName) {
    empControl.empSequenceId = 10'003;
    EXPECT_EQ(outputOf([] { empWriteFirstEventEntryToLogFile(); }),
              "empWriteFirstEntryToLogFile(): Record eventEntryDatabase[3], Offset = [0], Flag = "
              "[0x1] for new Event Entry.\n"
              "empWriteFirstEntryToLogFile(): new empWrite = [200].\n");
    expectBugCheck(
        [] {
            hooks::state.seeks.failAt = 1;
            empWriteFirstEventEntryToLogFile();
        },
        LSEEK_FAILS, FIRST_FUNCTION);
    expectBugCheck(
        [] {
            hooks::state.writes.failAt = 1;
            empWriteFirstEventEntryToLogFile();
        },
        WRITE_FAILS, FIRST_FUNCTION);
}

TEST_F(RecordTest, ShortWriteOfTheFirstEntryIsDumped) {
    ChildEnd end = expectBugCheck(
        [] {
            hooks::state.shortWriteAt = 1;
            hooks::state.shortWriteBytes = 4;
            empWriteFirstEventEntryToLogFile();
        },
        WRITE_FAILS, FIRST_FUNCTION);
    EXPECT_EQ(end.output.substr(0, 10), "B68F0100 \n");
}

// --- Dummy entry ---

TEST_F(RecordTest, DummyIsAHeaderWithItsOwnChecksum) {
    empControl.empInstanceNumber = 9;
    empControl.empSequenceId = 77;
    dummy(0, 300, 0);
    Bytes wanted = hex(std::string("b68f01000e25c68f") + IDENTITY +
                       "00000009"           // instance
                       "00000000"           // a dummy takes no id
                       "65a0b0c0"           // time
                       "012c1b0102010001"); // 300 bytes, source 27, ..., id 1
    EXPECT_EQ(readLog(), wanted);
    EXPECT_EQ(state(), (LogState{0, 0, 0, 77, WRAP_FALSE, 0, 0, 0, 0, 9}));
    EXPECT_EQ(validSlots(), 0U);
}

TEST_F(RecordTest, DummyOf300IsFollowedBy300Zeros) {
    putImage(Bytes(1000, 0xFF));
    dummy(200, 300, 1);
    EXPECT_EQ(lengthAt(200), 300);
    EXPECT_EQ(slice(readLog(), 360, 300), zeros(300));
    EXPECT_EQ(slice(readLog(), 660, 340), Bytes(340, 0xFF));
}

TEST_F(RecordTest, DummyWithoutFillLeavesWhatFollows) {
    putImage(Bytes(1000, 0xFF));
    dummy(200, 300, 0);
    EXPECT_EQ(slice(readLog(), 360, 640), Bytes(640, 0xFF));
}

TEST_F(RecordTest, OnlyAFillOfOneFills) {
    dummy(200, 300, 2);
    EXPECT_EQ(logSize(), 360U);
}

TEST_F(RecordTest, DummyOf65535RunsToEndOfFile) {
    putImage(Bytes(100'000, 0xFF));
    dummy(200, 65535, 1);
    EXPECT_EQ(lengthAt(200), 0xFFFF);
    EXPECT_EQ(slice(readLog(), 360, END_OF_FILE), zeros(1'599'640));
    EXPECT_EQ(logSize(), END_OF_FILE);
}

TEST_F(RecordTest, DummyOf65534IsFollowedByThatMany) {
    dummy(200, 65534, 1);
    EXPECT_EQ(lengthAt(200), 65534);
    EXPECT_EQ(logSize(), 360U + 65534);
}

TEST_F(RecordTest, DummyOf70000SaysFfffButWrites70000Zeros) {
    putImage(Bytes(100'000, 0xFF));
    dummy(200, 70'000, 1);
    EXPECT_EQ(lengthAt(200), 0xFFFF);
    EXPECT_EQ(slice(readLog(), 360, 70'000), zeros(70'000));
    EXPECT_EQ(readLog()[70'360], 0xFF);
}

TEST_F(RecordTest, FillInWholePieces) {
    for (uint32_t length : {0U, 1U, 4063U, 4064U, 4065U, 8128U}) {
        putImage(Bytes(20'000, 0xFF));
        dummy(100, length, 1);
        EXPECT_EQ(slice(readLog(), 260, length), zeros(length));
        EXPECT_EQ(readLog()[260 + length], 0xFF) << length;
    }
}

TEST_F(RecordTest, DummyAtTheLastHeaderHasNoBytesBehind) {
    dummy(1'599'840, 0, 1);
    EXPECT_EQ(logSize(), END_OF_FILE);
    EXPECT_EQ(lengthAt(1'599'840), 0);
}

TEST_F(RecordTest, NoRoomForADummyMeansZerosOnly) {
    putImage(Bytes(1'600'050, 0xFF));
    std::string output = outputOf([] { empWriteDummyEntryToLogFile(1'599'900, 12'345, 0); });
    EXPECT_EQ(output, "empWriteDummyEntryToLogFile(): No enough space for Dummy Event Record. "
                      "Write [100] bytes of 0 to Event Log File.\n");
    EXPECT_EQ(slice(readLog(), 1'599'900, 100), zeros(100));
    EXPECT_EQ(readLog()[1'599'899], 0xFF);
    EXPECT_EQ(slice(readLog(), END_OF_FILE, 50), Bytes(50, 0xFF));
}

TEST_F(RecordTest, DummyAtTheEndOfTheFileWritesNothingAndIsNoError) {
    std::string output = outputOf([] { empWriteDummyEntryToLogFile(1'600'000, 0xFFFFFF60, 1); });
    EXPECT_EQ(output, "empWriteDummyEntryToLogFile(): No enough space for Dummy Event Record. "
                      "Write [0] bytes of 0 to Event Log File.\n");
    EXPECT_EQ(logSize(), 0U);
}

TEST_F(RecordTest, DummyBeyondTheEndWritesNothing) {
    seek(17);
    std::string output = outputOf([] { empWriteDummyEntryToLogFile(1'600'300, 65535, 1); });
    EXPECT_EQ(output, "empWriteDummyEntryToLogFile(): No enough space for Dummy Event Record. "
                      "Write [-300] bytes of 0 to Event Log File.\n");
    EXPECT_EQ(logSize(), 0U);
    EXPECT_EQ(position(), 17);
}

TEST_F(RecordTest, DummyRestoresTheFilePosition) {
    for (uint32_t offset : {0U, 1'599'840U, 1'599'900U}) {
        seek(4321);
        dummy(offset, 100, 1);
        EXPECT_EQ(position(), 4321);
    }
}

TEST_F(RecordTest, DummySaysItsChecksum) {
    empControl.empInstanceNumber = 9;
    EXPECT_EQ(outputOf([] { empWriteDummyEntryToLogFile(0, 300, 0); }),
              "empWriteDummyEntryToLogFile(): Dummy Entry CRCChecksum = [0xE25C68F].\n");
}

TEST_F(RecordTest, EveryFailingCallOfADummyIsABugCheck) {
    expectBugCheck(
        [] {
            hooks::state.seeks.failAt = 1;
            empWriteDummyEntryToLogFile(200, 5000, 1);
        },
        LSEEK_FAILS, DUMMY_FUNCTION);
    for (int call = 1; call <= 3; call++) { // header, 4064 zeros, 936 zeros
        expectBugCheck(
            [call] {
                hooks::state.writes.failAt = call;
                empWriteDummyEntryToLogFile(200, 5000, 1);
            },
            WRITE_FAILS, DUMMY_FUNCTION);
    }
    expectBugCheck(
        [] {
            hooks::state.writes.failAt = 1;
            empWriteDummyEntryToLogFile(1'599'990, 0, 1);
        },
        WRITE_FAILS, DUMMY_FUNCTION);
}

TEST_F(RecordTest, ShortWritesOfADummyAreDumped) {
    auto shortWrite = [&](int call, uint32_t offset) {
        return expectBugCheck(
                   [call, offset] {
                       hooks::state.shortWriteAt = call;
                       hooks::state.shortWriteBytes = 5;
                       empWriteDummyEntryToLogFile(offset, 300, 1);
                   },
                   WRITE_FAILS, DUMMY_FUNCTION)
            .output;
    };
    EXPECT_NE(shortWrite(1, 0).find("B68F0100 "), std::string::npos);
    EXPECT_NE(shortWrite(2, 0).find("00000000 00\n"), std::string::npos);
    EXPECT_NE(shortWrite(1, 1'599'990).find("00000000 00\n"), std::string::npos);
}

// --- What is a dummy, index, limits ---

TEST_F(RecordTest, DummyIsSourceTwentySevenAndIdOne) {
    EmpEvRecord_t record{};
    record.evSource = 27;
    record.evId = 1;
    EXPECT_TRUE(empIsDummy(&record)); // whatever its signature and checksum
    record.evId = 2;
    EXPECT_FALSE(empIsDummy(&record));
    record.evSource = 26;
    record.evId = 1;
    EXPECT_FALSE(empIsDummy(&record));
}

TEST_F(RecordTest, IdsTenThousandApartShareASlot) {
    EXPECT_EQ(empIndexRecord(5, 200), 5U);
    EXPECT_EQ(empIndexRecord(10'005, 1'599'840), 5U);
    EXPECT_EQ(validSlots(), 1U);
    EXPECT_EQ(offsetOf(5), 1'599'840U);
    empIndexClear(5);
    EXPECT_EQ(validSlots(), 0U);
    EXPECT_EQ(offsetOf(5), 0U);
}

TEST_F(RecordTest, IndexEntryIsFlagAndTwentyFourBitsOfOffset) {
    empIndexRecord(4'294'967'295U, 1'599'840);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&eventEntryDatabase[7295]);
    EXPECT_EQ(Bytes(bytes, bytes + 4), hex("01186960"));
}

TEST_F(RecordTest, EndOfLogIsComparedWithoutOverflow) {
    EXPECT_FALSE(empBeyondLogEnd(1'599'840, 160));
    EXPECT_TRUE(empBeyondLogEnd(1'599'841, 160));
    EXPECT_TRUE(empBeyondLogEnd(0xFFFFFFFF, 160));
    EXPECT_TRUE(empBeyondLogEnd(0xFFFFFFFF, 0xFFFFFFFF));
}

} // namespace
