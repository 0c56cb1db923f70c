#include "outbox.h"
#include "whole_send.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <limits>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace evarchive;

namespace {

// What the next send() does instead of sending.
std::optional<ssize_t> sendResult;
int sendError = 0;
int sends = 0;

// What the system says that is not acknowledged yet, and of the peer's window, instead of the
// truth.
std::optional<int> unacknowledged;
std::optional<U32_t> window;

} // namespace

extern "C" {
int __real_ioctl(int descriptor, unsigned long request, void* argument);
int __wrap_ioctl(int descriptor, unsigned long request, ...) {
    va_list rest;
    va_start(rest, request);
    void* argument = va_arg(rest, void*);
    va_end(rest);
    if (request == static_cast<unsigned long>(SIOCOUTQ) && unacknowledged) {
        *static_cast<int*>(argument) = *unacknowledged;
        return 0;
    }
    return __real_ioctl(descriptor, request, argument);
}
int __real_getsockopt(int descriptor, int level, int name, void* value, socklen_t* size);
int __wrap_getsockopt(int descriptor, int level, int name, void* value, socklen_t* size) {
    const int result = __real_getsockopt(descriptor, level, name, value, size);
    if (level == IPPROTO_TCP && name == TCP_INFO && window) {
        static_cast<tcp_info*>(value)->tcpi_snd_wnd = *window;
    }
    return result;
}
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
        unacknowledged.reset();
        window.reset();
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
        setsockopt(far_, SOL_SOCKET, SO_RCVBUF, &farBuffer_, sizeof(farBuffer_));
        ASSERT_EQ(connect(far_, generic, size), 0);
        near_ = accept(listener, nullptr, nullptr);
        ASSERT_GE(near_, 0);
        close(listener);
        setUpWholeSending(near_);
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

    static int optionOf(int descriptor, int level, int name) {
        int value = 0;
        socklen_t size = sizeof(value);
        EXPECT_EQ(getsockopt(descriptor, level, name, &value, &size), 0);
        return value;
    }

    int farBuffer_ = 65'536;
    int near_ = -1;
    int far_ = -1;
};

// The far end's window is soon closed: what is sent waits here.
class NarrowSendTest : public WholeSendTest {
  protected:
    NarrowSendTest() { farBuffer_ = 4096; }
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

TEST_F(WholeSendTest, NothingGoesOutWhileAnEarlierOneIsNotAcknowledged) {
    unacknowledged = 1;
    EXPECT_EQ(sendWhole(near_, Bytes(168, 1)), Sent::LATER);
    EXPECT_EQ(sends, 0);
    unacknowledged = 0;
    EXPECT_EQ(sendWhole(near_, Bytes(168, 1)), Sent::WHOLE);
}

TEST_F(WholeSendTest, NothingGoesOutThatThePeerHasNoRoomFor) {
    unacknowledged = 0;
    window = 167;
    EXPECT_EQ(sendWhole(near_, Bytes(168, 1)), Sent::LATER);
    EXPECT_EQ(sends, 0);
    window = 168;
    EXPECT_EQ(sendWhole(near_, Bytes(168, 1)), Sent::WHOLE);
}

// Were it taken for acknowledged wrongly, each message would still have segments of its own: what
// waits here is never joined.
TEST_F(NarrowSendTest, MessagesThatWaitAreNotJoinedToOneSegment) {
    constexpr U32_t COUNT = 150;
    unacknowledged = 0;
    window = 65'536;
    for (U32_t number = 0; number < COUNT; ++number) {
        ASSERT_EQ(sendWhole(near_, Bytes(168, 1)), Sent::WHOLE);
    }
    unacknowledged.reset();
    window.reset();
    for (size_t received = 0; received < COUNT * size_t{168};) {
        received += readAll();
    }
    tcp_info info{};
    socklen_t size = sizeof(info);
    ASSERT_EQ(getsockopt(far_, IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_GE(info.tcpi_data_segs_in, COUNT);
}

TEST_F(WholeSendTest, SetUpSendsAtOnceAndLetsRoutersCutPackets) {
    EXPECT_EQ(optionOf(near_, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(optionOf(near_, IPPROTO_IP, IP_MTU_DISCOVER), IP_PMTUDISC_DONT);
    EXPECT_GE(optionOf(near_, SOL_SOCKET, SO_SNDBUF), SEND_BUFFER);
}

TEST_F(WholeSendTest, LongestIsWhatASegmentCarriesBesideItsOptions) {
    const int segment = optionOf(near_, IPPROTO_TCP, TCP_MAXSEG);
    const std::size_t longest = longestWhole(near_);
    EXPECT_LE(longest, static_cast<std::size_t>(segment));
    EXPECT_GE(longest + 36, static_cast<std::size_t>(segment));
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(longestWhole(pair[0]), std::numeric_limits<std::size_t>::max()); // no segments
    close(pair[0]);
    close(pair[1]);
}

TEST_F(WholeSendTest, AnswerThatIsTooLongGoesOutInShort) {
    Outbox outbox(200);
    outbox.add({Bytes(201, 1), Bytes(168, 2)});
    outbox.add({Bytes(200, 3), {}});
    EXPECT_EQ(outbox.bytes(), 401U);
    unacknowledged = 0;
    EXPECT_EQ(outbox.flush(near_), Outbox::State::EMPTY);
    EXPECT_EQ(outbox.bytes(), 0U);
    EXPECT_EQ(readAll(), 368U);
    const auto shortened = outbox.takeShortened();
    EXPECT_EQ(shortened.count, 1U);
    EXPECT_EQ(shortened.length, 201U);
    EXPECT_EQ(shortened.longest, 200U);
    EXPECT_EQ(outbox.takeShortened().count, 0U);
}

TEST_F(WholeSendTest, LinkThatTakesNotEvenAShortAnswerWholeIsBroken) {
    for (const Bytes& instead : {Bytes(), Bytes(168, 2)}) {
        Outbox outbox(167);
        outbox.add({Bytes(192, 1), instead});
        EXPECT_FALSE(outbox.isTooLong());
        EXPECT_EQ(outbox.flush(near_), Outbox::State::BROKEN);
        EXPECT_TRUE(outbox.isTooLong());
    }
    EXPECT_EQ(sends, 0);
}
