#include "archiver/message.h"

#include "link_bench.h"

namespace {

class ArchiverMessage : public LinkTest {
  protected:
    /** Its lines. */
    static std::string process(const Bytes& message) {
        return linesOf([&] { empProcEventArchiverMsg(receivedFromArchiver(message)); });
    }
    static U32_t counted() {
        return empControl.EAmsgEventLogMsgReceive + empControl.EAmsgEventInquiryMsgReceive +
               empControl.EAmsgEventInquiryMsgInvalid +
               empControl.EAmsgEventSetEventArchiverReceive +
               empControl.EAmsgEventGetEventArchiverReceive +
               empControl.EAmsgEventGetEventManagerStatusReceive +
               empControl.EAmsgEventGetEventArchiverStatusReceive +
               empControl.EAmsgEventUnknownMsgReceive;
    }
};

constexpr char ACCEPTED[] =
    "empProcEventArchiverMsg(): Receive an Event Archiver Message to the Event Manager\n"
    "<archiver message>\n";

TEST_F(ArchiverMessage, VersionOtherThanOneIsDropped) {
    for (unsigned version : {0U, 2U, 0x0100U, 65535U}) {
        EXPECT_EQ(process(archiverMessage(6, statusBody(0, 0), 1, 0, 2, version)),
                  "empProcEventArchiverMsg(): Event Archiver Msg Header version [" +
                      std::to_string(version) + "] is not supported\n");
    }
    EXPECT_EQ(counted(), 0U);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CLOSE);
}

TEST_F(ArchiverMessage, BodyOf4064IsAcceptedAndOf4065Dropped) {
    Bytes header = {0, 1, 0x0F, 0xE0, 0, 7, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0};
    EXPECT_EQ(process(header), ACCEPTED);
    header[3] = 0xE1;
    EXPECT_EQ(process(header),
              "empProcEventArchiverMsg(): Event Archiver Message length [4065] is out of range\n");
    header[2] = header[3] = 0xFF;
    EXPECT_EQ(process(header),
              "empProcEventArchiverMsg(): Event Archiver Message length [65535] is out of range\n");
    EXPECT_EQ(counted(), 1U);
}

TEST_F(ArchiverMessage, FlagOtherThanResponseIsDroppedWhateverTheType) {
    for (unsigned type = 0; type < 9; type++) {
        EXPECT_EQ(process(archiverMessage(type, {}, 1, 0, 1)),
                  "empProcEventArchiverMsg(): Event Archiver Message flag [1] is not RESPONSE\n");
        EXPECT_EQ(process(archiverMessage(type, {}, 1, 0, 3)),
                  "empProcEventArchiverMsg(): Event Archiver Message flag [3] is not RESPONSE\n");
    }
    EXPECT_EQ(counted(), 0U);
}

TEST_F(ArchiverMessage, VersionIsJudgedBeforeLengthBeforeFlag) {
    EXPECT_THAT(process({0, 2, 0xFF, 0xFF, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}),
                testing::HasSubstr("version [2]"));
    EXPECT_THAT(process({0, 1, 0xFF, 0xFF, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}),
                testing::HasSubstr("length [65535]"));
}

TEST_F(ArchiverMessage, AnswerIsCountedAndHandedOver) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EvMsgRecordEntry_t* entry = empEvMsgTake({1, "test"});
    entry->handle = 77;
    empEvMsgPush(&EvMsgRecordResponseList, entry);
    Bytes body(152, 0);
    EXPECT_THAT(
        process(archiverMessage(1, body, 2, 77)),
        testing::StartsWith(std::string(ACCEPTED) + "empRcvEventLogMsgFromEventArchiver(): "));
    EXPECT_EQ(empControl.EAmsgEventLogMsgReceive, 1U);
    EXPECT_EQ(sentTo(MSM_SOCKET).size(), 1U);
}

TEST_F(ArchiverMessage, AnswerShorterThanAnEventReadsAsZero) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EvMsgRecordEntry_t* entry = empEvMsgTake({1, "test"});
    entry->evInquiryType = 1;
    empEvMsgPush(&EvMsgRecordResponseList, entry);
    process(archiverMessage(1, {}, 2, 0));
    Bytes reply = replyHeader(2, 216, 2, 0, 0, 0, 1);
    putZeros(reply, 152);
    EXPECT_THAT(sentTo(MSM_SOCKET), testing::ElementsAre(reply));
}

TEST_F(ArchiverMessage, StatusResponseIsCountedAndHandedOver) {
    storeRange(0, 1);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_THAT(process(archiverMessage(6, statusBody(0, 0))),
                testing::StartsWith(std::string(ACCEPTED) + "empRcvGetEventArchiverStatusMsg(): "));
    EXPECT_EQ(empControl.EAmsgEventGetEventArchiverStatusReceive, 1U);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
}

TEST_F(ArchiverMessage, RequestsOfTheEventManagerAreCountedAndRefused) {
    EXPECT_EQ(process(archiverMessage(2, {})),
              std::string(ACCEPTED) +
                  "EMP shall not receive Event Inquiry Message with Event Archiver Msg format.\n");
    EXPECT_EQ(
        process(archiverMessage(3, {})),
        std::string(ACCEPTED) +
            "EMP shall not receive Set Event Archiver Message with Event Archiver Msg format.\n");
    EXPECT_EQ(process(archiverMessage(4, {})),
              std::string(ACCEPTED) + "EMP does not support Get Event Archiver Message.\n");
    EXPECT_EQ(
        process(archiverMessage(5, {})),
        std::string(ACCEPTED) +
            "EMP shall not receive Get Event Manager Status Message with Event Archiver Msg format.\n");
    EXPECT_EQ(empControl.EAmsgEventInquiryMsgReceive, 1U);
    EXPECT_EQ(empControl.EAmsgEventSetEventArchiverReceive, 1U);
    EXPECT_EQ(empControl.EAmsgEventGetEventArchiverReceive, 1U);
    EXPECT_EQ(empControl.EAmsgEventGetEventManagerStatusReceive, 1U);
    EXPECT_EQ(counted(), 4U);
}

TEST_F(ArchiverMessage, UnknownTypesAreOnlyCounted) {
    for (unsigned type : {0U, 7U, 8U, 0x0101U, 65535U}) {
        EXPECT_EQ(process(archiverMessage(type, {})), ACCEPTED);
    }
    EXPECT_EQ(empControl.EAmsgEventUnknownMsgReceive, 5U);
    EXPECT_EQ(counted(), 5U);
    EXPECT_TRUE(bench.sends.empty());
}

} // namespace
