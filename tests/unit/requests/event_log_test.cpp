#include "requests/event_log.h"

#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_clock.h"
#include "fixed_time_stamp.h"
#include "store/scan.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;

namespace {

bool sendFails;
ssize_t sendResult;

} // namespace

extern "C" {

ssize_t __real_send(int fd, const void* buffer, size_t length, int flags);

ssize_t __wrap_send(int fd, const void* buffer, size_t length, int flags) {
    if (sendFails && fd == empControl.socketFdMSM) {
        errno = EPIPE;
        return sendResult;
    }
    return __real_send(fd, buffer, length, flags);
}
}

namespace {

/** A message whose every byte says that the requestor has written it. */
Bytes request(U8_t requestor, U16_t length) {
    Bytes bytes(length);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<U8_t>(0x80 + i % 0x70);
    }
    bytes[8] = 14;
    bytes[10] = static_cast<U8_t>(length >> 8);
    bytes[11] = static_cast<U8_t>(length);
    bytes[12] = 8;
    bytes[13] = bytes[14] = 0;
    bytes[15] = 1;
    bytes[16] = requestor;
    if (length >= 216) {
        bytes[211] = 2;    // evType
        bytes[212] = 4;    // evCategory
        bytes[213] = 7;    // evIdVersion
        bytes[214] = 0x12; // evId
        bytes[215] = 0x34;
    }
    return bytes;
}

/** The event of request(18, 221) with the data "hello", as it is stored and passed on: instance 9,
 * sequence id 1. */
Bytes stampedEvent() {
    return joined({textField("CHASSIS-7"),
                   textField("BLADE-42"),
                   {0, 0, 0, 3},             // evSlotId
                   {0, 0, 0, 9},             // evInstanceNumber
                   {0, 0, 0, 1},             // evSequenceId
                   {0x65, 0x43, 0x21, 0x00}, // evTime
                   {0, 5},                   // evStructLength
                   {18},                     // evSource
                   {2, 4, 7, 0x12, 0x34},
                   {'h', 'e', 'l', 'l', 'o'}});
}

Bytes hello() {
    Bytes bytes = request(18, 221);
    memcpy(&bytes[216], "hello", 5);
    return bytes;
}

/** A fresh log: its first entry has id 0 and fills the first 200 bytes. */
class EventLog : public EmpTest {
  protected:
    EventLog() {
        outputOf([] { empScanEventLogFile(); });
        empControl.empInstanceNumber = 9;
    }

    std::string log() const { return readFile(directory_.file("kelta_eventlog")); }

    /** @p count bytes of the log file. */
    Bytes logged(size_t offset, size_t count) const {
        return bytesAt(log().substr(offset, count).data(), count);
    }

    static std::string take(const Bytes& message) {
        MMSG_t* mmsg = place(message);
        return outputOf([mmsg] { empRcvEventLogMsg(mmsg); });
    }

    void expectAccepted(const Bytes& message) {
        U32_t id = empControl.empSequenceId;
        take(message);
        EXPECT_EQ(empControl.empSequenceId, id + 1);
        EXPECT_EQ(msm_.receive().size(), message.size());
    }

    /** Expects that only lines are printed, the last of them those of a dump. */
    void expectRejected(const Bytes& message, const std::string& lines) const {
        static EmpControl_t before;
        std::string file = log();
        MMSG_t* mmsg = place(message);
        memcpy(static_cast<void*>(&before), &empControl, sizeof(before));
        std::string output = outputOf([mmsg] { empRcvEventLogMsg(mmsg); });
        EXPECT_EQ(output.find(stamped(lines + "MMCH protocol            = [8]\n")), 0U) << output;
        EXPECT_NE(output.find(STAMP "< This is an Event LOG Message\n"), std::string::npos);
        EXPECT_EQ(memcmp(&before, &empControl, sizeof(before)), 0) << "no id, no counter";
        EXPECT_EQ(log(), file);
        EXPECT_FALSE(msmHasData()) << "no reply, no copy";
    }

    void expectRejectedRequestor(U8_t requestor) const {
        expectRejected(request(requestor, 216), "empRcvEventLogMsg(): Invalid MMSG requestor = [" +
                                                    std::to_string(requestor) + "]!!!\n");
    }

    /** A taken event whose copy fails in the middle. @return the output */
    std::string failedCopy(ssize_t result) {
        sendFails = true;
        sendResult = result;
        MMSG_t* mmsg = place(hello());
        return expectBugCheck(
            [mmsg] {
                signal(SIGABRT, [](int) {
                    dprintf(STDOUT_FILENO, "<sent %d>",
                            static_cast<int>(empControl.mmsgEventLogMsgSend));
                });
                empSendEventLogMsgToSmi(mmsg);
            },
            "empSendEventLogMsgToSmi", "Linux send function fails, sendSize = [221] is wrong");
    }
};

// --- Checks

TEST_F(EventLog, LengthOf216IsAnEventWithoutData) {
    expectAccepted(request(18, 216));
    EXPECT_EQ(logged(200 + 152, 2), (Bytes{0, 0})) << "evStructLength";
}

TEST_F(EventLog, LengthOf215IsRejected) {
    expectRejected(request(18, 215), "empRcvEventLogMsg(): MMSG mmsh_length [215] is out of range\n"
                                     "empRcvEventLogMsg(): MMSG requestor [18] sends wrong "
                                     "mmsg_length!!!\n");
}

TEST_F(EventLog, HeaderAloneIsRejected) {
    expectRejected(request(0, 64), "empRcvEventLogMsg(): MMSG mmsh_length [64] is out of range\n"
                                   "empRcvEventLogMsg(): MMSG requestor [0] sends wrong "
                                   "mmsg_length!!!\n");
}

TEST_F(EventLog, LargestEventIsTaken) {
    expectAccepted(request(18, 4064));
    EXPECT_EQ(logged(200 + 152, 2), (Bytes{0x0F, 0x08})) << "3848";
    EXPECT_EQ(logged(200 + 160, 3848), bytesAt(&request(18, 4064)[216], 3848));
}

TEST_F(EventLog, RequestorsUpTo34AreKnown) {
    for (int requestor : {0, 27, 33, 34}) {
        expectAccepted(request(static_cast<U8_t>(requestor), 216));
    }
}

TEST_F(EventLog, RequestorsFrom35OnAreRejected) {
    expectRejectedRequestor(35);
    expectRejectedRequestor(64);
    expectRejectedRequestor(255);
}

TEST_F(EventLog, RequestorIsCheckedBeforeTheLength) {
    expectRejected(request(35, 100), "empRcvEventLogMsg(): Invalid MMSG requestor = [35]!!!\n");
}

TEST_F(EventLog, ResponseBitIsNotLookedAt) {
    Bytes message = request(18, 216);
    message[17] = 0xC0;
    expectAccepted(message);
}

// --- What is stored and passed on

TEST_F(EventLog, RecordIsTheStampedEventBehindSignatureAndChecksum) {
    take(hello());
    EXPECT_EQ(logged(200, 165),
              joined({{0xB6, 0x8F, 1, 0}, {0x60, 0x6C, 0x0F, 0x8D}, stampedEvent()}));
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(empControl.empInstanceNumber, 9U);
    EXPECT_EQ(empControl.empEventInLogFile, 2U);
}

TEST_F(EventLog, CopyIsTheStampedEventInOurName) {
    Bytes message = hello();
    std::fill(message.begin() + 20, message.begin() + 36, U8_t{0xFF}); // both bitmaps
    Bytes header(message.begin(), message.begin() + 64);
    take(message);
    // The links, version, continuation, destination, padding and everything from the return code
    // on stay as they came.
    header[16] = 27;
    Bytes bits = {0x40, 0, 0, 0, 0, 0, 0, 0};
    std::copy(bits.begin(), bits.end(), header.begin() + 20);
    std::copy(bits.begin(), bits.end(), header.begin() + 28);
    EXPECT_EQ(msm_.receive(), joined({header, stampedEvent()}));
    EXPECT_EQ(empControl.mmsgEventLogMsgSend, 1U);
    EXPECT_FALSE(msmHasData()) << "one copy, and no reply";
}

TEST_F(EventLog, IdentityIsCopiedWholeNotAsText) {
    setText(empControl.empEnclosureId, std::string("A\0B", 3));
    memset(empControl.empBladeId, 'Z', 64);
    take(request(18, 216));
    EXPECT_EQ(logged(200 + 8, 64), textField(std::string("A\0B", 3)));
    EXPECT_EQ(logged(200 + 72, 64), Bytes(64, 'Z'));
}

TEST_F(EventLog, TypeCategoryVersionAndIdAreNotChecked) {
    Bytes message = request(18, 216);
    Bytes odd = {255, 0, 255, 255, 255};
    std::copy(odd.begin(), odd.end(), message.begin() + 211);
    take(message);
    EXPECT_EQ(logged(200 + 155, 5), odd);
    Bytes copy = msm_.receive();
    EXPECT_EQ(bytesAt(&copy[211], 5), odd);
}

TEST_F(EventLog, SecondsBeyond2038AreUnsigned) {
    if (sizeof(time_t) == 4) {
        fixedSeconds = -1; // how such a clock shows it
    } else {
        fixedSeconds = static_cast<time_t>(0xFFFFFFFFLL);
    }
    take(request(18, 216));
    EXPECT_EQ(logged(200 + 148, 4), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST_F(EventLog, DummyLookalikeIsStoredLikeAnyEvent) {
    Bytes message = request(27, 220);
    message[214] = 0;
    message[215] = 1;
    expectAccepted(message);
    EXPECT_EQ(eventEntryDatabase[1].evFlag, 1);
    EXPECT_EQ(eventEntryDatabase[1].evOffset, 200U);
}

TEST_F(EventLog, ArchiverIsLeftAloneWhileItsFlagIsClear) {
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    empControl.evManagerStatusFlag = 0xFFFE;
    empControl.empEventArchiverSequenceId = 0;
    std::string output = take(request(18, 216));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
    EXPECT_EQ(output.find("Send new arrival"), std::string::npos);
    EXPECT_EQ(output.find("socket is not open"), std::string::npos);
}

// --- Ids

TEST_F(EventLog, LastIdKeepsTheInstanceAndTheNextOneBeginsANewOne) {
    empControl.empSequenceId = 0xFFFFFFFF;
    std::string output = take(request(18, 216));
    EXPECT_NE(output.find(STAMP "empRcvEventLogMsg(): Tag Event with new Sequence ID [-1]\n"),
              std::string::npos);
    EXPECT_EQ(logged(200 + 140, 8), (Bytes{0, 0, 0, 9, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(empControl.empSequenceId, 0U);
    EXPECT_EQ(empControl.empInstanceNumber, 10U);
    take(request(18, 216));
    EXPECT_EQ(logged(360 + 140, 8), (Bytes{0, 0, 0, 10, 0, 0, 0, 0}));
    EXPECT_EQ(empControl.empSequenceId, 1U);
    EXPECT_EQ(empControl.empInstanceNumber, 10U);
}

TEST_F(EventLog, RejectedMessageInBetweenLeavesNoHoleInTheIds) {
    expectAccepted(request(18, 216));
    take(request(35, 216));
    take(request(18, 215));
    expectAccepted(request(18, 216));
    EXPECT_EQ(logged(360 + 144, 4), (Bytes{0, 0, 0, 2}));
}

// --- Lines

TEST_F(EventLog, LinesFrameTheAppend) {
    std::string output = take(hello());
    EXPECT_EQ(output.find(STAMP "empRcvEventLogMsg(): Tag Event with new Sequence ID [1]\n" STAMP
                                "empSaveEventLogMsgToLogFile(): "),
              0U);
    std::string end =
        stamped("empRcvEventLogMsg(): Call empSendEventLogMsgToSmi() to send the new Event to "
                "SMI.\n"
                "MMCH protocol            = [8]\n"
                "MMCH type                = [1]\n"
                "MMCH requestor           = [27]\n"
                "MMCH mmsg_cont           = [145]\n"
                "MMCH recipient_ob_bm     = [0x40000000]\n"
                "MMCH dest_ep             = [146]\n"
                "MMCH handle              = [-1465275733]\n"
                "MMCH general_use1        = [0x8]\n"
                "MMCH mmsg_length         = [221]\n"
                "MMCH return_code         = [-1532647769]\n"
                "< This is an Event LOG Message\n"
                "evEnclosureId            = [CHASSIS-7]\n"
                "evBladeId                = [BLADE-42]\n"
                "evSlotId                 = [3]\n"
                "evInstanceNumber         = [9]\n"
                "evSequenceId             = [1]\n"
                "evTime                   = [1698898176]\n"
                "evStructLength           = [5]\n"
                "evSource                 = [18]\n"
                "evType                   = [2]\n"
                "evCategory               = [4]\n"
                "evIdVersion              = [7]\n"
                "evId                     = [4660]\n"
                "evStruct                 = 0X\n") +
        "68656C6C 6F\n";
    ASSERT_GE(output.size(), end.size());
    EXPECT_EQ(output.substr(output.size() - end.size()), end);
}

// --- The copy's send

TEST_F(EventLog, CopyReturnsWhatWasSent) {
    MMSG_t* mmsg = place(hello());
    S32_t sent = 0;
    outputOf([&] { sent = empSendEventLogMsgToSmi(mmsg); });
    EXPECT_EQ(sent, 221);
}

TEST_F(EventLog, FailedCopyIsTheBugCheckOfLine5198) {
    std::string output = failedCopy(-1);
    EXPECT_NE(output.find("| Line:      5198\n"), std::string::npos);
    // The message's dump, the line feed of a dump without bytes, the report.
    EXPECT_NE(output.find("68656C6C 6F\n\n" STAMP "****"), std::string::npos);
    EXPECT_NE(output.find("<sent 1>"), std::string::npos) << "counted although it failed";
}

TEST_F(EventLog, ShortCopyIsDumpedAsFarAsItWent) {
    std::string output = failedCopy(8);
    EXPECT_NE(output.find("68656C6C 6F\n80818283 84858687 \n" STAMP "****"), std::string::npos);
}

TEST_F(EventLog, CopyToADeadPeerIsABugCheckNotASignal) {
    signal(SIGPIPE, SIG_IGN); // as main does
    msm_.close();
    MMSG_t* mmsg = place(hello());
    expectBugCheck([mmsg] { empRcvEventLogMsg(mmsg); }, "empSendEventLogMsgToSmi",
                   "Linux send function fails, sendSize = [221] is wrong");
    EXPECT_EQ(logged(200, 2), (Bytes{0xB6, 0x8F})) << "the event was stored before";
}

} // namespace
