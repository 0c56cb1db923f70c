/**
 * What the scan does with files, directories and failing calls.
 */
#include "bug_check_texts.h"
#include "store_fixture.h"

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

constexpr char OPEN_FAILS[] = "Linux open function fails for Event Log File!";
constexpr char SCAN[] = "empProcessEventLogFile";

class ScanFile : public StoreTest {
  protected:
    std::string scan() {
        restart();
        return outputOf([&] { outcome = empScanEventLogFile(); });
    }
    static bool has(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
    static Image twoGaps() { return logimage::unwrapped(10, 40).dummyToEnd().flip(650).flip(1450); }
    static Bytes repeated(const Bytes& pattern, size_t size) {
        Bytes bytes;
        while (bytes.size() < size) {
            bytes.insert(bytes.end(), pattern.begin(), pattern.end());
        }
        bytes.resize(size);
        return bytes;
    }
    static size_t linesOf(const std::string& text, const std::string& part) {
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            count++;
        }
        return count;
    }
    EMP_SCAN_OUTCOME_e outcome = EMP_E_SCAN_DONE;
};

TEST_F(ScanFile, IsOpenedReadWriteAndCreatedForTheOwner) {
    umask(0);
    scan();
    ASSERT_FALSE(hooks::state.opened.empty());
    const auto& last = hooks::state.opened.back();
    EXPECT_EQ(last.path, logPath);
    EXPECT_EQ(last.flags & (O_ACCMODE | O_CREAT | O_TRUNC | O_EXCL), O_RDWR | O_CREAT);
    struct stat info {};
    ASSERT_EQ(stat(logPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0700U);
    EXPECT_GT(empControl.eventLogFileFd, 2);
}

TEST_F(ScanFile, OpenFailureIsABugCheck) {
    hooks::state.openName = "/kelta_eventlog";
    hooks::state.failOpenAt = 1;
    expectBugCheck([&] { empScanEventLogFile(); }, OPEN_FAILS, SCAN);
}

TEST_F(ScanFile, OpenFailureAfterTheRenameIsABugCheck) {
    putImage(twoGaps());
    hooks::state.openName = "/kelta_eventlog";
    hooks::state.failOpenAt = 2;
    expectBugCheck([&] { empScanEventLogFile(); }, OPEN_FAILS, SCAN);
}

TEST_F(ScanFile, FreshLogsLines) {
    std::string text = scan();
    EXPECT_EQ(text.substr(0, 1), "\n"); // the dump of nothing
    EXPECT_TRUE(has(text, "empWriteFirstEntryToLogFile(): new empWrite = [200].\n"
                          "empProcessEventLogFile(): Can't find a valid Event Entry in Event Log "
                          "File? Create Dummy Entry.\n"
                          "empWriteDummyEntryToLogFile(): Dummy Entry "));
    EXPECT_TRUE(has(text, "empProcessEventLogFile(): empWrite = [200], new empStart = [0].\n"
                          "empProcessEventLogFile(): Because of creation of Dummy Entry, empWrite "
                          "= [200], new empStart = [1600000].\n"));
}

TEST_F(ScanFile, LinesOfAnUnwrappedLog) {
    putImage(logimage::unwrapped(1, 40).dummyToEnd());
    EXPECT_EQ(scan(),
              "empProcessEventLogFile(): This is first Event Entry.\n"
              "empProcessEventLogFile(): Event Log with Sequence Id = [0].\n"
              "empProcessEventLogFile(): Record eventEntryDatabase[0], Offset = [0], Flag = [0x1] "
              "for non-Dummy Entry.\n"
              "empProcessEventLogFile(): new Read position = [200]\n"
              "empProcessEventLogFile(): Event Log with Sequence Id = [1].\n"
              "empProcessEventLogFile(): Record eventEntryDatabase[1], Offset = [200], Flag = "
              "[0x1] for non-Dummy Entry.\n"
              "empProcessEventLogFile(): new Read position = [400]\n");
    EXPECT_EQ(position(), 400); // the scan leaves the position at the start, then still 400
}

TEST_F(ScanFile, LinesOfAWrappedLog) {
    Image image;
    image.event(7, 40).fill(30, 0).event(5, 40).event(6, 40).dummyToEnd();
    putImage(image);
    EXPECT_EQ(scan(),
              "empProcessEventLogFile(): This is first Event Entry.\n"
              "empProcessEventLogFile(): Event Log with Sequence Id = [7].\n"
              "empProcessEventLogFile(): Record eventEntryDatabase[7], Offset = [0], Flag = [0x1] "
              "for non-Dummy Entry.\n"
              "empProcessEventLogFile(): new Read position = [200]\n"
              "empProcessEventLogFile(): Found gap = [30] between the current Event Entry and "
              "another one.\n"
              "empProcessEventLogFile(): SequenceId isn't continuous between Event Entries.\n"
              "empProcessEventLogFile(): Event Log File is wrapped over.\n"
              "empProcessEventLogFile(): Add [30] bytes of gap between Event Entries for "
              "empStart.\n"
              "empProcessEventLogFile(): empWrite = [200], empStart = [230]\n"
              "empProcessEventLogFile(): empSequenceId = [8], empStartSequenceId = [5]\n"
              "empProcessEventLogFile(): Record eventEntryDatabase[5], Offset = [230], Flag = "
              "[0x1] for non-Dummy Entry.\n"
              "empProcessEventLogFile(): new Read position = [430]\n"
              "empProcessEventLogFile(): SequenceId isn't continuous between Event Entries.\n"
              "empProcessEventLogFile(): No gap between Event Entries.\n"
              "empProcessEventLogFile(): empWrite = [200], empStart = [230]\n"
              "empProcessEventLogFile(): empSequenceId = [8], empStartSequenceId = [5]\n"
              "empProcessEventLogFile(): Record eventEntryDatabase[6], Offset = [430], Flag = "
              "[0x1] for non-Dummy Entry.\n"
              "empProcessEventLogFile(): new Read position = [630]\n");
    EXPECT_EQ(position(), 230);
}

TEST_F(ScanFile, IdsPrintAsSignedNumbers) {
    Image image;
    image.event(0xFFFFFFFF, 0).dummyToEnd();
    putImage(image);
    EXPECT_TRUE(has(scan(), "Event Log with Sequence Id = [-1].\n"));
    EXPECT_EQ(state(), (LogState{160, END_OF_FILE, 0xFFFFFFFF, 0, WRAP_FALSE, 0, 1, 0, 0, 0}));
}

TEST_F(ScanFile, OverlongRecordWithAGoodChecksumIsIndexed) {
    Record record = Record::event(1, 65535);
    record.source = 27;
    Image image;
    image.add(Record::first()).add(record).event(2, 0).dummyToEnd();
    putImage(image);
    scan();
    EXPECT_EQ(state(),
              (LogState{200 + 65'695 + 160, END_OF_FILE, 0, 3, WRAP_FALSE, 0, 3, 0, 0, 0}));
}

TEST_F(ScanFile, BugChecksOfTheScanEndTheProcess) {
    putImage(logimage::unwrapped(10, 40).dummyToEnd().insert(1000, Bytes(77, 0x33)));
    expectBugCheck([] { empScanEventLogFile(); }, "Continuous SequenceId with Gap? Bug somewhere!",
                   SCAN);
    putImage(Image().event(5, 40).event(6, 40).event(5, 40).dummyToEnd());
    expectBugCheck([] { empScanEventLogFile(); }, "Invalid Sequence ID? Bug somewhere!", SCAN);
}

TEST_F(ScanFile, FailingReadsLookLikeAnEmptyFile) {
    putImage(logimage::unwrapped(10, 40).dummyToEnd());
    hooks::state.reads.failAt = 1;
    hooks::state.reads.failOn = true;
    scan();
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
}

TEST_F(ScanFile, FirstFailingSeekIsABugCheckOfTheScan) {
    putImage(logimage::unwrapped(10, 40).dummyToEnd());
    expectBugCheck(
        [] {
            hooks::state.seeks.failAt = 1;
            empScanEventLogFile();
        },
        LSEEK_FAILS, SCAN);
}

TEST_F(ScanFile, EveryFailingSeekIsABugCheckWithOneOfTheTexts) {
    putImage(Image().event(7, 40).fill(30, 0).event(5, 40).dummyToEnd());
    outputOf([] { empScanEventLogFile(); });
    int total = hooks::state.seeks.count;
    ASSERT_EQ(total, 2); // the file's own, and that of the one read
    for (int call = 1; call <= total; call++) {
        restart();
        ChildEnd end = inChild([call] {
            hooks::state.seeks.failAt = call;
            empScanEventLogFile();
        });
        EXPECT_TRUE(end.aborted) << call;
        EXPECT_TRUE((end.function == "empFindValidEventEntry" &&
                     (end.message == LSEEK_CALL_FAILS || end.message == LSEEK_FAILS)) ||
                    (end.function == SCAN && end.message == LSEEK_FAILS))
            << call << " " << end.function << " " << end.message;
    }
}

TEST_F(ScanFile, ReadsTheFileOnce) {
    uint32_t nextId = 0;
    putImage(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd());
    scan();
    EXPECT_EQ(empControl.empEventInLogFile, nextId);
    // By 64 KiB; where a record crosses the window's end, the next begins at that record.
    EXPECT_LE(hooks::state.reads.count, 1'600'000 / 65'536 + 2);
}

TEST_F(ScanFile, PlausibleHeadersEveryTwelveBytesAreReadInAFewWindows) {
    // 3848 bytes of data each. 154 bytes on, source and type are those of a sound header.
    putImage(repeated({0xB6, 0x8F, 1, 0, 0, 7, 0, 0, 0x0F, 0x08, 5, 2}, 400'000));
    std::string text = scan();
    EXPECT_EQ(linesOf(text, "not match"), (400'000U - 4008) / 12 + 1);
    EXPECT_EQ(empControl.empEventInLogFile, 1U); // a fresh log
    EXPECT_LE(hooks::state.reads.count, 400'000 / (131'072 - 4008) + 3);
}

TEST_F(ScanFile, HeadersOfWaivedLengthEveryFourBytesAreReadInAFewWindows) {
    // 46,735 bytes of data each: the event id is 1.
    putImage(repeated({0xB6, 0x8F, 0, 1}, 400'000));
    std::string text = scan();
    EXPECT_EQ(linesOf(text, "not match"), (400'000U - 46'895) / 4 + 1);
    EXPECT_EQ(empControl.empEventInLogFile, 1U);
    EXPECT_LE(hooks::state.reads.count, 400'000 / (131'072 - 46'895) + 3);
}

// --- The debugging copy ---

TEST_F(ScanFile, DamagedFileBecomesTheDebuggingCopyUntilTheNextStart) {
    putImage(twoGaps());
    std::string text = scan();
    EXPECT_EQ(outcome, EMP_E_SCAN_REBUILT);
    EXPECT_TRUE(has(text, "empProcessEventLogFile(): 2 gaps in Event Log File. Reinitialize the "
                          "Event Log File.\n"));
    EXPECT_EQ(std::filesystem::file_size(debugPath), END_OF_FILE);
    EXPECT_EQ(logSize(), END_OF_FILE);
    EXPECT_EQ(validSlots(), 1U);
    EXPECT_TRUE(has(scan(), "empProcessEventLogFile(): Remove the debugging copy of the Event Log "
                            "File [" +
                                debugPath + "].\n"));
    EXPECT_EQ(outcome, EMP_E_SCAN_DONE);
    EXPECT_FALSE(std::filesystem::exists(debugPath));
}

TEST_F(ScanFile, FailedRenameRebuildsInPlace) {
    putImage(twoGaps());
    hooks::state.failRename = true;
    scan();
    EXPECT_EQ(outcome, EMP_E_SCAN_REBUILT);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
    EXPECT_EQ(logimage::slice(readLog(), 360, END_OF_FILE), logimage::zeros(END_OF_FILE - 360));
    EXPECT_FALSE(std::filesystem::exists(debugPath));
}

TEST_F(ScanFile, FifoAsDebuggingCopyDoesNotHangTheStart) {
    ASSERT_EQ(mkfifo(debugPath.c_str(), 0600), 0);
    EXPECT_TRUE(has(scan(), "Remove the debugging copy of the Event Log File"));
    EXPECT_FALSE(std::filesystem::exists(debugPath));
}

TEST_F(ScanFile, DebuggingCopyThatCannotBeRemovedIsPassedOver) {
    std::filesystem::create_directories(debugPath + "/inside");
    EXPECT_TRUE(has(scan(), "Remove the debugging copy of the Event Log File"));
    EXPECT_TRUE(std::filesystem::exists(debugPath + "/inside"));
    EXPECT_EQ(empControl.empWrite, 200U);
}

TEST_F(ScanFile, DirectoryNameIsNoShellText) {
    std::string odd = directory + "/a b;$(x)'";
    std::filesystem::create_directory(odd);
    auto* block = const_cast<MPU_PARAMS_t*>(oMpuParams);
    memcpy(block->nvramDirectory, odd.c_str(), odd.size() + 1);
    logPath = odd + "/kelta_eventlog";
    putImage(twoGaps());
    scan();
    EXPECT_EQ(outcome, EMP_E_SCAN_REBUILT);
    EXPECT_TRUE(std::filesystem::exists(odd + "/kelta_eventlog.debug"));
}

TEST_F(ScanFile, DirectoryNameWithoutTerminatorIsReadToItsEndOnly) {
    auto* block = const_cast<MPU_PARAMS_t*>(oMpuParams);
    memset(block->nvramDirectory, 'd', sizeof(block->nvramDirectory));
    memset(block->logDirectory, 'x', sizeof(block->logDirectory));
    expectBugCheck([] { empScanEventLogFile(); }, OPEN_FAILS, SCAN);
}

} // namespace
