#include "requests/archiver_settings.h"

#include "link_bench.h"

#include <arpa/inet.h>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char REPLY_LINE[] =
    "empRcvSetEventArchiverMsg(): Send Response Msg for Set Event Archiver Msg to Requestor.\n";

class Settings : public LinkTest {
  protected:
    static Bytes request(const Bytes& address, unsigned port, unsigned requestor = 29,
                         unsigned mmsgCont = 0) {
        Bytes body = address;
        put16(body, port);
        put16(body, 0xEEEE); // padding, ignored
        return localMessage(3, body, requestor, mmsgCont);
    }
    static std::string set(const Bytes& message) {
        return linesOf([&] { empRcvSetEventArchiverMsg(received(message)); });
    }
    static std::string status(const Bytes& message = localMessage(5, {})) {
        return linesOf([&] { empRcvGetEventManagerStatusMsg(received(message)); });
    }
    static std::vector<Bytes> replies() { return sentTo(MSM_SOCKET); }

    static Bytes setReply() {
        Bytes bytes = replyHeader(3, 72, 1);
        putZeros(bytes, 8);
        return bytes;
    }
    const Bytes address = {192, 168, 200, 255};
};

TEST_F(Settings, ConnectInProgressIsTheNormalRoad) {
    EXPECT_EQ(
        set(request(address, 5000)),
        "empRcvSetEventArchiverMsg(): Try to connect with Event Archiver [192.168.200.255]\n"
        "empRcvSetEventArchiverMsg(): Event Manager may not connect to Event Archiver for Set Event Archiver Msg.\n" +
            std::string(REPLY_LINE));
    EXPECT_EQ(empControl.evManagerStatusFlag, 1);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 0U);
    EXPECT_EQ(empControl.socketFdEventArchiver, NEW_SOCKET);
    EXPECT_EQ(bench.nonBlocking, NEW_SOCKET);
    EXPECT_EQ(empControl.socketAddressEventArchiver.sin_family, AF_INET);
    ASSERT_EQ(bench.connects.size(), 1U);
    EXPECT_EQ(slice(bench.connects[0], 2, 16),
              (Bytes{0x13, 0x88, 192, 168, 200, 255, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Settings, ReplyIsThese72BytesUnprintedAndUncounted) {
    set(request(address, 5000));
    EXPECT_THAT(replies(), ElementsAre(setReply()));
    EXPECT_TRUE(bench.printedMmsgs.empty());
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 0U);
}

TEST_F(Settings, ReplyGoesToThisBladeWhereverTheRequestCameFrom) {
    set(request(address, 5000, 33, 0x80));
    EXPECT_EQ(slice(replies()[0], 0, 64), replyHeader(3, 72, 1, 33, 0x12345678, 1, 2));
    status(localMessage(5, {}, 33, 0x80));
    EXPECT_EQ(slice(replies()[1], 0, 64), replyHeader(5, 84, 1, 33, 0x12345678, 1, 2));
}

TEST_F(Settings, ImmediateErrorIsAnsweredWithSuccessToo) {
    bench.connectError = ENETUNREACH;
    set(request(address, 5000));
    EXPECT_EQ(empControl.evManagerStatusFlag, 1);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    EXPECT_THAT(replies(), ElementsAre(setReply()));
}

TEST_F(Settings, ImmediateSuccessStartsTheHandshake) {
    storeRange(0, 1);
    bench.connectResult = 0;
    bench.connectError = EAGAIN;
    EXPECT_THAT(
        set(request(address, 5000)),
        testing::AllOf(
            HasSubstr("[192.168.200.255]\n"
                      "empRcvSetEventArchiverMsg(): Event Manager connects to the Event Archiver.\n"
                      "empSendGetEventArchiverStatusMsg(): Found"),
            EndsWith(REPLY_LINE)));
    EXPECT_EQ(sentTo(NEW_SOCKET)[0].size(), 196U);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_THAT(replies(), ElementsAre(setReply()));
}

TEST_F(Settings, InProgressLineBelongsToSuccess) {
    storeRange(0, 1);
    bench.connectResult = 0;
    EXPECT_THAT(
        set(request(address, 5000)),
        HasSubstr("[192.168.200.255]\n"
                  "empRcvSetEventArchiverMsg(): Connection to Event Archiver in progress....\n"
                  "empRcvSetEventArchiverMsg(): Event Manager connects to the Event Archiver.\n"));
}

TEST_F(Settings, FailedHandshakeOfAnImmediateSuccessIsAnsweredAllTheSame) {
    storeRange(0, 1);
    bench.connectResult = 0;
    bench.archiverTakes = {-1};
    set(request(address, 5000));
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CLOSE);
    EXPECT_EQ(empControl.evManagerStatusFlag, 0);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_THAT(replies(), ElementsAre(setReply()));
}

TEST_F(Settings, SameAddressTwiceClosesAndConnectsAgain) {
    set(request({127, 0, 0, 1}, 5000));
    EXPECT_THAT(
        set(request({127, 0, 0, 1}, 5000)),
        testing::StartsWith(
            "empRcvSetEventArchiverMsg(): Close connection with Event Archiver [0x7F000001]\n"
            "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n"
            "empRcvSetEventArchiverMsg(): Try to connect"));
    EXPECT_THAT(bench.closed, ElementsAre(NEW_SOCKET));
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 2U);
    EXPECT_EQ(empControl.socketFdEventArchiver, NEW_SOCKET + 1);
}

TEST_F(Settings, AddressZeroClosesAndForgets) {
    set(request(address, 5000));
    EXPECT_EQ(set(request({0, 0, 0, 0}, 5000)),
              "empRcvSetEventArchiverMsg(): Close connection with Event Archiver [0xC0A8C8FF]\n"
              "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n" +
                  std::string(REPLY_LINE));
    EXPECT_EQ(empControl.socketAddressEventArchiver.sin_addr.s_addr, 0U);
    EXPECT_EQ(empControl.socketAddressEventArchiver.sin_port, 0);
    EXPECT_EQ(empControl.socketAddressEventArchiver.sin_family, 0);
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_EQ(empControl.evManagerStatusFlag, 0);
    EXPECT_EQ(bench.connects.size(), 1U);
}

TEST_F(Settings, AddressZeroWithoutAConnectionOnlyClearsTheAddress) {
    empControl.socketAddressEventArchiver.sin_addr.s_addr = 1;
    EXPECT_EQ(set(request({0, 0, 0, 0}, 0)), REPLY_LINE);
    EXPECT_EQ(empControl.socketAddressEventArchiver.sin_addr.s_addr, 0U);
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 0U);
    EXPECT_THAT(replies(), ElementsAre(setReply()));
}

TEST_F(Settings, HeaderOnlyRequestSwitchesTheArchiverOff) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    set(localMessage(3, {}));
    EXPECT_EQ(empControl.evManagerStatusFlag, 0);
    EXPECT_THAT(replies(), ElementsAre(setReply()));
}

TEST_F(Settings, PortZeroIsConnectedToAllTheSame) {
    set(request(address, 0));
    EXPECT_EQ(bench.connects.size(), 1U);
    EXPECT_EQ(empControl.evManagerStatusFlag, 1);
}

TEST_F(Settings, ResponsesAreIgnored) {
    EXPECT_EQ(
        set(request(address, 5000, 29, 0x40)),
        "empRcvSetEventArchiverMsg(): Event Manager Response Msg for Set Event Archiver Test Msg. Just return.\n\n");
    EXPECT_EQ(
        status(localMessage(5, {}, 29, 0x40)),
        "empRcvSetEventArchiverMsg(): Event Manager Response Msg for Get Event Manager Status Test Msg. Just return.\n\n");
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_TRUE(bench.connects.empty());
}

TEST_F(Settings, NoSocketIsABugCheck) {
    bench.sockets = {-1};
    BugCheck bugCheck =
        bugCheckOf([&] { empRcvSetEventArchiverMsg(received(request(address, 1))); });
    EXPECT_EQ(bugCheck.line, 7040);
    EXPECT_EQ(bugCheck.function, "empRcvSetEventArchiverMsg");
    EXPECT_EQ(bugCheck.message, "Linux socket function fails for EMP socket!");
}

TEST_F(Settings, ShortSetReplyIsABugCheck) {
    bench.msmTakes = {12};
    BugCheck bugCheck =
        bugCheckOf([&] { empRcvSetEventArchiverMsg(received(request(address, 1))); });
    EXPECT_EQ(bugCheck.line, 7230);
    EXPECT_EQ(bugCheck.function, "empRcvSetEventArchiverMsg");
    EXPECT_EQ(bugCheck.message, "Linux send function fails, sendSize = [12] is wrong");
    EXPECT_THAT(output, EndsWith("Requestor.\n00000000 00000000 0E010048 \n"));
}

TEST_F(Settings, StatusIsThese84Bytes) {
    set(request(address, 0x1388));
    bench.sends.clear();
    empControl.evManagerStatusFlag = 0x8001;
    empControl.evManagerInquiryMsgTimeout = 0x01020304;
    empControl.evArchiverConnectionFailed = 0x05060708;
    empControl.evArchiverConnectionAttempt = 0x090A0B0C;
    EXPECT_EQ(
        status(),
        "empRcvGetEventManagerStatusMsg(): Send out a MMSG from the Event Manager to Requestor.\n"
        "<MMSG>\n");
    Bytes expected =
        replyHeader(5, 84, 1) + Bytes{192, 168, 200, 255, 0x13, 0x88, 0x80, 0x01, 1,    2,
                                      3,   4,   5,   6,   7,    8,    9,    0x0A, 0x0B, 0x0C};
    EXPECT_THAT(replies(), ElementsAre(expected));
    EXPECT_THAT(bench.printedMmsgs, ElementsAre(expected));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 0U);
}

TEST_F(Settings, StatusAfterARefusalShowsTheAddressButNoLink) {
    set(request(address, 5000));
    bench.sends.clear();
    empControl.evManagerStatusFlag = 0;
    status();
    EXPECT_EQ(slice(replies()[0], 64, 72), (Bytes{192, 168, 200, 255, 0x13, 0x88, 0, 0}));
}

TEST_F(Settings, ShortStatusReplyIsABugCheck) {
    bench.msmTakes = {-1};
    BugCheck bugCheck =
        bugCheckOf([] { empRcvGetEventManagerStatusMsg(received(localMessage(5, {}))); });
    EXPECT_EQ(bugCheck.line, 7337);
    EXPECT_EQ(bugCheck.function, "empRcvGetEventManagerStatusMsg");
    EXPECT_EQ(bugCheck.message, "Linux send function fails, sendSize = [-1] is wrong");
    EXPECT_THAT(output, EndsWith("<MMSG>\n\n"));
}

} // namespace
