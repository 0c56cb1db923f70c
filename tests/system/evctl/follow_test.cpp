/** evctl follow against a switch that the test plays. */
#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using support::Bytes;

namespace {

/** The event manager's copy of an event for the management interface. */
Bytes eventCopy(U32_t sequenceId, U8_t type, const std::string& data, U8_t opcode = 1) {
    Bytes body(152 + data.size());
    body[0] = 'E';
    body[64] = 'B';
    body[131] = 2; // evSlotId
    body[135] = 7; // evInstanceNumber
    body[136] = static_cast<U8_t>(sequenceId >> 24);
    body[137] = static_cast<U8_t>(sequenceId >> 16);
    body[138] = static_cast<U8_t>(sequenceId >> 8);
    body[139] = static_cast<U8_t>(sequenceId);
    body[140] = 0x45; // evTime 1,164,117,600
    body[141] = 0x63;
    body[142] = 0x06;
    body[143] = 0x60;
    body[145] = static_cast<U8_t>(data.size());
    body[146] = 18;
    body[147] = type;
    body[148] = 4;
    body[149] = 1;
    body[151] = 3;
    std::copy(data.begin(), data.end(), body.begin() + 152);
    return support::makeMmsg(
        {.type = opcode, .requestor = MMSG_E_EPID_EVENTLOGMP, .local = {30}, .other = {30}}, body);
}

class Follow : public testing::Test {
  protected:
    support::Process start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"follow", "--dir", directory_.path()});
        return support::Process(support::commandOf("evctl", arguments), directory_.file("evctl"));
    }

    support::TempDirectory directory_;
    support::MmsgListener listener_{directory_.file("smi_ind")};
};

} // namespace

TEST_F(Follow, PrintsEachEventAsItComes) {
    support::Process evctl = start({});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, "data"));
    EXPECT_EQ(evctl.waitForOutput("startup"),
              "         5  2006-11-21T14:00:00Z  warning      startup          disk           "
              "partial_mmsg(3)       a message that came only in part");
    peer.send(eventCopy(4'000'000'000U, 1, "", 7));
    EXPECT_EQ(evctl.waitForOutput("gap"), "gap: 6 to 3999999999");
    EXPECT_EQ(evctl.waitForOutput("4000000000"),
              "4000000000  2006-11-21T14:00:00Z  information  startup          disk           "
              "partial_mmsg(3)       a message that came only in part");
}

TEST_F(Follow, JsonIsOneObjectALine) {
    support::Process evctl = start({"--json", "--count", "2"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, "hi"));
    peer.send(eventCopy(6, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    auto line = [](const char* id, const char* type, const char* data) {
        return std::string(R"({"sequenceId":)") + id +
               R"(,"instanceNumber":7,"time":"2006-11-21T14:00:00Z","seconds":1164117600,)" + type +
               R"("source":18,"sourceName":"startup","category":4,"categoryName":"disk",)"
               R"("id":3,"idName":"partial_mmsg","idVersion":1,"enclosureId":"E","bladeId":"B",)"
               R"("slotId":2,)" +
               data + R"(,"text":"a message that came only in part","severity":"warning"})" + "\n";
    };
    EXPECT_EQ(evctl.output(),
              line("5", R"("type":2,"typeName":"warning",)", R"("length":2,"data":"6869")") +
                  line("6", R"("type":3,"typeName":"error",)", R"("length":0,"data":"")"));
}

TEST_F(Follow, FilteredEventsDoNotCount) {
    support::Process evctl = start({"--type", "error", "--count", "1"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, ""));
    peer.send(eventCopy(6, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.output().find("         6  "), 0U);
}

TEST_F(Follow, MessagesOtherThanEventsArePassedOver) {
    support::Process evctl = start({"--count", "1"});
    support::MmsgClient peer = listener_.accept();
    peer.send(support::makeMmsg({.protocol = MMSG_E_PROTOCOL_STARTUP, .type = 1}));
    peer.send(support::makeMmsg({.type = 2, .cont = 0x40}, Bytes(152)));
    peer.send(eventCopy(6, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.errorOutput(), "");
}

TEST_F(Follow, ShortEventIsAFinding) {
    support::Process evctl = start({"--count", "1"});
    support::MmsgClient peer = listener_.accept();
    peer.send(support::makeMmsg({.type = 1}, Bytes(151)));
    peer.send(eventCopy(6, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_EQ(evctl.errorOutput(), "evctl: event message of 215 bytes is too short\n");
    EXPECT_EQ(evctl.output().find("         6  "), 0U);
}

TEST_F(Follow, DataIsDumpedOnRequest) {
    support::Process evctl = start({"--count", "1", "--data"});
    listener_.accept().send(eventCopy(6, 3, "dump"));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_NE(evctl.output().find("\n0000  64 75 6d 70   "), std::string::npos);
}

TEST_F(Follow, TimeoutBeforeTheCountIsAFinding) {
    support::Process evctl = start({"--count", "1", "--timeout", "0.05"});
    support::MmsgClient peer = listener_.accept();
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
}

TEST_F(Follow, TimeoutWithoutCountIsTheEnd) {
    support::Process evctl = start({"--timeout", "0.05"});
    support::MmsgClient peer = listener_.accept();
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Follow, SwitchThatGoesAwayCannot) {
    support::Process evctl = start({});
    listener_.accept().close();
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(), "evctl: the message switch closed the connection\n");
}

TEST_F(Follow, ListensAsAnotherEndpoint) {
    support::MmsgListener other(directory_.file("smis"));
    support::Process evctl = start({"--endpoint", "smis", "--count", "1"});
    other.accept().send(eventCopy(6, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Follow, GapIsSaidAndMakesTheStatus) {
    support::Process evctl = start({"--count", "3"});
    support::MmsgClient peer = listener_.accept();
    for (U32_t id : {8359, 15001, 15002}) {
        peer.send(eventCopy(id, 2, ""));
    }
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    std::string output = evctl.output();
    EXPECT_NE(output.find("\ngap: 8360 to 15000\n     15001  "), std::string::npos) << output;
}

TEST_F(Follow, GapIsAnObjectOfItsOwn) {
    support::Process evctl = start({"--count", "2", "--json"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(8359, 2, ""));
    peer.send(eventCopy(15001, 2, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_NE(evctl.output().find("}\n{\"gap\":{\"first\":8360,\"last\":15000,\"events\":6641,"
                                  "\"enclosureId\":\"E\",\"bladeId\":\"B\",\"slotId\":2,"
                                  "\"instanceNumber\":7}}\n{"),
              std::string::npos)
        << evctl.output();
}

TEST_F(Follow, GapOfFilteredEventsIsNone) {
    support::Process evctl = start({"--type", "error", "--count", "2"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 3, ""));
    peer.send(eventCopy(6, 2, ""));
    peer.send(eventCopy(7, 3, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

constexpr U8_t FIRST = 1, NEXT = 2, EXACT = 3, LAST = 5;

/** Answers an inquiry of a type about an id; an empty @p event: there is none. */
void answerAbout(support::MmsgClient& asked, U8_t type, U8_t id, const Bytes& event) {
    Bytes request = asked.receive();
    EXPECT_EQ(request[67], type);
    EXPECT_EQ(request[207], id);
    asked.send(support::makeMmsg({.type = 2,
                                  .requestor = 27,
                                  .cont = 0x40,
                                  .dest = 28,
                                  .local = {28},
                                  .returnCode = event.empty() ? 2U : 1U,
                                  .handle = support::headerOf(request).handle},
                                 event.empty() ? Bytes(152) : event));
}

/** Answers the question for the newest event, from which the own log is known. */
void answerIdentity(support::MmsgClient& asked, const Bytes& newest) {
    answerAbout(asked, LAST, 0, newest);
}

/** Answers "next after @p after". */
void answerNext(support::MmsgClient& asked, U8_t after, const Bytes& event) {
    answerAbout(asked, NEXT, after, event);
}

/** An event as an answer's body: the copy without its header. */
Bytes eventBody(U32_t sequenceId) {
    Bytes copy = eventCopy(sequenceId, 2, "");
    return {copy.begin() + 64, copy.end()};
}

TEST_F(Follow, RefilledGapIsNoFinding) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--count", "4", "--refill"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, ""));
    peer.send(eventCopy(8, 2, ""));
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(8));
    answerNext(inquiries, 5, eventBody(6));
    answerNext(inquiries, 6, eventBody(7));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    std::istringstream lines(evctl.output());
    for (int id = 5; id <= 8; id++) {
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(line.substr(0, 12), "         " + std::to_string(id) + "  ");
    }
}

TEST_F(Follow, WhatCannotBeRefilledStaysAGap) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--count", "3", "--refill"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, ""));
    peer.send(eventCopy(10, 2, ""));
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(10));
    answerNext(inquiries, 5, eventBody(7));
    answerNext(inquiries, 7, {});
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_NE(evctl.output().find("gap: 6 to 6\n         7  "), std::string::npos);
    EXPECT_NE(evctl.output().find("gap: 8 to 9\n        10  "), std::string::npos);
}

TEST_F(Follow, WhatLiesBehindAGapDoesNotFillIt) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--count", "2", "--refill"});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, ""));
    peer.send(eventCopy(10, 2, ""));
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(12));
    answerNext(inquiries, 5, eventBody(12));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_NE(evctl.output().find("gap: 6 to 9\n        10  "), std::string::npos);
}

TEST_F(Follow, GapOfAnotherSlotIsNotAskedFor) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--count", "2", "--refill"});
    support::MmsgClient peer = listener_.accept();
    for (U8_t id : {U8_t{5}, U8_t{8}}) {
        Bytes copy = eventCopy(id, 2, "");
        copy[64 + 131] = 3;
        peer.send(copy);
    }
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(8));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_NE(evctl.output().find("gap: 6 to 7\n         8  "), std::string::npos);
}

/** The ids that lines begin with. */
std::vector<int> idsOf(const std::string& output) {
    std::vector<int> ids;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(' ')) {
            ids.push_back(std::stoi(line));
        }
    }
    return ids;
}

TEST_F(Follow, GoesOnBehindTheCursorOfItsLastRun) {
    std::string cursor = directory_.file("cursor");
    {
        support::Process evctl = start({"--count", "2", "--cursor-file", cursor});
        support::MmsgClient peer = listener_.accept();
        peer.send(eventCopy(5, 2, ""));
        peer.send(eventCopy(6, 2, ""));
        EXPECT_EQ(evctl.wait(), support::exitedWith(0)) << evctl.errorOutput();
    }
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--count", "3", "--cursor-file", cursor, "--show-cursor"});
    support::MmsgClient peer = listener_.accept();
    support::MmsgClient inquiries = asked.accept();
    peer.send(eventCopy(8, 2, "")); // comes, and is asked for too
    answerIdentity(inquiries, eventBody(8));
    answerAbout(inquiries, LAST, 0, eventBody(8));
    answerAbout(inquiries, EXACT, 6, eventBody(6));
    answerAbout(inquiries, NEXT, 6, eventBody(7));
    answerAbout(inquiries, NEXT, 7, eventBody(8));
    answerAbout(inquiries, NEXT, 8, {});
    peer.send(eventCopy(9, 2, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0)) << evctl.errorOutput();
    EXPECT_EQ(idsOf(evctl.output()), (std::vector{7, 8, 9}));
    EXPECT_NE(evctl.output().find("\n-- cursor: c1:"), std::string::npos);
    EXPECT_NE(support::readFile(cursor).find(".7.9."), std::string::npos);
}

TEST_F(Follow, ShowsItsCursorWhenItIsInterrupted) {
    const std::string kept = directory_.file("cursor");
    support::Process evctl = start({"--show-cursor", "--cursor-file", kept});
    support::MmsgClient peer = listener_.accept();
    for (U8_t id : {U8_t{5}, U8_t{6}}) {
        peer.send(eventCopy(id, 2, ""));
        evctl.waitForOutput("         " + std::to_string(id) + "  ");
    }
    evctl.signal(SIGINT);
    EXPECT_EQ(evctl.wait(), support::diedOf(SIGINT));
    const std::string cursor = support::readFile(kept);
    EXPECT_NE(cursor.find(".7.6."), std::string::npos);
    EXPECT_TRUE(evctl.output().ends_with("\n-- cursor: " + cursor)) << evctl.output();
}

TEST_F(Follow, TheFirstOnesEndIt) {
    support::Process evctl = start({"-n", "+2", "--seq", "6:"});
    support::MmsgClient peer = listener_.accept();
    for (U8_t id = 5; id <= 8; id++) {
        peer.send(eventCopy(id, 2, ""));
    }
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(idsOf(evctl.output()), (std::vector{6, 7}));
}

TEST_F(Follow, BehindACursorWhatTheRingHasLostIsAGap) {
    support::MmsgListener asked(directory_.file("snmp"));
    std::string before = directory_.file("cursor");
    {
        support::Process evctl = start({"--count", "1", "--cursor-file", before});
        listener_.accept().send(eventCopy(5, 2, ""));
        EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    }
    support::Process evctl = start({"--count", "1", "--cursor-file", before});
    support::MmsgClient peer = listener_.accept();
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(90));
    answerAbout(inquiries, LAST, 0, eventBody(90));
    answerAbout(inquiries, EXACT, 5, {});
    answerAbout(inquiries, NEXT, 5, eventBody(90));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_EQ(evctl.output().find("gap: 6 to 89\n        90  "), 0U);
}

TEST_F(Follow, BehindTheCursorOfALogThatHasBegunAgainAllIsNew) {
    support::MmsgListener asked(directory_.file("snmp"));
    std::string cursor = directory_.file("cursor");
    {
        support::Process evctl = start({"--count", "1", "--cursor-file", cursor});
        listener_.accept().send(eventCopy(50, 2, ""));
        EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    }
    support::Process evctl = start({"--count", "2", "--cursor-file", cursor});
    support::MmsgClient peer = listener_.accept();
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(1));
    answerAbout(inquiries, LAST, 0, eventBody(1));
    answerAbout(inquiries, EXACT, 50, {});
    answerAbout(inquiries, FIRST, 0, eventBody(0));
    answerAbout(inquiries, NEXT, 0, eventBody(1));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(idsOf(evctl.output()), (std::vector{0, 1}));
}

TEST_F(Follow, WithRetryItGoesOnBehindTheLastEventWhenTheSwitchIsBack) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--retry", "--count", "4"});
    {
        support::MmsgClient peer = listener_.accept();
        support::MmsgClient inquiries = asked.accept();
        answerIdentity(inquiries, eventBody(4));
        answerAbout(inquiries, LAST, 0, eventBody(4));
        peer.send(eventCopy(5, 2, ""));
        evctl.waitForOutput("         5  ");
    }
    support::MmsgClient peer = listener_.accept();
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(7));
    answerAbout(inquiries, LAST, 0, eventBody(7));
    answerAbout(inquiries, EXACT, 5, eventBody(5));
    answerAbout(inquiries, NEXT, 5, eventBody(6));
    answerAbout(inquiries, NEXT, 6, eventBody(7));
    answerAbout(inquiries, NEXT, 7, {});
    peer.send(eventCopy(8, 2, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0)) << evctl.errorOutput();
    EXPECT_EQ(idsOf(evctl.output()), (std::vector{5, 6, 7, 8}));
    EXPECT_EQ(evctl.errorOutput(),
              "evctl: the message switch closed the connection; waiting for it "
              "to come back\nevctl: going on\n");
}

TEST_F(Follow, WithRetryNothingIsLostBeforeTheFirstEventHasCome) {
    support::MmsgListener asked(directory_.file("snmp"));
    support::Process evctl = start({"--retry", "--count", "1"});
    {
        support::MmsgClient peer = listener_.accept();
        support::MmsgClient inquiries = asked.accept();
        answerIdentity(inquiries, eventBody(4));
        answerAbout(inquiries, LAST, 0, eventBody(4));
    }
    support::MmsgClient peer = listener_.accept();
    support::MmsgClient inquiries = asked.accept();
    answerIdentity(inquiries, eventBody(5));
    answerAbout(inquiries, LAST, 0, eventBody(5));
    answerAbout(inquiries, EXACT, 4, eventBody(4));
    answerAbout(inquiries, NEXT, 4, eventBody(5));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0)) << evctl.errorOutput();
    EXPECT_EQ(idsOf(evctl.output()), (std::vector{5}));
}

TEST_F(Follow, WithRetryTheTimeoutHoldsWhileTheSwitchIsAway) {
    support::Process counted =
        start({"--retry", "--endpoint", "smis", "--timeout", "0.05", "--count", "1"});
    EXPECT_EQ(counted.wait(), support::exitedWith(1));
    EXPECT_NE(counted.errorOutput().find("; waiting for it to come back\n"), std::string::npos);
    support::Process evctl = start({"--retry", "--endpoint", "smis", "--timeout", "0.05"});
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Follow, KeepsTheCursorWhileNothingComes) {
    std::string cursor = directory_.file("cursor");
    support::Process evctl = start({"--cursor-file", cursor});
    support::MmsgClient peer = listener_.accept();
    peer.send(eventCopy(5, 2, ""));
    support::requireSoon(
        [&] { return support::readFile(cursor).find(".7.5.") != std::string::npos; },
        "the cursor of event 5");
    peer.send(eventCopy(6, 2, ""));
    support::requireSoon(
        [&] { return support::readFile(cursor).find(".7.6.") != std::string::npos; },
        "the cursor of event 6");
}

TEST_F(Follow, EndsAtOnceWhenNobodyReadsItsOutput) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::vector<std::string> command =
        support::commandOf("evctl", {"follow", "--dir", directory_.path()});
    std::vector<char*> argv;
    for (std::string& word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(ends[1]);
    support::MmsgClient peer = listener_.accept(); // it waits for events by now, or soon
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
