#include "whole_send.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

using namespace evarchive;

namespace {

// What the next send() does instead of sending.
std::optional<ssize_t> sendResult;
int sendError = 0;
int sends = 0;

} // namespace

extern "C" {
ssize_t __real_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags) {
    ++sends;
    if (!sendResult) {
        return __real_send(descriptor, bytes, size, flags);
    }
    errno = sendError;
    return *sendResult;
}
}

namespace {

// Two ends of a TCP connection, the first with the send buffer of a link.
class WholeSendTest : public testing::Test {
  protected:
    void SetUp() override {
        sendResult.reset();
        sends = 0;
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        ASSERT_EQ(bind(listener, generic, size), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        ASSERT_EQ(getsockname(listener, generic, &size), 0);
        far_ = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(far_, generic, size), 0);
        near_ = accept(listener, nullptr, nullptr);
        ASSERT_GE(near_, 0);
        close(listener);
        ASSERT_EQ(setsockopt(near_, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof(SEND_BUFFER)), 0);
    }
    void TearDown() override {
        close(near_);
        close(far_);
    }

    size_t readAll() {
        Bytes bytes(65'536);
        size_t total = 0;
        ssize_t got = 0;
        while ((got = recv(far_, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
            total += static_cast<size_t>(got);
        }
        return total;
    }

    int near_ = -1;
    int far_ = -1;
};

} // namespace

TEST_F(WholeSendTest, MessageGoesOutWithOneSend) {
    EXPECT_EQ(sendWhole(near_, Bytes(4016, 1)), Sent::WHOLE);
    EXPECT_EQ(sends, 1);
}

// The system's promise that the discipline rests on: while it calls the socket writable, it takes a
// whole response of any size.
TEST_F(WholeSendTest, NoMessageIsEverTakenInPartWhileNobodyReads) {
    for (const size_t size : {168U, 192U, 1000U, 4016U}) {
        size_t sent = 0;
        Sent result = Sent::WHOLE;
        while ((result = sendWhole(near_, Bytes(size, 1))) == Sent::WHOLE) {
            sent += size;
            ASSERT_LT(sent, 100'000'000U);
        }
        EXPECT_EQ(result, Sent::LATER) << size;
        size_t received = 0;
        while (received < sent) {
            received += readAll();
        }
        EXPECT_EQ(received, sent);
    }
}

TEST_F(WholeSendTest, MessageTakenInPartBreaksTheLink) {
    sendResult = 4015;
    EXPECT_EQ(sendWhole(near_, Bytes(4016, 1)), Sent::BROKEN);
    EXPECT_EQ(sends, 1);
}

TEST_F(WholeSendTest, FullBufferIsLater) {
    sendResult = -1;
    sendError = EAGAIN;
    EXPECT_EQ(sendWhole(near_, Bytes(4016, 1)), Sent::LATER);
}

TEST_F(WholeSendTest, FailedSendBreaksTheLink) {
    sendResult = -1;
    sendError = EPIPE;
    EXPECT_EQ(sendWhole(near_, Bytes(4016, 1)), Sent::BROKEN);
}

TEST_F(WholeSendTest, NothingIsSentWhereThereIsNoSocket) {
    EXPECT_EQ(sendWhole(-1, Bytes(1, 1)), Sent::LATER);
    EXPECT_EQ(sendWhole(1'000'000, Bytes(1, 1)), Sent::BROKEN);
    EXPECT_EQ(sends, 0);
}
