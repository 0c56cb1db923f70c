/** A session against a switch that the test plays on the other end of the socket. */
#include "evctl/wire/session.h"

#include "mmsg_client.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <thread>

using evctl::Bytes;
using evctl::Clock;
using evctl::Session;
using evctl::SessionError;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

class SessionTest : public testing::Test {
  protected:
    support::TempDirectory directory_;
    support::MmsgListener listener_{directory_.file("snmp")};
    Session session_{directory_.path(), MMSG_E_EPID_SNMPMP};
    support::MmsgClient peer_{listener_.accept()};
};

Bytes reply(U8_t type, U32_t handle, U8_t cont = 0x40) {
    return support::makeMmsg({.type = type, .cont = cont, .handle = handle});
}

} // namespace

TEST_F(SessionTest, ReceivesMessagesThatArriveInPieces) {
    Bytes first = support::makeMmsg({.type = 1}, Bytes(300, 7));
    Bytes second = support::makeMmsg({.type = 2});
    Bytes joined = first;
    joined.insert(joined.end(), second.begin(), second.end());
    std::thread writer([&] {
        for (size_t at = 0; at < joined.size(); at += 50) {
            peer_.send(Bytes(joined.begin() + static_cast<std::ptrdiff_t>(at),
                             joined.begin() +
                                 static_cast<std::ptrdiff_t>(std::min(at + 50, joined.size()))));
        }
    });
    EXPECT_EQ(session_.receive(std::nullopt), first);
    EXPECT_EQ(session_.receive(std::nullopt), second);
    writer.join();
}

TEST_F(SessionTest, DeadlineEndsTheWait) {
    EXPECT_EQ(session_.receive(Clock::now() + milliseconds(20)), std::nullopt);
    peer_.send(Bytes(63));
    EXPECT_EQ(session_.receive(Clock::now() + milliseconds(20)), std::nullopt);
}

TEST_F(SessionTest, LengthBelowTheHeaderIsAnError) {
    Bytes message = support::makeMmsg({});
    message[11] = 63;
    peer_.send(message);
    EXPECT_THROW(session_.receive(std::nullopt), SessionError);
}

TEST_F(SessionTest, ClosedConnectionIsAnError) {
    peer_.close();
    EXPECT_THROW(session_.receive(std::nullopt), SessionError);
    EXPECT_THROW(
        for (int round = 0; round < 2; round++) { session_.send(support::makeMmsg({})); },
        SessionError);
}

TEST_F(SessionTest, RequestTakesOnlyItsOwnReply) {
    std::thread answerer([&] {
        Bytes request = peer_.receive();
        U32_t handle = support::headerOf(request).handle;
        peer_.send(reply(5, handle + 1));
        peer_.send(reply(5, handle, 0));
        peer_.send(reply(3, handle));
        peer_.send(reply(5, handle));
        peer_.send(reply(1, 0));
    });
    auto answer = session_.request(
        evctl::makeMessage(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, MMSG_E_EPID_SNMPMP, 0),
        seconds(20));
    answerer.join();
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)[17], 0x40);
    EXPECT_EQ((*answer)[15], 5);
    EXPECT_EQ(*session_.receive(std::nullopt), reply(1, 0));
}

TEST_F(SessionTest, RequestsHaveDifferentHandles) {
    Bytes request = evctl::makeMessage(EMP_E_MSGS_INQUIRY, MMSG_E_EPID_SNMPMP, 144);
    EXPECT_EQ(session_.request(request, milliseconds(1)), std::nullopt);
    EXPECT_EQ(session_.request(request, milliseconds(1)), std::nullopt);
    Bytes first = peer_.receive();
    Bytes second = peer_.receive();
    EXPECT_NE(U32_t{support::headerOf(first).handle}, U32_t{support::headerOf(second).handle});
    EXPECT_EQ(first.size(), 208U);
}

TEST_F(SessionTest, SendTakesInWhatArrivesSoThatNeitherSideStalls) {
    // Both sides send far more than their sockets hold; the peer reads only after it has sent all.
    constexpr int messages = 2000;
    Bytes large = support::makeMmsg({.type = 1}, Bytes(4000));
    std::thread peer([&] {
        for (int count = 0; count < messages; count++) {
            peer_.send(large);
        }
        for (int count = 0; count < messages; count++) {
            peer_.receive();
        }
    });
    for (int count = 0; count < messages; count++) {
        session_.send(large);
    }
    peer.join();
    EXPECT_EQ(session_.receive(std::nullopt), large);
}

TEST_F(SessionTest, IdlingDropsWhatArrives) {
    peer_.send(support::makeMmsg({.type = 1}));
    session_.idleUntil(Clock::now() + milliseconds(20));
    peer_.send(support::makeMmsg({.type = 2}));
    EXPECT_EQ(session_.receive(std::nullopt), support::makeMmsg({.type = 2}));
}

TEST(SessionDirectory, EndpointsWithoutSocketAreRefused) {
    EXPECT_THROW(Session("/tmp", 34), SessionError);
}
