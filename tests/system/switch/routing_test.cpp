#include "switch_fixture.h"

#include "endpoint_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace support;
using testing::HasSubstr;

namespace {

class Routing : public testing::Test {
  protected:
    TempDirectory directory;
    RunningSwitch msm{directory.path()};
};

} // namespace

TEST_F(Routing, MessageReachesItsRecipientUnchanged) {
    MmsgClient startup = msm.connect("startup");
    MmsgClient eventlog = msm.connect("eventlog");
    Bytes message = makeMmsg({.type = 1, .cont = 0x40, .local = {27}, .handle = 9}, Bytes(152, 3));
    startup.send(message);
    EXPECT_EQ(eventlog.receive(), message);
}

TEST_F(Routing, EveryEndpointHasItsSocketAndItsBit) {
    MmsgClient sender = msm.connect("msm");
    for (U32_t endpoint = 0; endpoint < 34; ++endpoint) {
        MmsgClient receiver = msm.connect(ENDPOINT_SOCKETS[endpoint]);
        Bytes message = makeMmsg({.local = {endpoint}, .handle = endpoint});
        sender.send(message);
        EXPECT_EQ(receiver.receive(), message) << ENDPOINT_SOCKETS[endpoint];
    }
}

TEST_F(Routing, SeveralRecipientsGetOneCopyEach) {
    MmsgClient sender = msm.connect("startup");
    MmsgClient snmp = msm.connect("snmp");
    MmsgClient adapter = msm.connect("es_adapter");
    MmsgClient other = msm.connect("smis");
    Bytes message = makeMmsg({.local = {28, 33}});
    sender.send(message);
    EXPECT_EQ(snmp.receive(), message);
    EXPECT_EQ(adapter.receive(), message);
    expectNothingBefore(sender, snmp, 28);
    expectNothingBefore(sender, adapter, 33);
    expectNothingBefore(sender, other, 29);
}

TEST_F(Routing, EveryConnectionOfAnEndpointGetsTheMessage) {
    MmsgClient first = msm.connect("startup");
    MmsgClient second = msm.connect("startup");
    MmsgClient eventlog = msm.connect("eventlog");
    Bytes message = makeMmsg({.requestor = 27, .local = {18}});
    eventlog.send(message);
    EXPECT_EQ(first.receive(), message);
    EXPECT_EQ(second.receive(), message);
    expectNothingBefore(eventlog, first, 18);
}

TEST_F(Routing, SenderGetsItsOwnMessageWhenItIsARecipient) {
    MmsgClient client = msm.connect("aim");
    Bytes message = makeMmsg({.requestor = 25, .local = {25}});
    client.send(message);
    EXPECT_EQ(client.receive(), message);
}

TEST_F(Routing, BothBitmapsGiveOneLocalCopy) {
    MmsgClient eventlog = msm.connect("eventlog");
    MmsgClient management = msm.connect("smi_ind");
    Bytes message = makeMmsg({.requestor = 27, .local = {30}, .other = {30}});
    eventlog.send(message);
    EXPECT_EQ(management.receive(), message);
    expectNothingBefore(eventlog, management, 30);
}

TEST_F(Routing, OtherBladesBitsAloneReachNobodyHere) {
    MmsgClient eventlog = msm.connect("eventlog");
    MmsgClient management = msm.connect("smi_ind");
    eventlog.send(makeMmsg({.requestor = 27, .other = {30}}));
    expectNothingBefore(eventlog, management, 30);
    EXPECT_THAT(msm.stop(), HasSubstr("messages 2, reached nobody 1"));
}

TEST_F(Routing, MessageToNobodyIsCountedAndSaid) {
    MmsgClient startup = msm.connect("startup");
    startup.send(makeMmsg({.type = 1, .local = {30}}));
    EXPECT_THAT(msm.process().waitForOutput("-> nobody"),
                HasSubstr("startup#1: eventmgr log, 64 bytes, from startup to smi_ind, other blade "
                          "-, cont 0x00, dest 0, return_code 0, handle 0x00000000 -> nobody, not "
                          "connected: smi_ind"));
    std::string output = msm.stop();
    EXPECT_THAT(output, HasSubstr("messages 1, reached nobody 1, unknown recipients 0"));
    EXPECT_THAT(output, HasSubstr("smi_ind: received 0, delivered 0, dropped 0, unconnected 1"));
}

TEST_F(Routing, BitsOfNoEndpointAreCounted) {
    MmsgClient startup = msm.connect("startup");
    startup.send(makeMmsg({.local = {34, 63}}));
    msm.process().waitForOutput("to 34 63");
    EXPECT_THAT(msm.stop(), HasSubstr("reached nobody 1, unknown recipients 1"));
}

TEST_F(Routing, OrderOfOneSenderIsKept) {
    MmsgClient startup = msm.connect("startup");
    MmsgClient eventlog = msm.connect("eventlog");
    for (U32_t i = 0; i < 200; ++i) {
        startup.send(makeMmsg({.local = {27}, .handle = i}, Bytes(i * 20 % 4001)));
    }
    for (U32_t i = 0; i < 200; ++i) {
        ASSERT_EQ(headerOf(eventlog.receive()).handle, i);
    }
}

TEST_F(Routing, TrafficIsSummedUpAtTheEnd) {
    MmsgClient startup = msm.connect("startup");
    MmsgClient eventlog = msm.connect("eventlog");
    for (int i = 0; i < 3; ++i) {
        startup.send(makeMmsg({.local = {27}}));
        eventlog.receive();
    }
    std::string output = msm.stop(SIGINT);
    EXPECT_THAT(output, HasSubstr("msm: summary: connections 2, messages 3, reached nobody 0, "
                                  "unknown recipients 0, bad lengths 0, broken messages 0\n"));
    EXPECT_THAT(output,
                HasSubstr("msm: startup: received 3, delivered 0, dropped 0, unconnected 0\n"));
    EXPECT_THAT(output,
                HasSubstr("msm: eventlog: received 0, delivered 3, dropped 0, unconnected 0\n"));
}
