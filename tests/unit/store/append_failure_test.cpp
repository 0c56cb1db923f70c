/**
 * Failing calls while an event is stored: every one ends the process, under the right name.
 */
#include "bug_check_texts.h"
#include "log_model.h"
#include "store_fixture.h"

#include <cerrno>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

constexpr char SAVE[] = "empSaveEventLogMsgToLogFile";
constexpr char DUMMY[] = "empWriteDummyEntryToLogFile";
constexpr char OTHER[] = "empProcessEventLogFile"; // named by the seek before the final write

// What a bug-check says, by the seek that has failed.
constexpr char SEARCH_SEEK[] = "empFindValidEventEntry: Linux lseek call fails for Event Log File!";
constexpr char SAVE_SEEK[] =
    "empSaveEventLogMsgToLogFile: Linux lseek function fails for Event Log File!";
constexpr char LAST_SEEK[] =
    "empProcessEventLogFile: Linux lseek function fails for Event Log File!";
constexpr char DUMMY_SEEK[] =
    "empWriteDummyEntryToLogFile: Linux lseek function fails for Event Log File!";

class AppendFailure : public StoreTest {
  protected:
    /** What one append says when each of its calls in turn cannot be sought. */
    std::vector<std::string> failEverySeek(size_t size) {
        Bytes image = readLog();
        putImage(image);
        int total = seeksOf([&] { append(size); });
        std::vector<std::string> seen;
        for (int call = 1; call <= total; call++) {
            putImage(image);
            ChildEnd end = inChild([&] {
                hooks::state.seeks.failAt = call;
                append(size);
            });
            EXPECT_TRUE(end.aborted) << call;
            seen.push_back(end.function + ": " + end.message);
        }
        return seen;
    }
    ChildEnd shortWrite(int call, long bytes, size_t size, const std::string& dump) {
        ChildEnd end = expectBugCheck(
            [&] {
                hooks::state.shortWriteAt = call;
                hooks::state.shortWriteBytes = bytes;
                append(size);
            },
            WRITE_FAILS, SAVE);
        EXPECT_NE(end.output.find(dump), std::string::npos) << end.output.substr(0, 2000);
        return end;
    }

    /** The position that the report of a bug-check shows. */
    static std::string shownPosition(const ChildEnd& end) {
        const std::string before = "of Event Log File at current file position [";
        size_t at = end.output.find(before) + before.size();
        return end.output.substr(at, end.output.find(']', at) - at);
    }

  private:
    /** Counts the calls of @p action in a child. */
    int seeksOf(const std::function<void()>& action) {
        ChildEnd end = inChild([&] {
            action();
            fflush(stdout);
            _exit(hooks::state.seeks.count);
        });
        EXPECT_GT(end.exitStatus, 0);
        EXPECT_LT(end.exitStatus, 100);
        return end.exitStatus;
    }
};

TEST_F(AppendFailure, SeeksOfTheEverydayCase) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    EXPECT_THAT(failEverySeek(100), testing::ElementsAre(SEARCH_SEEK, LAST_SEEK, DUMMY_SEEK));
}

TEST_F(AppendFailure, SeeksOfADiscard) {
    scanImage(logimage::wrapped(3, 500, 500).image);
    EXPECT_THAT(failEverySeek(100), testing::ElementsAre(SAVE_SEEK, LAST_SEEK));
}

TEST_F(AppendFailure, SeeksOfAWrap) {
    uint32_t nextId = 0;
    scanImage(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd());
    EXPECT_THAT(failEverySeek(3848), testing::ElementsAre(SAVE_SEEK, DUMMY_SEEK, LAST_SEEK));
}

TEST_F(AppendFailure, SeekThatFailsLeavesThePositionBeforeIt) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    for (int error : {ESPIPE, EINVAL, EOVERFLOW}) {
        ChildEnd end = expectBugCheck(
            [&] {
                empLogFilePosition = 4321;
                hooks::state.writeError = error;
                hooks::state.writes.failAt = 1;
                append(100);
            },
            LSEEK_FAILS, OTHER);
        // The search and the read of the dummy's header have put it there.
        EXPECT_EQ(shownPosition(end), "960") << error;
    }
}

TEST_F(AppendFailure, WriteThatFailsLeavesThePositionOfItsSeek) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    ChildEnd end = expectBugCheck(
        [&] {
            hooks::state.writes.failAt = 1;
            append(100);
        },
        WRITE_FAILS, SAVE);
    EXPECT_EQ(shownPosition(end), "800");
    EXPECT_EQ(end.output.find("Write total"), std::string::npos);
}

TEST_F(AppendFailure, EveryWriteThatFailsIsABugCheck) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    const char* functions[] = {SAVE, DUMMY}; // the record, the header of the fresh dummy
    Bytes image = readLog();
    for (int call = 1; call <= 2; call++) {
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
    ChildEnd end = shortWrite(1, 4, 100, "B68F0100 \n");
    EXPECT_EQ(end.output.find("Write total"), std::string::npos);
    EXPECT_EQ(shownPosition(end), "804");
}

TEST_F(AppendFailure, ShortWriteOfTheBodyIsDumped) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    Bytes body = Record::event(4, 100).body;
    ChildEnd end =
        shortWrite(1, 160 + 99, 100, logmodel::hexDumpText(logimage::slice(body, 0, 99)));
    EXPECT_NE(end.output.find("Write total [260] bytes into Event Log File.\n"), std::string::npos);
    EXPECT_EQ(shownPosition(end), "1059");
}

TEST_F(AppendFailure, WriteThatEndsBehindTheHeaderIsAShortWriteOfTheBody) {
    scanImage(logimage::unwrapped(3, 40).dummyToEnd());
    shortWrite(1, 160, 100, "Write total [260] bytes into Event Log File.\n\n");
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
    // The dummy at empStart is sought before.
    expectBugCheck(
        [&] {
            hooks::state.seeks.failAt = 2;
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
