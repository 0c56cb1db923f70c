#include "requests/alternate_event_log.h"

#include "dispatch.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"
#include "store/scan.h"

#include <cstring>
#include <sys/socket.h>

using namespace support;

namespace {

std::vector<U32_t> sentToArchiver;
S32_t archiverResult;
int queueDrained;

} // namespace

extern "C" {

S32_t __wrap__Z30empSendEventLogToEventArchiverj(U32_t sequenceId) {
    sentToArchiver.push_back(sequenceId);
    return archiverResult;
}

void __wrap__Z33empSendForwardListToEventArchiverv() {
    queueDrained++;
}
}

namespace {

/** An alternate event of another blade: 5 bytes of data from source 20. */
Bytes message(U16_t structLength = 5, U16_t length = 221) {
    Bytes mmch(64);
    mmch[8] = 14;
    mmch[9] = 1;
    mmch[10] = static_cast<U8_t>(length >> 8);
    mmch[11] = static_cast<U8_t>(length);
    mmch[12] = 8;
    mmch[15] = 7;
    mmch[16] = 33; // requestor
    mmch[20] = 0x08;
    mmch[43] = 0x77; // handle
    Bytes bytes = joined({mmch,
                          textField("Other-Enclosure"),
                          textField("Other-Blade"),
                          {0, 0, 1, 7},             // evSlotId
                          {0xAA, 0xAA, 0xAA, 0xAA}, // evInstanceNumber
                          {0xBB, 0xBB, 0xBB, 0xBB}, // evSequenceId
                          {0x01, 0x02, 0x03, 0x04}, // evTime
                          {static_cast<U8_t>(structLength >> 8), static_cast<U8_t>(structLength)},
                          {20}, // evSource
                          {2, 4, 7, 0x12, 0x34},
                          {'h', 'e', 'l', 'l', 'o'}});
    bytes.resize(std::max<size_t>(bytes.size(), length));
    return bytes;
}

/** Its event as it is stored and passed on: instance 9, sequence id 1. */
Bytes storedEvent(U16_t structLength = 5) {
    Bytes all = message(structLength);
    Bytes event(all.begin() + 64, all.begin() + 216 + structLength);
    Bytes numbers = {0, 0, 0, 9, 0, 0, 0, 1};
    std::copy(numbers.begin(), numbers.end(), event.begin() + 132);
    return event;
}

class AlternateEventLog : public EmpTest {
  protected:
    AlternateEventLog() {
        outputOf([] { empScanEventLogFile(); });
        empControl.empInstanceNumber = 9;
    }

    std::string log() const { return readFile(directory_.file("kelta_eventlog")); }
    Bytes logged(size_t offset, size_t count) const {
        return bytesAt(log().substr(offset, count).data(), count);
    }
    static std::string take(const Bytes& bytes) {
        MMSG_t* mmsg = place(bytes);
        return outputOf([mmsg] { empRcvAlternateEventLogMsg(mmsg); });
    }
    void expectRejected(const Bytes& bytes, const std::string& lines) const {
        std::string file = log();
        MMSG_t* mmsg = place(bytes);
        Bytes before = bytesAt(&empControl, sizeof(empControl));
        std::string output = outputOf([mmsg] { empRcvAlternateEventLogMsg(mmsg); });
        EXPECT_EQ(output.find(stamped(lines + "MMCH protocol            = [8]\n")), 0U) << output;
        EXPECT_NE(output.find(STAMP "< This is an Alternate Event LOG Message\n"),
                  std::string::npos);
        EXPECT_TRUE(bytesAt(&empControl, sizeof(empControl)) == before) << "no id, no counter";
        EXPECT_EQ(log(), file);
        EXPECT_FALSE(msmHasData()) << "no reply, no copy";
    }
    static std::string badLength(int length, int requestor = 33) {
        return "empRcvAlternateEventLogMsg(): MMSG mmsh_length [" + std::to_string(length) +
               "] is out of range\n"
               "empRcvAlternateEventLogMsg(): MMSG requestor [" +
               std::to_string(requestor) + "] sends wrong mmsg_length!!!\n";
    }
    static void openLink(U16_t state) {
        empControl.evManagerStatusFlag = 1;
        empControl.evArchiverSocketState = state;
    }
};

// --- What is stored and passed on

TEST_F(AlternateEventLog, OnlyInstanceAndIdAreNew) {
    take(message());
    EXPECT_EQ(logged(200, 4), (Bytes{0xB6, 0x8F, 1, 0}));
    EXPECT_EQ(logged(208, 157), storedEvent());
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(empControl.empEventInLogFile, 2U);
}

TEST_F(AlternateEventLog, CopyIsTheStoredEventInOurName) {
    Bytes mmch = message();
    mmch.resize(64);
    take(message());
    mmch[16] = 27;
    mmch[20] = 0x40;
    mmch[28] = 0x40;
    EXPECT_EQ(msm_.receive(), joined({mmch, storedEvent()}));
    EXPECT_EQ(empControl.mmsgEventLogMsgSend, 1U);
    EXPECT_FALSE(msmHasData());
}

TEST_F(AlternateEventLog, NoLineStandsBeforeTheCopy) {
    std::string output = take(message());
    EXPECT_EQ(output.find(STAMP
                          "empRcvAlternateEventLogMsg(): Tag Event with new Sequence ID [1]\n" STAMP
                          "empSaveEventLogMsgToLogFile(): "),
              0U);
    EXPECT_EQ(output.find("empRcvAlternateEventLogMsg(): ", 20 + strlen(STAMP)), std::string::npos);
    EXPECT_EQ(output.find("empSendEventLogMsgToSmi"), std::string::npos);
}

TEST_F(AlternateEventLog, FewerDataThanTheMessageHoldsAreTakenAsAnnounced) {
    take(message(2, 221));
    EXPECT_EQ(logged(352, 2), (Bytes{0, 2}));
    EXPECT_EQ(logged(360, 2), (Bytes{'h', 'e'}));
    EXPECT_EQ(logged(362, 2), (Bytes{0xB6, 0x8F})) << "the dummy entry behind it";
    EXPECT_EQ(msm_.receive().size(), 221U) << "the copy is as long as the message";
}

TEST_F(AlternateEventLog, EventWithoutDataIsTaken) {
    take(message(0, 216));
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(logged(352, 2), (Bytes{0, 0}));
}

TEST_F(AlternateEventLog, LargestEventIsTaken) {
    take(message(3848, 4064));
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(logged(352, 2), (Bytes{0x0F, 0x08}));
}

TEST_F(AlternateEventLog, LastIdKeepsTheInstanceAndTheNextOneBeginsANewOne) {
    empControl.empSequenceId = 0xFFFFFFFF;
    EXPECT_NE(take(message()).find("Tag Event with new Sequence ID [-1]\n"), std::string::npos);
    EXPECT_EQ(logged(340, 8), (Bytes{0, 0, 0, 9, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(empControl.empSequenceId, 0U);
    EXPECT_EQ(empControl.empInstanceNumber, 10U);
}

// --- What is refused

TEST_F(AlternateEventLog, RequestorsFrom35OnAreRejected) {
    for (int requestor : {35, 64, 255}) {
        Bytes bytes = message();
        bytes[16] = static_cast<U8_t>(requestor);
        expectRejected(bytes, "empRcvAlternateEventLogMsg(): Invalid MMSG requestor = [" +
                                  std::to_string(requestor) + "]!!!\n");
    }
}

TEST_F(AlternateEventLog, LengthOf215IsRejected) {
    expectRejected(message(0, 215), badLength(215));
    expectRejected(message(0, 64), badLength(64));
}

TEST_F(AlternateEventLog, DataThatTheMessageDoesNotHoldAreRejected) {
    expectRejected(message(6, 221), badLength(221));
    expectRejected(message(1, 216), badLength(216));
    expectRejected(message(3849, 4064), badLength(4064));
    // In 16 bits this sum would be 215.
    expectRejected(message(65535, 221), badLength(221));
    expectRejected(message(65320, 221), badLength(221));
}

TEST_F(AlternateEventLog, SourcesUpTo34AreKnown) {
    Bytes bytes = message();
    bytes[210] = 34;
    take(bytes);
    EXPECT_EQ(empControl.empSequenceId, 2U);
    bytes[210] = 0;
    take(bytes);
    EXPECT_EQ(empControl.empSequenceId, 3U);
}

TEST_F(AlternateEventLog, SourcesFrom35OnAreRejectedAsRequestors) {
    for (int source : {35, 255}) {
        Bytes bytes = message();
        bytes[210] = static_cast<U8_t>(source);
        expectRejected(bytes, "empRcvAlternateEventLogMsg(): Invalid MMSG requestor = [" +
                                  std::to_string(source) + "]!!!\n");
    }
}

TEST_F(AlternateEventLog, ChecksComeInTheirOrder) {
    Bytes bytes = message(6, 221);
    bytes[210] = 99; // source
    expectRejected(bytes, badLength(221));
    bytes[16] = 98; // requestor
    expectRejected(bytes, "empRcvAlternateEventLogMsg(): Invalid MMSG requestor = [98]!!!\n");
}

// --- The archiver

TEST_F(AlternateEventLog, ArchiverUpToDateGetsTheEventItself) {
    openLink(3);
    empControl.empEventArchiverSequenceId = 0;
    std::string output = take(message());
    EXPECT_EQ(sentToArchiver, std::vector<U32_t>{1});
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 1U);
    EXPECT_NE(output.find(STAMP "empRcvAlternateEventLogMsg(): Send new arrival Event Entry with "
                                "Sequence Id = [1]\n"),
              std::string::npos);
}

TEST_F(AlternateEventLog, CursorStaysWhenTheEventWasNotTaken) {
    openLink(3);
    archiverResult = -1;
    take(message());
    EXPECT_EQ(sentToArchiver, std::vector<U32_t>{1});
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
    EXPECT_EQ(msm_.receive().size(), 221U) << "the copy goes out all the same";
}

TEST_F(AlternateEventLog, LinkThatIsNotOpenGetsNothing) {
    openLink(2);
    std::string output = take(message());
    EXPECT_NE(output.find(STAMP "empRcvAlternateEventLogMsg(): Event Archiver is connected but "
                                "socket is not open for Event Log yet?!.\n"),
              std::string::npos);
    EXPECT_TRUE(sentToArchiver.empty());
}

TEST_F(AlternateEventLog, FullLinkIsDrained) {
    openLink(4);
    take(message());
    EXPECT_EQ(queueDrained, 1);
    EXPECT_TRUE(sentToArchiver.empty());
}

TEST_F(AlternateEventLog, ClearFlagLeavesTheArchiverAlone) {
    openLink(3);
    empControl.evManagerStatusFlag = 0xFFFE;
    take(message());
    EXPECT_TRUE(sentToArchiver.empty());
}

// --- Dispatch

TEST_F(AlternateEventLog, DispatchCountsItAndPrintsNoCompletionLine) {
    MMSG_t* mmsg = place(message());
    std::string output = outputOf([mmsg] { empProcEventMmsgMsg(mmsg); });
    EXPECT_EQ(empControl.mmsgEventAlternateEventLogMsgReceive, 1U);
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(output.substr(output.size() - 12), "68656C6C 6F\n");
}

} // namespace
