#include "serve/batch.h"

#include "emp_mesgs.h"
#include "serve_bench.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <random>

using support::Bytes;
using support::joined;

namespace {

constexpr size_t MESSAGE = 316; // with 100 bytes of data
constexpr size_t RECORD = 260;

class Batch : public ServeTest {
  protected:
    /** Starts on a log that has gone round. */
    void startRound(size_t oldSize = 3000) {
        logimage::Wrapped log = logimage::wrapped(9, 100, oldSize);
        write_ = log.write;
        start(log.image.bytes);
    }

    long write_ = 0; ///< where the next record goes
};

/** What stands between the lines and the box of a bug-check. */
std::string dumpBehind(const std::string& output, size_t lines) {
    return output.substr(lines, output.find("****", lines) - lines);
}

/** Calls of one kind between two writes of lines, at most. */
ptrdiff_t mostBetweenLines(const std::string& calls, char call) {
    ptrdiff_t most = 0;
    for (size_t at = 0; at < calls.size();) {
        size_t end = std::min(calls.find('L', at), calls.size());
        auto from = calls.begin() + static_cast<long>(at);
        most = std::max(most, std::count(from, calls.begin() + static_cast<long>(end), call));
        at = end + 1;
    }
    return most;
}

Bytes status() {
    return support::makeMmsg(
        {.type = EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, .local = {MMSG_E_EPID_EVENTLOGMP}});
}

// --- What goes out, and when ---------------------------------------------------------------------

// The event that ends a wait comes alone, those behind it come together.

TEST_F(Batch, OneWriteThenTheLinesThenOneSend) {
    startRound();
    EXPECT_EQ(expectSame({.bundles = {events(31, 100)}}).calls, "WSWLS");
}

TEST_F(Batch, TwoEventsAreNoBatch) {
    startRound();
    EXPECT_EQ(expectSame({.bundles = {events(3, 100)}}).calls, "WSWSWSL");
}

TEST_F(Batch, LogThatHasNotGoneRoundGetsItsRecordsAtOnce) {
    start(logimage::unwrapped(9).dummyToEnd().bytes);
    EXPECT_EQ(expectSame({.bundles = {events(4, 100)}}).calls, "WWSWWWWWWLS")
        << "each record, and the dummy behind it";
}

TEST_F(Batch, ArchiverIsServedEventByEvent) {
    startRound();
    Seen seen = expectSame({.bundles = {events(4, 100)}, .archiver = true});
    EXPECT_EQ(seen.calls, "WSWWWLSL") << "the lines of the archiver's part come behind";
    EXPECT_EQ(seen.archived.size(), 4 * (16 + 152 + 100));
}

TEST_F(Batch, LinesAreWrittenAtLeastOnceInSixtyFourPasses) {
    start(logimage::unwrapped(9).dummyToEnd().bytes);
    std::string calls = expectSame({.bundles = {events(130, 0)}}).calls;
    EXPECT_LE(mostBetweenLines(calls, 'W'), 128) << calls; // a record and a dummy each
}

TEST_F(Batch, LinesOfPassesWithoutEventsAreWrittenAtLeastOnceInSixtyFour) {
    start(logimage::unwrapped(9).dummyToEnd().bytes);
    Bytes bundle;
    for (int i = 0; i < 130; i++) {
        bundle = joined({bundle, status()});
    }
    std::string calls = expectSame({.bundles = {bundle}}).calls;
    EXPECT_LE(mostBetweenLines(calls, 'S'), 64) << calls;
    EXPECT_GE(mostBetweenLines(calls, 'S'), 2) << calls;
}

TEST_F(Batch, ReplyComesBetweenTheCopies) {
    startRound();
    Life life = {.bundles = {joined({events(5, 100), status(), events(5, 100)})}};
    EXPECT_EQ(expectSame(life).calls, "WSWLSSWLS");
}

TEST_F(Batch, ReplyThatIsDueInTheMiddleComesBetweenTheCopies) {
    startRound();
    // Nobody answers it: sixteen passes later its time is over.
    Bytes inquiry = support::makeMmsg(
        {.type = EMP_E_MSGS_INQUIRY, .requestor = 20, .local = {MMSG_E_EPID_EVENTLOGMP}},
        joined({{0, 0, 0, EMP_E_INQUIRY_TYPE_EXACT}, Bytes(sizeof(EmpEvInquiryMsg_t) - 4)}));
    Seen seen = expectSame({.bundles = {joined({inquiry, events(31, 100)})}, .archiver = true});
    EXPECT_EQ(seen.copies.size(), 31 * MESSAGE + EMP_EVENT_MMSG_SIZE);
    EXPECT_EQ(std::count(seen.calls.begin(), seen.calls.end(), 'S'), 3) << seen.calls;
}

TEST_F(Batch, EventsThatComeSoonAreServedBeforeLinesAreWritten) {
    startRound();
    Life life = {.bundles = {5, events(1, 100)}, .bundlesComeSoon = true};
    Seen soon = expectSame(life);
    EXPECT_EQ(soon.calls, "WSWSWSWSLWSL");
    life.bundlesComeSoon = false;
    Seen late = live(life, Serve::IN_BATCHES);
    EXPECT_EQ(late.calls, "WSLWSLWSLWSLWSL");
    EXPECT_TRUE(late.output == soon.output);
    EXPECT_TRUE(late.log == soon.log);
    EXPECT_TRUE(late.state == soon.state);
}

TEST_F(Batch, MessageThatIsNotYetWholeIsNotTakenInto) {
    startRound();
    Bytes all = events(6, 100);
    Bytes first(all.begin(), all.end() - 300);
    Bytes rest(all.end() - 300, all.end());
    expectSame({.bundles = {first, rest}});
}

TEST_F(Batch, SwitchThatIsSlowSeesTheLinesBeforeTheCopies) {
    startRound();
    EXPECT_EQ(expectSame({.bundles = {events(9, 100)}, .switchIsSlow = true}).calls, "WLSWLS");
}

TEST_F(Batch, WrapInTheMiddle) {
    uint32_t nextId = 0;
    start(logimage::nearBottom(20, 600, true, nextId).bytes);
    expectSame({.bundles = {events(40, 100)}});
}

TEST_F(Batch, WindowUsedUpInTheMiddle) {
    startRound();
    expectSame({.bundles = {events(60, 700), events(60, 700), events(60, 700)}});
}

// --- Writes that fail ----------------------------------------------------------------------------

TEST_F(Batch, LogThatEndsInAnEventStopsAtThatEvent) {
    startRound(100);
    for (long end : {1L, 261L, 420L, 7 * 260L + 3, 30 * 260L, 31 * 260L - 1}) {
        SCOPED_TRACE(end);
        Seen seen = expectSame({.bundles = {events(31, 100)}, .logTakesUpTo = write_ + end});
        EXPECT_EQ(seen.signal, SIGABRT);
        EXPECT_EQ(seen.copies.size(), static_cast<size_t>(end) / RECORD * MESSAGE);
    }
}

TEST_F(Batch, LogThatCannotBeSoughtIsTheBugCheckOfTheSeek) {
    startRound();
    Life life = {.bundles = {events(31, 100)}, .logTakesUpTo = write_ + 260};
    life.logError = ESPIPE;
    expectReport(expectSame(life).output, "empProcessEventLogFile",
                 "Linux lseek function fails for Event Log File!");
}

TEST_F(Batch, WriteThatFailsOnceIsMadeGoodOneAtATime) {
    startRound(100);
    Life life = {.bundles = {events(31, 100), events(31, 100)}};
    Seen good = live(life, Serve::SINGLY);
    life.failWriteOnce = 2;
    Seen seen = live(life, Serve::IN_BATCHES);
    EXPECT_EQ(seen.signal, 0);
    EXPECT_TRUE(seen.output == good.output);
    EXPECT_TRUE(seen.log == good.log);
    EXPECT_TRUE(seen.copies == good.copies);
    EXPECT_TRUE(seen.state == good.state);
    EXPECT_EQ(seen.calls, "WSW" + good.calls.substr(2)) << "no batch after that";
}

TEST_F(Batch, LogThatEndsWhereRecordsOfAllSizesGo) {
    std::mt19937 random(7);
    Bytes bundle;
    for (int i = 0; i < 60; i++) {
        bundle = joined({bundle, event(random() % 700)});
    }
    for (size_t oldSize : {0, 100, 3000}) {
        startRound(oldSize);
        for (int i = 0; i < 3; i++) {
            long end = static_cast<long>(random() % 30'000);
            SCOPED_TRACE(end);
            expectSame({.bundles = {bundle}, .logTakesUpTo = write_ + end});
        }
    }
}

TEST_F(Batch, LogThatEndsWhereTheWindowIsUsedUp) {
    startRound(500);
    for (long end = 3'000; end < 130'000; end += 11'000) {
        SCOPED_TRACE(end);
        Seen seen = expectSame({.bundles = {events(60, 700), events(60, 700), events(60, 700)},
                                .logTakesUpTo = write_ + end});
        EXPECT_EQ(seen.signal, SIGABRT);
    }
}

TEST_F(Batch, LogThatEndsBehindOtherMessages) {
    startRound();
    Bytes bundle;
    for (int i = 0; i < 58; i++) {
        bundle = joined({bundle, status()});
    }
    for (long end : {1L, 4 * 260L, 20 * 260L}) {
        SCOPED_TRACE(end);
        expectSame({.bundles = {joined({bundle, events(30, 100)})}, .logTakesUpTo = write_ + end});
    }
}

TEST_F(Batch, LogThatEndsBeforeLinesThatFillTheirBuffer) {
    // The search prints a line for each of what looks like a header in the gap.
    logimage::Wrapped log = logimage::wrapped(9, 100, 1960);
    for (uint32_t at = log.write; at + EMP_RECORD_SIZE <= log.start; at += 4) {
        const Bytes header = {0xB6, 0x8F, 0, 1};
        std::copy(header.begin(), header.end(), log.image.bytes.begin() + at);
    }
    start(log.image.bytes);
    Seen seen = expectSame({.bundles = {events(9, 100)}, .logTakesUpTo = log.write + 261});
    EXPECT_EQ(seen.signal, SIGABRT);
}

TEST_F(Batch, LogThatEndsBeforeAReconnectIsNotFollowedByIt) {
    startRound();
    Seen seen = expectSame(
        {.bundles = {events(31, 100)}, .logTakesUpTo = write_ + 4 * 260, .reconnectSeconds = 7});
    EXPECT_EQ(seen.signal, SIGABRT);
    EXPECT_EQ(seen.calls.find('N'), std::string::npos) << seen.calls;
}

TEST_F(Batch, BugCheckInTheMiddleComesBehindWhatWasBeforeIt) {
    logimage::Wrapped log = logimage::wrapped(9, 100, 100);
    start(log.image.bytes);
    // The start has found all records good; one is damaged later.
    damage(log.start + 20 * RECORD);
    Seen seen = expectSame({.bundles = {events(31, 100)}});
    expectReport(seen.output, "empSaveEventLogMsgToLogFile", "Incorrect Signature in Event Entry!");
    EXPECT_GT(seen.copies.size(), 15 * MESSAGE);
}

TEST_F(Batch, ReconnectInTheMiddleComesBehindWhatWasBeforeIt) {
    startRound();
    Seen seen = expectSame({.bundles = {events(31, 100)}, .reconnectSeconds = 7});
    expectReport(seen.output, "empProcessReconnectTimeout",
                 "Linux socket function fails for EMP socket!");
    EXPECT_EQ(seen.copies.size(), 8 * MESSAGE);
}

// --- Sends that fail -----------------------------------------------------------------------------

TEST_F(Batch, SendThatFailsFindsAllEventsStored) {
    startRound();
    Life life = {.bundles = {events(31, 100)}};
    Seen good = live(life, Serve::SINGLY);
    for (size_t takes : {MESSAGE, MESSAGE + 1, 2 * MESSAGE, 5 * MESSAGE + 64, 31 * MESSAGE - 1}) {
        SCOPED_TRACE(takes);
        life.switchTakes = takes;
        Seen singly = live(life, Serve::SINGLY);
        Seen seen = live(life, Serve::IN_BATCHES);
        EXPECT_EQ(seen.signal, SIGABRT);
        EXPECT_TRUE(seen.log == good.log);
        EXPECT_TRUE(seen.copies == good.copies.substr(0, takes));
        EXPECT_EQ(seen.output.find(good.output), 0U) << "all lines are there";
        auto differs = std::mismatch(singly.output.begin(), singly.output.end(),
                                     good.output.begin(), good.output.end());
        size_t lines = static_cast<size_t>(differs.first - singly.output.begin());
        EXPECT_EQ(dumpBehind(seen.output, good.output.size()), dumpBehind(singly.output, lines));
        expectReport(seen.output, "empSendEventLogMsgToSmi",
                     "Linux send function fails, sendSize = [316] is wrong");
    }
}

// --- Whatever comes ------------------------------------------------------------------------------

/** A blade and its traffic, drawn from a seed. */
class Draw {
  public:
    explicit Draw(unsigned seed) : random_(seed) {}

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }

    logimage::Bytes log() {
        uint32_t nextId = 0;
        switch (below(4)) {
        case 0:
            return logimage::unwrapped(below(20) + 1, size()).dummyToEnd().bytes;
        case 1:
            return logimage::nearBottom(20, 200 + below(900), below(2) == 0, nextId).bytes;
        default:
            return logimage::wrapped(below(50) + 2, below(900), 600 + below(3000)).image.bytes;
        }
    }

    Life life() {
        Life life;
        for (unsigned i = below(4) + 1; i > 0; i--) {
            life.bundles.push_back(bundle());
        }
        life.archiver = below(4) == 0;
        life.archiverTakes = below(2) == 0 ? 4608 : 0;
        life.reconnectSeconds = life.archiver || below(8) != 0 ? 0 : static_cast<int>(below(100));
        if (below(2) == 0) {
            life.logTakesUpTo = below(60'000);
        }
        return life;
    }

  private:
    size_t size() {
        constexpr unsigned most[] = {1, 100, 300, 1000, EMP_MAX_STRUCT + 1};
        return below(most[below(std::size(most))]);
    }

    Bytes message() {
        switch (below(40)) {
        case 0:
            return event(size(), 35);
        case 1:
            return support::makeMmsg({.type = EMP_E_MSGS_LOG, .requestor = 18});
        case 2:
            return support::makeMmsg({.protocol = 3, .type = EMP_E_MSGS_LOG}, Bytes(size()));
        case 3:
            return support::makeMmsg(
                {.type = EMP_E_MSGS_INQUIRY, .local = {MMSG_E_EPID_EVENTLOGMP}},
                Bytes(sizeof(EmpEvInquiryMsg_t), static_cast<U8_t>(below(7))));
        case 4:
            return event(5000);
        case 5: // data that quotes a record
            return support::makeMmsg(
                {.type = EMP_E_MSGS_LOG, .requestor = 18, .local = {MMSG_E_EPID_EVENTLOGMP}},
                logimage::encode(logimage::Record::event(below(9), 500)));
        default:
            return event(size(), 18, static_cast<U16_t>(below(3) + 1));
        }
    }

    Bytes bundle() {
        Bytes all;
        for (unsigned i = below(90); i > 0 && all.size() < 55'000; i--) {
            all = joined({all, message()});
        }
        return all;
    }

    std::minstd_rand random_;
};

class BatchOf : public Batch, public testing::WithParamInterface<unsigned> {};

TEST_P(BatchOf, WhateverComesIsServedAsOneAtATime) {
    for (unsigned seed = GetParam(); seed < GetParam() + 3; seed++) {
        SCOPED_TRACE(seed);
        Draw draw(seed);
        start(draw.log());
        for (int life = 0; life < 4; life++) {
            expectSame(draw.life());
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Seeds, BatchOf, testing::Values(100, 200, 300, 400));

} // namespace
