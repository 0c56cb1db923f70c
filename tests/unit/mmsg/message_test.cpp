#include "mmsg/message.h"

#include "diag/debug_line.h"
#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;

namespace {

bool sendFails;
ssize_t sendResult;
int sends;
int waitingSends; ///< of these, sends that may wait
bool socketFull;  ///< a send that does not wait fails, one that waits leaves a mark in the output

} // namespace

extern "C" {

ssize_t __real_send(int fd, const void* buffer, size_t length, int flags);

ssize_t __wrap_send(int fd, const void* buffer, size_t length, int flags) {
    if (fd != empControl.socketFdMSM) {
        return __real_send(fd, buffer, length, flags);
    }
    sends++;
    waitingSends += (flags & MSG_DONTWAIT) == 0 ? 1 : 0;
    if (socketFull) {
        if ((flags & MSG_DONTWAIT) != 0) {
            errno = EAGAIN;
            return -1;
        }
        EXPECT_EQ(write(STDOUT_FILENO, "|", 1), 1);
    }
    if (sendFails) {
        errno = EIO;
        return sendResult;
    }
    return __real_send(fd, buffer, length, flags);
}
}

namespace {

class Message : public EmpTest {
  protected:
    /** The bug-check of a send of "ABCDEF" that gives @p result. @return its output */
    static std::string shortSend(ssize_t result, EMP_SHORT_SEND_e reaction,
                                 const std::string& shown) {
        sendFails = true;
        sendResult = result;
        return expectBugCheck(
            [reaction] {
                empSendToMsm("ABCDEF", 6, EmpSite_t{4711, "empSomething"}, reaction);
            },
            "empSomething", "Linux send function fails, sendSize = [" + shown + "] is wrong");
    }
};

TEST(EndpointBit, LiesInItsWord) {
    EXPECT_EQ(empEndpointBit(27), 0x08000000U);
    EXPECT_EQ(empEndpointBit(18), 0x00040000U);
    EXPECT_EQ(empEndpointBit(30), 0x40000000U);
    EXPECT_EQ(empEndpointBit(31), 0x80000000U);
    EXPECT_EQ(empEndpointBit(32), 1U);
}

TEST(BuildMmch, EveryByteIsWritten) {
    MMCH_t mmch;
    memset(&mmch, 0xA5, sizeof(mmch));
    empBuildMmch(&mmch, MMSG_E_PROTOCOL_STARTUP, 0x010203);
    Bytes expected(64);
    expected[8] = 14;
    expected[9] = 1;
    expected[12] = 12;
    expected[13] = 1;
    expected[14] = 2;
    expected[15] = 3;
    expected[16] = 27;
    EXPECT_EQ(bytesAt(&mmch, 64), expected);
}

TEST_F(Message, WholeSendIsOneCall) {
    Bytes bytes(4064, 0x5A);
    EXPECT_EQ(empSendToMsm(bytes.data(), 4064, EMP_HERE, EMP_E_SHORT_SEND_SHOWS_RESULT), 4064);
    EXPECT_EQ(sends, 1);
    EXPECT_EQ(msm_.receivePiece(), bytesAt(bytes.data(), 4064));
}

TEST_F(Message, SocketThatMayTakePiecesIsGivenAllInOneWaitingSend) {
    int size = 4608;
    ASSERT_EQ(setsockopt(empControl.socketFdMSM, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    EXPECT_EQ(empSendToMsm("ABCDEF", 6, EMP_HERE, EMP_E_SHORT_SEND_SHOWS_RESULT), 6);
    EXPECT_EQ(sends, 1);
    EXPECT_EQ(waitingSends, 1);
}

TEST_F(Message, SendThatWaitedLeavesErrnoAsItWas) {
    socketFull = true;
    errno = ECONNREFUSED;
    EXPECT_EQ(empSendToMsm("ABCDEF", 6, EMP_HERE, EMP_E_SHORT_SEND_SHOWS_RESULT), 6);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(waitingSends, 1);
}

TEST_F(Message, SendThatWaitsWritesTheLinesBefore) {
    socketFull = true;
    ChildEnd end = endOf([] {
        empBufferOutput();
        empDebugLine("empSomething(): a line\n");
        empSendToMsm("ABCDEF", 6, EMP_HERE, EMP_E_SHORT_SEND_SHOWS_RESULT);
        _exit(0);
    });
    EXPECT_EQ(end.output, STAMP "empSomething(): a line\n|");
    EXPECT_EQ(msm_.receivePiece(), (Bytes{'A', 'B', 'C', 'D', 'E', 'F'}));
}

TEST_F(Message, SendThatDoesNotWaitLeavesTheLines) {
    ChildEnd end = endOf([] {
        empBufferOutput();
        empDebugLine("empSomething(): a line\n");
        empSendToMsm("ABCDEF", 6, EMP_HERE, EMP_E_SHORT_SEND_SHOWS_RESULT);
        _exit(0);
    });
    EXPECT_EQ(end.output, "");
}

TEST_F(Message, ShortSendShowsTheIntendedLength) {
    std::string output = shortSend(4, EMP_E_SHORT_SEND_SHOWS_INTENDED, "6");
    EXPECT_EQ(output.find(STAMP "****"), 0U) << "no dump";
    EXPECT_NE(output.find("| Line:      4711\n"), std::string::npos);
}

TEST_F(Message, ShortSendShowsTheResult) {
    EXPECT_EQ(shortSend(4, EMP_E_SHORT_SEND_SHOWS_RESULT, "4").find(STAMP "****"), 0U);
}

TEST_F(Message, DumpOfAShortSendEndsWhereTheSendEnded) {
    EXPECT_EQ(
        shortSend(4, EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED, "6").find("41424344 \n" STAMP "****"),
        0U);
    EXPECT_EQ(
        shortSend(5, EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT, "5").find("41424344 45\n" STAMP "****"),
        0U);
}

TEST_F(Message, FailedSendDumpsALineFeed) {
    EXPECT_EQ(shortSend(-1, EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED, "6").find("\n" STAMP "****"), 0U);
    EXPECT_EQ(shortSend(-1, EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT, "-1").find("\n" STAMP "****"), 0U);
}

TEST_F(Message, FailedSendWithoutDumpShowsTheIntendedLength) {
    EXPECT_EQ(shortSend(-1, EMP_E_SHORT_SEND_SHOWS_INTENDED, "6").find(STAMP "****"), 0U);
}

} // namespace
