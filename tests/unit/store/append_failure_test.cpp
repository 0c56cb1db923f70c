/**
 * Failing calls while an event is stored: every one ends the process, under the right name.
 */
#include "log_model.h"
#include "store_fixture.h"

#include <map>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

constexpr char LSEEK_FAILS[] = "Linux lseek function fails for Event Log File!";
constexpr char LSEEK_CALL_FAILS[] = "Linux lseek call fails for Event Log File!";
constexpr char READ_FAILS[] = "Linux read function fails for Event Log File!";
constexpr char WRITE_FAILS[] = "Linux write function fails for Event Log File!";
constexpr char SAVE[] = "empSaveEventLogMsgToLogFile";
constexpr char FIND[] = "empFindValidEventEntry";
constexpr char DUMMY[] = "empWriteDummyEntryToLogFile";
constexpr char OTHER[] = "empProcessEventLogFile"; // named by the seek before the final write

class AppendFailure : public StoreTest {
  protected:
    /** Every seek of one append fails once. @return how often each name and text was seen */
    std::map<std::string, int> failEverySeek(size_t size) {
        Bytes image = readLog();
        countSeeks([&] { append(size); });
        std::map<std::string, int> seen;
        for (int call = 1; call <= total_; call++) {
            putImage(image);
            ChildEnd end = inChild([&] {
                hooks::state.seeks.failAt = call;
                append(size);
            });
            EXPECT_TRUE(end.aborted) << call;
            if (end.function == FIND && end.message == LSEEK_CALL_FAILS) {
                seen["search"]++;
                continue;
            }
            EXPECT_EQ(end.message, LSEEK_FAILS) << end.output.substr(0, 3000);
            seen[end.function]++;
        }
        return seen;
    }
    void shortWrite(int call, long bytes, size_t size, const std::string& dump) {
        ChildEnd end = expectBugCheck(
            [&] {
                hooks::state.shortWriteAt = call;
                hooks::state.shortWriteBytes = bytes;
                append(size);
            },
            WRITE_FAILS, SAVE);
        EXPECT_NE(end.output.find(dump), std::string::npos) << end.output.substr(0, 2000);
    }

  private:
    /** Counts the seeks of @p action in a child. */
    void countSeeks(const std::function<void()>& action) {
        ChildEnd end = inChild([&] {
            action();
            fflush(stdout);
            _exit(hooks::state.seeks.count);
        });
        total_ = end.exitStatus;
        ASSERT_GT(total_, 2);
        ASSERT_LT(total_, 100);
    }
    int total_ = 0;
};

TEST_F(AppendFailure, SeeksOfTheEverydayCase) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    std::map<std::string, int> seen = failEverySeek(100);
    EXPECT_EQ(seen[OTHER], 1);
    EXPECT_GE(seen[SAVE], 2);
    EXPECT_GE(seen["search"], 1);
    EXPECT_EQ(seen[FIND], 2); // the position is noted and restored
    EXPECT_EQ(seen[DUMMY], 3);
    EXPECT_EQ(seen.size(), 5U);
}

TEST_F(AppendFailure, SeeksOfADiscard) {
    scanImage(logimage::wrapped(3, 500, 500).image);
    std::map<std::string, int> seen = failEverySeek(100);
    EXPECT_EQ(seen[OTHER], 1);
    EXPECT_GE(seen[SAVE], 2);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(AppendFailure, SeeksOfAWrap) {
    uint32_t nextId = 0;
    scanImage(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd());
    std::map<std::string, int> seen = failEverySeek(3848);
    EXPECT_EQ(seen[OTHER], 1);
    EXPECT_GE(seen[SAVE], 2);
    EXPECT_EQ(seen[DUMMY], 3);
}

TEST_F(AppendFailure, FirstSeekNotesThePositionAndReportsUnderTheFunction) {
    scanImage(Image());
    expectBugCheck(
        [&] {
            hooks::state.seeks.failAt = 1;
            append(0);
        },
        LSEEK_FAILS, SAVE);
}

TEST_F(AppendFailure, EveryWriteThatFailsIsABugCheck) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    const char* functions[] = {SAVE, SAVE, DUMMY}; // header, body, header of the fresh dummy
    Bytes image = readLog();
    for (int call = 1; call <= 3; call++) {
        putImage(image);
        expectBugCheck(
            [&] {
                hooks::state.writes.failAt = call;
                append(100);
            },
            WRITE_FAILS, functions[call - 1]);
    }
}

TEST_F(AppendFailure, ShortWriteOfTheHeaderIsDumped) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    shortWrite(1, 4, 100, "B68F0100 \n");
}

TEST_F(AppendFailure, ShortWriteOfTheBodyIsDumped) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    Bytes body = Record::event(4, 100).body;
    shortWrite(2, 99, 100, logmodel::hexDumpText(logimage::slice(body, 0, 99)));
}

TEST_F(AppendFailure, ReadErrorOfADiscardIsABugCheck) {
    scanImage(logimage::wrapped(3, 500, 500).image);
    ChildEnd end = expectBugCheck(
        [&] {
            hooks::state.reads.failAt = 1;
            append(100);
        },
        READ_FAILS, SAVE);
    EXPECT_NE(end.output.find("Fiel.\n\n"), std::string::npos); // a dump of -1 bytes
}

TEST_F(AppendFailure, DamagedOldRecordIsDumped) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 500);
    scanImage(log.image);
    log.image.flip(log.start);
    putImage(log.image);
    ChildEnd end =
        expectBugCheck([&] { append(100); }, "Incorrect Signature in Event Entry!", SAVE);
    std::string dump = logmodel::hexDumpText(logimage::slice(log.image.bytes, log.start, 160));
    EXPECT_NE(end.output.find(dump), std::string::npos);
}

TEST_F(AppendFailure, RecordWithAnotherIdIsDumped) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 500);
    scanImage(log.image);
    empControl.empStartSequenceId++;
    ChildEnd end = expectBugCheck([&] { append(100); },
                                  "Mismatching empStartSequenceId in Event Entry!", SAVE);
    std::string dump = logmodel::hexDumpText(logimage::slice(log.image.bytes, log.start, 160));
    EXPECT_NE(end.output.find(dump), std::string::npos);
}

TEST_F(AppendFailure, DamagedTopIsDumped) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(1'599'000, nextId).dummyToEnd();
    scanImage(image);
    putImage(image.flip(0));
    ChildEnd end =
        expectBugCheck([&] { append(3848); }, "Incorrect Signature in Event Entry!", SAVE);
    EXPECT_NE(end.output.find(logmodel::hexDumpText(logimage::slice(image.bytes, 0, 160))),
              std::string::npos);
}

TEST_F(AppendFailure, ShortDummyEndsTheProcess) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    scanImage(log.image);
    Bytes dummy = encode(Record::dummy(10));
    std::copy(dummy.begin(), dummy.end(), log.image.bytes.begin() + log.write);
    putImage(log.image);
    expectBugCheck([&] { append(100); }, "Reach Dummy Entry but still not enough space!", SAVE);
}

TEST_F(AppendFailure, FailedLookForTheEndBehindAShortDummy) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 500);
    scanImage(log.image);
    Bytes dummy = encode(Record::dummy(10));
    std::copy(dummy.begin(), dummy.end(), log.image.bytes.begin() + log.start);
    putImage(log.image);
    // The position is noted and the dummy at empStart sought before.
    expectBugCheck(
        [&] {
            hooks::state.seeks.failAt = 3;
            append(600);
        },
        LSEEK_FAILS, SAVE);
    expectBugCheck([&] { append(600); }, "Reach Dummy Entry but still not enough space!", SAVE);
}

TEST_F(AppendFailure, ReservedByteAndMessageHeaderDoNotReachTheFile) {
    scanImage(Image());
    outputOf([&] { append(40); });
    EXPECT_EQ(readLog()[203], 0);
    EXPECT_EQ(logimage::get16(readLog(), 200), 0xB68F);
}

} // namespace
