/** evctl get, status and archiver set against an event manager that the test plays. */
#include "parameter_block.h"
#include "playing_switch.h"

#include <gmock/gmock.h>

using support::Bytes;
using support::exitedWith;
using testing::HasSubstr;

using Get = support::PlayingSwitch;

TEST_F(Get, LastNamesNoLog) {
    support::Process evctl = start({"get", "last"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(evctl.output(),
              "         9  1970-01-01T00:00:00Z  warning      startup          disk "
              "          0\n");
}

TEST_F(Get, ModesAskWithTheIdentityOfTheNewestEvent) {
    const std::pair<const char*, U8_t> modes[] = {
        {"next", NEXT}, {"exact", EXACT}, {"previous", PREVIOUS}};
    for (const auto& [name, type] : modes) {
        support::Process evctl = start({"get", name, "5", "--json"});
        support::MmsgClient peer = listener_.accept();
        answer(peer, inquiry(LAST, 0, false), 1, event(9));
        answer(peer, inquiry(type, 5), 1, event(4));
        EXPECT_EQ(evctl.wait(), exitedWith(0)) << name;
        EXPECT_THAT(evctl.output(), HasSubstr(R"({"sequenceId":4,"instanceNumber":7,)"));
    }
}

TEST_F(Get, WithAFilterItGoesOnUntilAnEventMatches) {
    support::Process evctl = start({"get", "last", "--seq", ":7", "-o", "syslog"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    answer(peer, inquiry(PREVIOUS, 9), 1, event(8));
    answer(peer, inquiry(PREVIOUS, 8), 1, event(7));
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), HasSubstr("[event@32473 seq=\"7\""));
}

TEST_F(Get, ExactEventThatDoesNotMatchIsNone) {
    support::Process evctl = start({"get", "exact", "5", "--type", "error"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    answer(peer, inquiry(EXACT, 5), 1, event(5));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.output(), "");
    EXPECT_EQ(evctl.errorOutput(), "evctl: there is no such event\n");
}

TEST_F(Get, AFilterThatNothingMatchesEndsAtTheLastEvent) {
    support::Process evctl = start({"get", "first", "--type", "error"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0, false), 1, event(1));
    answer(peer, inquiry(NEXT, 1), 1, event(2));
    answer(peer, inquiry(NEXT, 2), 1, event(2)); // does not move on
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.errorOutput(), "evctl: there is no such event\n");
}

TEST_F(Get, SeveralAreAskedForNoFurtherThanTheOldest) {
    support::Process evctl = start({"get", "last", "-n", "3", "-r", "-o", "csv"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0, false), 1, event(8));
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    answer(peer, inquiry(PREVIOUS, 9), 1, event(8));
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), HasSubstr("\n9,7,"));
    EXPECT_THAT(evctl.output(), testing::ContainsRegex("\n9,7,.*\n8,7,.*\n$"));
}

TEST_F(Get, AroundAreTheNeighbours) {
    support::Process evctl = start({"get", "next", "3", "--around", "6", "-n", "1", "-o", "csv"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(8));
    for (U8_t id = 3; id < 8; id++) {
        answer(peer, inquiry(NEXT, id), 1, event(static_cast<U8_t>(id + 1)));
    }
    answer(peer, inquiry(NEXT, 8), 2, event(8));
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), testing::ContainsRegex("data,from\n5,7,.*\n6,7,.*\n7,7,[^\n]*\n$"));
}

TEST_F(Get, OneEventHasNoNeighbours) {
    support::Process evctl = start({"get", "exact", "5", "--around", "5"});
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(),
              "evctl: --around: 'get exact' asks for one event; 'evctl walk' has its neighbours\n");
}

TEST_F(Get, ACursorFileIsReadOnEventByEvent) {
    const std::vector<std::string> words = {"get", "first", "--cursor-file",
                                            directory_.file("cursor"), "--json"};
    {
        support::Process evctl = start(words);
        support::MmsgClient peer = listener_.accept();
        answer(peer, inquiry(FIRST, 0, false), 1, event(3));
        EXPECT_EQ(evctl.wait(), exitedWith(0));
    }
    support::Process evctl = start(words);
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    answer(peer, inquiry(LAST, 0), 1, event(9));
    answer(peer, inquiry(EXACT, 3), 1, event(3));
    answer(peer, inquiry(NEXT, 3), 1, event(4));
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), testing::StartsWith(R"({"sequenceId":4,)"));
}

TEST_F(Get, NothingBehindTheCursorIsAFinding) {
    const std::string cursor = directory_.file("cursor");
    {
        support::Process evctl = start({"get", "last", "--cursor-file", cursor});
        support::MmsgClient peer = listener_.accept();
        answer(peer, inquiry(LAST, 0, false), 1, event(9));
        EXPECT_EQ(evctl.wait(), exitedWith(0));
    }
    support::Process evctl = start({"get", "last", "--cursor-file", cursor});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 1, event(9));
    answer(peer, inquiry(LAST, 0), 1, event(9));
    answer(peer, inquiry(EXACT, 9), 1, event(9));
    answer(peer, inquiry(LAST, 0), 1, event(9));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.output(), "");
    EXPECT_EQ(evctl.errorOutput(), "evctl: there is no such event\n");
}

TEST_F(Get, NamedLogIsAskedForAtOnce) {
    support::Process evctl = start(
        {"get", "first", "--enclosure", "E", "--blade", "B", "--slot", "2", "--instance", "7"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0), 1, event(4));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
}

TEST_F(Get, ParameterBlockGivesTheIdentity) {
    support::IpcKey key;
    support::ParameterBlock block(key, directory_.path());
    block.bytes()[120] = 'B';
    block.bytes()[184] = 'E';
    support::Process evctl(
        support::commandOf("evctl", {"get", "exact", "5", "--key", key.text(), "--instance", "7"}),
        directory_.file("evctl"));
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(EXACT, 5), 1, event(5));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
}

TEST_F(Get, FailureIsAFinding) {
    support::Process evctl = start({"get", "last"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(LAST, 0, false), 2, event(0));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.output(), "");
    EXPECT_EQ(evctl.errorOutput(),
              "evctl: no such event, or nobody to ask for it (return code 2)\n");
}

TEST_F(Get, ArchiverThatDoesNotAnswerIsAFinding) {
    support::Process evctl = start({"get", "first"});
    support::MmsgClient peer = listener_.accept();
    answer(peer, inquiry(FIRST, 0, false), 3, event(0));
    EXPECT_EQ(evctl.wait(), exitedWith(1));
    EXPECT_EQ(evctl.errorOutput(), "evctl: the archiver did not answer in time (return code 3)\n");
}

TEST_F(Get, AnswersToOthersArePassedOver) {
    support::Process evctl = start({"get", "last", "--json"});
    support::MmsgClient peer = listener_.accept();
    Bytes request = peer.receive();
    U32_t handle = support::headerOf(request).handle;
    auto send = [&](U32_t type, U8_t cont, U32_t itsHandle, U8_t id) {
        peer.send(support::makeMmsg(
            {.type = type, .cont = cont, .returnCode = 1, .handle = itsHandle}, event(id)));
    };
    send(2, 0x40, handle + 1, 1); // another handle
    send(5, 0x40, handle, 2);     // another request
    send(2, 0, handle, 3);        // no response
    send(2, 0x40, handle, 4);
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_THAT(evctl.output(), testing::StartsWith(R"({"sequenceId":4,)"));
}

TEST_F(Get, NoAnswerInTimeCannot) {
    support::Process evctl = start({"get", "last", "--timeout", "0.05"});
    support::MmsgClient peer = listener_.accept();
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(), "evctl: no answer from the event manager within 0.05 s\n");
}

TEST_F(Get, StatusIsShownInWords) {
    support::Process evctl = start({"status"});
    support::MmsgClient peer = listener_.accept();
    Bytes request(64);
    request[8] = 14;
    request[9] = 1;
    request[11] = 64;
    request[12] = 8;
    request[15] = 5;
    request[16] = 28;
    request[20] = 0x08;
    answer(peer, request, 1, {127, 0, 0, 1, 0x1F, 0x90, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3});
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(evctl.output(), "archiver             127.0.0.1:8080\n"
                              "link                 up or being set up\n"
                              "timed-out inquiries  1\n"
                              "connections closed   2\n"
                              "connections tried    3\n");
}

TEST_F(Get, StatusOfOneByteLessCannot) {
    support::Process evctl = start({"status"});
    support::MmsgClient peer = listener_.accept();
    U32_t handle = support::headerOf(peer.receive()).handle;
    peer.send(
        support::makeMmsg({.type = 5, .cont = 0x40, .returnCode = 1, .handle = handle}, Bytes(19)));
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(), "evctl: an answer of 83 bytes came, too short\n");
}

TEST_F(Get, ArchiverIsSetAsAnotherEndpoint) {
    support::MmsgListener other(directory_.file("smis"));
    support::Process evctl = start({"archiver", "set", "127.0.0.1:8080", "--endpoint", "smis"});
    support::MmsgClient peer = other.accept();
    Bytes request(72);
    request[8] = 14;
    request[9] = 1;
    request[11] = 72;
    request[12] = 8;
    request[15] = 3;
    request[16] = 29;
    request[20] = 0x08;
    request[64] = 127;
    request[67] = 1;
    request[68] = 0x1F;
    request[69] = 0x90;
    answer(peer, request, 1, Bytes(8, 0xEE));
    EXPECT_EQ(evctl.wait(), exitedWith(0));
    EXPECT_EQ(evctl.output() + evctl.errorOutput(), "");
}

TEST_F(Get, ArchiveIsReadOnlyOnTheDesk) {
    support::Process evctl(support::commandOf("evctl", {"archive", "list", "--db", "/nowhere/db"}),
                           directory_.file("evctl"));
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_THAT(evctl.errorOutput(),
                HasSubstr(support::runner().empty()
                              ? "/nowhere/db"
                              : "built for the board, does not read archives"));
}
