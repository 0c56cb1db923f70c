#include "mmsg/stream.h"

#include "diag/debug_line.h"
#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"
#include "mmsg.h"
#include "mmsg/read_ahead.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <ostream>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;

namespace {

/** One receive of the event manager. */
struct Call {
    size_t asked;
    int flags;
    ssize_t result;
    bool operator==(const Call&) const = default;
};

void PrintTo(const Call& call, std::ostream* stream) {
    *stream << "recv(" << call.asked << ", flags " << call.flags << ") = " << call.result;
}

std::vector<Call> calls;
std::map<size_t, std::function<void()>> beforeCall; ///< by number of the call, from 1
size_t failingCall;                                 ///< call that gives -1; 0: none
size_t lastCall; ///< the process exits instead of making a further call; 0: never

constexpr int GIVEN_UP = 77;

} // namespace

extern "C" {

ssize_t __real_recv(int fd, void* buffer, size_t length, int flags);

ssize_t __wrap_recv(int fd, void* buffer, size_t length, int flags) {
    if (fd != empControl.socketFdMSM) {
        return __real_recv(fd, buffer, length, flags);
    }
    size_t number = calls.size() + 1;
    if (lastCall != 0 && number > lastCall) {
        _exit(GIVEN_UP); // flushes nothing
    }
    if (auto hook = beforeCall.find(number); hook != beforeCall.end()) {
        hook->second();
    }
    ssize_t result = -1;
    if (number == failingCall) {
        errno = EIO;
    } else {
        result = __real_recv(fd, buffer, length, flags);
    }
    calls.push_back({length, flags, result});
    return result;
}
}

namespace {

/** A message of one byte value behind its header, which announces @p length. */
Bytes message(size_t sent, U8_t value, size_t length) {
    Bytes bytes(sent, value);
    std::fill(bytes.begin(), bytes.begin() + static_cast<long>(std::min<size_t>(sent, 64)), value);
    bytes[10] = static_cast<U8_t>(length >> 8);
    bytes[11] = static_cast<U8_t>(length);
    return bytes;
}

Bytes message(size_t length, U8_t value) {
    return message(length, value, length);
}

class Stream : public EmpTest {
  protected:
    /** The receive buffer's first @p count bytes. */
    static Bytes buffer(size_t count = 4064) { return bytesAt(empControl.empInMsg, count); }

    static Bytes padded(Bytes bytes, size_t count = 4064) {
        bytes.resize(count);
        return bytes;
    }

    /** Bytes that have not been consumed. */
    static size_t unread() {
        Bytes space(65536);
        bool inSocket = __real_recv(empControl.socketFdMSM, space.data(), space.size(),
                                    MSG_PEEK | MSG_DONTWAIT) > 0;
        if (!inSocket && !empMsmReadAhead()) {
            return 0;
        }
        return static_cast<size_t>(empReceiveFromMsm(space.data(), space.size(), MSG_PEEK));
    }

    static constexpr size_t AHEAD = 65536;
};

TEST_F(Stream, MessageTakesOneReceive) {
    msm_.send(message(300, 0x31));
    empReceiveMmsg();
    EXPECT_EQ(calls, (std::vector<Call>{{AHEAD, 0, 300}}));
    EXPECT_EQ(buffer(), padded(message(300, 0x31)));
    EXPECT_EQ(unread(), 0U);
}

TEST_F(Stream, HeaderOnlyMessageIsRead) {
    msm_.send(message(64, 0x32));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), padded(message(64, 0x32)));
    EXPECT_EQ(unread(), 0U);
}

TEST_F(Stream, MessagesInOnePieceAreTakenOneByOne) {
    msm_.send(joined({message(64, 1), message(4064, 2), message(65, 3)}));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), padded(message(64, 1)));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), message(4064, 2));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), padded(message(65, 3)));
    EXPECT_EQ(calls, (std::vector<Call>{{AHEAD, 0, 64 + 4064 + 65}})) << "one receive for all";
    EXPECT_EQ(unread(), 0U);
}

TEST_F(Stream, BytesOfAnEarlierMessageNeverShow) {
    msm_.send(message(4064, 0xAA));
    empReceiveMmsg();
    for (size_t length : {64U, 65U, 216U, 4063U}) {
        msm_.send(message(length, 0xBB));
        empReceiveMmsg();
        EXPECT_EQ(buffer(), padded(message(length, 0xBB))) << length;
    }
}

TEST_F(Stream, OversizeMessagesAreReadWholeAndTheStreamStaysInStep) {
    for (size_t length : {4065U, 5000U, 32768U, 65535U}) {
        msm_.send(joined({message(length, 0x41), message(64, 0x42)}));
        empReceiveMmsg();
        EXPECT_EQ(buffer(length), message(length, 0x41)) << length;
        EXPECT_EQ(unread(), 64U) << length;
        empReceiveMmsg();
        EXPECT_EQ(buffer(), padded(message(64, 0x42))) << length;
        EXPECT_EQ(unread(), 0U);
    }
}

TEST_F(Stream, LengthZeroReadsNothingAndLeavesTheBufferAlone) {
    msm_.send(message(300, 0x51));
    empReceiveMmsg();
    msm_.send(message(64, 0x52, 0));
    for (int pass = 0; pass < 3; pass++) {
        empReceiveMmsg();
        EXPECT_EQ(buffer(), padded(message(300, 0x51)));
        EXPECT_EQ(unread(), 64U) << "the header is seen again";
    }
}

TEST_F(Stream, LengthsBelowAHeaderConsumeOnlyThatMuch) {
    for (size_t length : {1U, 11U, 12U, 63U}) {
        msm_.send(message(4064, 0x61));
        empReceiveMmsg();
        msm_.send(message(64, 0x62, length));
        empReceiveMmsg();
        Bytes expected = message(4064, 0x61);
        Bytes shortOne = message(64, 0x62, length);
        std::copy_n(shortOne.begin(), length, expected.begin());
        EXPECT_EQ(buffer(), expected) << "the rest is the message before";
        EXPECT_EQ(unread(), 64 - length) << "the stream is out of step";
        Bytes rest(64 - length);
        ASSERT_EQ(empReceiveFromMsm(rest.data(), rest.size(), 0),
                  static_cast<ssize_t>(rest.size()));
    }
}

TEST_F(Stream, TwelveBytesArePeekedSixTimes) {
    msm_.send(message(64, 0x71));
    empReceiveMmsg();
    calls.clear();
    msm_.send(message(12, 0x72, 12));
    empReceiveMmsg();
    // Four more peeks ask for more than waits, and each looks for it.
    std::vector<Call> expected(5, Call{AHEAD - 12, MSG_DONTWAIT, -1});
    expected[0] = {AHEAD, 0, 12};
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(buffer(), padded(joined({message(12, 0x72, 12), Bytes(52, 0x71)})));
    EXPECT_EQ(unread(), 0U);
}

TEST_F(Stream, OneByteIsPeekedSixtyFourTimesAndTheEarlierHeaderGivesTheLength) {
    msm_.send(message(64, 0x73));
    empReceiveMmsg();
    calls.clear();
    // The last peek asks for one byte and is content; then the body is asked for.
    beforeCall[64] = [this] { msm_.send(Bytes(63, 0x74)); };
    msm_.send({0x75});
    empReceiveMmsg();
    EXPECT_EQ(calls.size(), 64U);
    EXPECT_EQ(calls.back(), (Call{AHEAD - 1, MSG_DONTWAIT, 63}));
    EXPECT_EQ(buffer(), padded(joined({{0x75}, Bytes(63, 0x74)})));
}

TEST_F(Stream, RestOfAMessageThatArrivesBeforeItIsAskedForIsNotSplitOff) {
    Bytes whole = message(300, 0x77);
    msm_.send(joined({message(100, 0x78), Bytes(whole.begin(), whole.begin() + 70)}));
    empReceiveMmsg();
    msm_.send(Bytes(whole.begin() + 70, whole.end()));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), padded(whole));
}

TEST_F(Stream, FirstPeekThatDoesNotReachTheLengthMeetsZero) {
    msm_.send(Bytes(10, 0x76));
    empReceiveMmsg();
    EXPECT_EQ(buffer(), Bytes(4064)) << "length 0: nothing is read";
    EXPECT_EQ(unread(), 10U);
}

TEST_F(Stream, OfASplitMessageOnlyTheLastPieceIsLeftAndZerosBehindIt) {
    msm_.send(message(4064, 0x81));
    empReceiveMmsg();
    calls.clear();
    Bytes whole = message(300, 0x82);
    beforeCall[3] = [this] { msm_.send(Bytes(60, 0x83)); };
    msm_.send(Bytes(whole.begin(), whole.begin() + 240));
    empReceiveMmsg();
    EXPECT_EQ(calls, (std::vector<Call>{
                         {AHEAD, 0, 240}, {AHEAD - 240, MSG_DONTWAIT, -1}, {AHEAD, 0, 60}}));
    Bytes expected = padded(Bytes(whole.begin(), whole.begin() + 240));
    std::fill_n(expected.begin(), 60, U8_t{0x83});
    EXPECT_EQ(buffer(), expected) << "bytes 240 to 299 were covered by no piece";
}

// --- Failures

constexpr char READ_FAILS[] = "Linux recv function fails, MSG_PEEK readSize = [-1] is wrong";

/** The line feed of an empty dump stands right before the report. */
void expectEmptyDumpBeforeReport(const std::string& output) {
    EXPECT_EQ(output.find("\n" STAMP "****"), 0U) << output.substr(0, 200);
}

TEST_F(Stream, FailedHeaderIsABugCheck) {
    failingCall = 1;
    msm_.send(message(64, 1));
    expectEmptyDumpBeforeReport(expectBugCheck(empReceiveMmsg, "main", READ_FAILS));
}

TEST_F(Stream, FailedBodyReportsThePeekToo) {
    failingCall = 2;
    msm_.send(message(64, 1, 300));
    expectEmptyDumpBeforeReport(expectBugCheck(empReceiveMmsg, "main", READ_FAILS));
}

TEST_F(Stream, FailedSecondPieceIsABugCheck) {
    failingCall = 3;
    msm_.send(message(64, 1, 300));
    expectEmptyDumpBeforeReport(expectBugCheck(empReceiveMmsg, "main", READ_FAILS));
}

TEST_F(Stream, PeerThatLeavesUnreadDataIsABugCheck) {
    ASSERT_EQ(send(empControl.socketFdMSM, "x", 1, 0), 1);
    msm_.close();
    expectEmptyDumpBeforeReport(expectBugCheck(empReceiveMmsg, "main", READ_FAILS));
}

TEST_F(Stream, EndOfStreamSpinsWithItsLastLinesVisible) {
    lastCall = 1000;
    msm_.close();
    ChildEnd end = endOf([] {
        empDebugLine("main(): The socket to MSM is selected.\n");
        empReceiveMmsg();
    });
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.status, GIVEN_UP) << "it never returns";
    EXPECT_EQ(end.output, STAMP "main(): The socket to MSM is selected.\n");
}

TEST_F(Stream, EndOfStreamInsideABodySpinsToo) {
    lastCall = 1000;
    msm_.send(message(100, 1, 300));
    msm_.close();
    ChildEnd end = endOf([] {
        empDebugLine("main(): The socket to MSM is selected.\n");
        empReceiveMmsg();
    });
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.status, GIVEN_UP);
    EXPECT_EQ(end.output, STAMP "main(): The socket to MSM is selected.\n");
}

TEST_F(Stream, NothingIsFlushedForAMessageInOnePiece) {
    msm_.send(message(64, 1));
    ChildEnd end = endOf([] {
        empDebugLine("main(): The socket to MSM is selected.\n");
        empReceiveMmsg();
        _exit(3);
    });
    EXPECT_EQ(end.status, 3);
    EXPECT_EQ(end.output, "");
}

} // namespace
