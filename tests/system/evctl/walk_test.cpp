/** evctl walk against an event manager that the test plays. */
#include "playing_switch.h"

#include <gmock/gmock.h>

#include <csignal>
#include <sstream>

using support::Bytes;
using support::exitedWith;
using testing::HasSubstr;

namespace {

class WalkTest : public support::PlayingSwitch {
  protected:
    static void answerFirst(support::MmsgClient& peer, U8_t id) {
        answer(peer, inquiry(LAST, 0, false), 1, event(200));
        answer(peer, inquiry(FIRST, 0, false), 1, event(id));
    }

    /** The sequence ids of the lines printed. */
    static std::vector<int> ids(const support::Process& evctl) {
        std::vector<int> result;
        std::istringstream lines(evctl.output());
        for (std::string line; std::getline(lines, line);) {
            result.push_back(std::stoi(line));
        }
        return result;
    }
};

const std::vector<std::string> OTHER = {"walk",   "--enclosure", "E",          "--blade", "B",
                                        "--slot", "2",           "--instance", "7"};

} // namespace

TEST_F(WalkTest, GoesFromFirstToNextUntilTheEnd) {
    support::Process evctl = start({"walk"});
    support::MmsgClient peer = listener_.accept();
    answerFirst(peer, 3);
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 1, event(8));
    answer(peer, inquiry(NEXT, 8), 2, event(8));
    answer(peer, inquiry(EXACT, 8), 1, event(8));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(ids(evctl), (std::vector<int>{3, 4, 8}));
    EXPECT_EQ(evctl.errorOutput(), "");
}

TEST_F(WalkTest, IdThatDoesNotMoveOnIsTheEnd) {
    for (U8_t id : {U8_t{3}, U8_t{2}}) {
        support::Process evctl = start({"walk"});
        support::MmsgClient peer = listener_.accept();
        answerFirst(peer, 3);
        answer(peer, inquiry(NEXT, 3), 1, event(id));
        EXPECT_EQ(evctl.wait(), exitedWith(0));
        EXPECT_EQ(ids(evctl), (std::vector<int>{3}));
    }
}

TEST_F(WalkTest, ResumesBehindAnEventWithoutAskingForTheFirst) {
    support::Process evctl =
        start({"walk", "--after", "7:3", "--enclosure", "E", "--blade", "B", "--slot", "2"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 2, event(4));
    answer(peer, inquiry(EXACT, 4), 1, event(4));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(ids(evctl), (std::vector<int>{4}));
}

TEST_F(WalkTest, RefusalInTheMiddleIsToldFromTheEnd) {
    support::Process evctl = start(OTHER);
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0), 1, event(3));
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 2, event(4));
    answer(peer, inquiry(EXACT, 4), 2, event(4));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(ids(evctl), (std::vector<int>{3, 4}));
    EXPECT_EQ(evctl.errorOutput(),
              "evctl: the event manager refuses further inquiries about this log (no archiver, or "
              "64 relayed in its life already), or event 4 is gone; go on with --after 7:4\n");
}

TEST_F(WalkTest, ArchiverThatDoesNotAnswerEndsTheWalkWithAFinding) {
    support::Process evctl = start(OTHER);
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0), 1, event(3));
    answer(peer, inquiry(NEXT, 3), 3, event(3));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.errorOutput(), "evctl: the archiver did not answer in time (return code 3); "
                                   "go on with --after 7:3\n");
}

TEST_F(WalkTest, NoAnswerInTimeCannotAndSaysWhereToGoOn) {
    support::Process evctl = start({"walk", "--timeout", "1"});
    support::MmsgClient peer = listener_.accept();
    answerFirst(peer, 3);
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(),
              "evctl: no answer from the event manager within 1 s; go on with --after 7:3\n");
}

TEST_F(WalkTest, LogThatIsNotThereIsAFinding) {
    support::Process evctl = start(OTHER);
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0), 2, event(0));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_THAT(evctl.errorOutput(), HasSubstr("(return code 2)"));
}

TEST_F(WalkTest, FirstEventOfAnotherLogIsNotTaken) {
    support::Process evctl = start(OTHER);
    support::MmsgClient peer = listener_.accept();
    Bytes foreign = event(3);
    foreign[135] = 6;
    answer(peer, inquiry(FIRST, 0), 1, foreign);
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.output(), "");
    EXPECT_EQ(evctl.errorOutput(), "evctl: the first event that came is of another log\n");
}

TEST_F(WalkTest, FilteredEventsAreWalkedOver) {
    support::Process evctl = start({"walk", "--seq", "4:"});
    support::MmsgClient peer = listener_.accept();
    answerFirst(peer, 3);
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 2, event(4));
    answer(peer, inquiry(EXACT, 4), 1, event(4));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(ids(evctl), (std::vector<int>{4}));
}

TEST_F(WalkTest, LastReverseAndAroundApplyToWhatWasWalked) {
    const std::vector<std::pair<std::vector<std::string>, std::vector<int>>> cases = {
        {{"-n", "2"}, {5, 6}},
        {{"-r"}, {6, 5, 4, 3}},
        {{"--around", "4", "-n", "1"}, {3, 4, 5}},
        {{"--seq", ":5", "-n", "1", "-r"}, {5}}};
    for (const auto& [options, expected] : cases) {
        std::vector<std::string> arguments = {"walk"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        support::Process evctl = start(arguments);
        support::MmsgClient peer = listener_.accept();
        answerFirst(peer, 3);
        for (U8_t id : {U8_t{3}, U8_t{4}, U8_t{5}}) {
            answer(peer, inquiry(NEXT, id), 1, event(static_cast<U8_t>(id + 1)));
        }
        answer(peer, inquiry(NEXT, 6), 2, event(6));
        answer(peer, inquiry(EXACT, 6), 1, event(6));
        EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
        EXPECT_EQ(ids(evctl), expected) << testing::PrintToString(options);
    }
}

TEST_F(WalkTest, GoesOnBehindTheCursorOfAnotherReader) {
    support::Process first =
        start({"walk", "--cursor-file", directory_.file("cursor"), "-o", "csv"});
    {
        support::MmsgClient peer = listener_.accept();
        answerFirst(peer, 4);
        answer(peer, inquiry(NEXT, 4), 2, event(4));
        answer(peer, inquiry(EXACT, 4), 1, event(4));
        EXPECT_EQ(first.wait(), exitedWith(0));
        EXPECT_THAT(first.output(), testing::StartsWith("sequenceId,"));
    }
    support::Process evctl = start({"walk", "--cursor-file", directory_.file("cursor")});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(5));
    answer(peer, inquiry(LAST, 0), 1, event(5));
    answer(peer, inquiry(EXACT, 4), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 1, event(5));
    answer(peer, inquiry(NEXT, 5), 2, event(5));
    answer(peer, inquiry(EXACT, 5), 1, event(5));
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_EQ(ids(evctl), (std::vector<int>{5}));
}

TEST_F(WalkTest, FollowListensBeforeItAsksAndNeverPolls) {
    support::MmsgListener management(directory_.file("smi_ind"));
    support::Process evctl = start({"walk", "--follow"});
    support::MmsgClient copies = management.accept();
    auto copy = [&](U8_t id) { copies.send(support::makeMmsg({.type = 1}, event(id))); };
    support::MmsgClient peer = listener_.accept();
    copy(4); // logged before the walk comes as far
    copy(5);
    answerFirst(peer, 3);
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 2, event(4)); // the end, but 5 has been logged since
    answer(peer, inquiry(EXACT, 4), 1, event(4));
    evctl.waitForOutput("         5  ");
    copy(5);
    copy(6);
    evctl.waitForOutput("         6  ");
    evctl.signal(SIGTERM);
    EXPECT_EQ(evctl.wait(), support::diedOf(SIGTERM));
    EXPECT_EQ(ids(evctl), (std::vector<int>{3, 4, 5, 6}));
    peer.waitForEnd();
}

TEST_F(WalkTest, FollowBeginsWithTheLastOnesAndLeavesItsCursor) {
    const std::string cursor = directory_.file("cursor");
    support::MmsgListener management(directory_.file("smi_ind"));
    support::Process evctl = start({"walk", "--follow", "-n", "1", "--cursor-file", cursor});
    support::MmsgClient copies = management.accept();
    support::MmsgClient peer = listener_.accept();
    answerFirst(peer, 3);
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    answer(peer, inquiry(NEXT, 4), 2, event(4));
    answer(peer, inquiry(EXACT, 4), 1, event(4));
    evctl.waitForOutput("         4  ");
    copies.send(support::makeMmsg({.type = 1}, event(5)));
    evctl.waitForOutput("         5  ");
    evctl.signal(SIGTERM);
    EXPECT_EQ(evctl.wait(), support::diedOf(SIGTERM));
    EXPECT_EQ(ids(evctl), (std::vector<int>{4, 5}));
    EXPECT_NE(support::readFile(cursor).find(".7.5."), std::string::npos);
}

TEST_F(WalkTest, FollowEndsBehindTheFirstOnes) {
    support::MmsgListener management(directory_.file("smi_ind"));
    support::Process evctl = start({"walk", "--follow", "-n", "+2"});
    support::MmsgClient copies = management.accept();
    support::MmsgClient peer = listener_.accept();
    answerFirst(peer, 3);
    answer(peer, inquiry(NEXT, 3), 2, event(3));
    answer(peer, inquiry(EXACT, 3), 1, event(3));
    copies.send(support::makeMmsg({.type = 1}, event(4)));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(ids(evctl), (std::vector<int>{3, 4}));
}
