/** evctl follow against a switch that the test plays. */
#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>

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
              "partial_mmsg(3)       4 bytes");
    peer.send(eventCopy(4'000'000'000U, 1, "", 7));
    EXPECT_EQ(evctl.waitForOutput("4000000000"),
              "4000000000  2006-11-21T14:00:00Z  information  startup          disk           "
              "partial_mmsg(3)       0 bytes");
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
               data + "}\n";
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
