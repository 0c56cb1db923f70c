#include "dispatch.h"

#include "emp_fixture.h"
#include "fixed_time_stamp.h"

#include <cstring>
#include <map>
#include <string>

using namespace support;

namespace {

int handled;
const MMSG_t* handledMessage;
U32_t countedBeforeHandler;

void stub(const char* name, const MMSG_t* mmsg, U32_t count) {
    handled++;
    handledMessage = mmsg;
    countedBeforeHandler = count;
    printf("<%s>\n", name);
}

} // namespace

// The handlers' places are taken by stubs.
extern "C" {

void __wrap__Z17empRcvEventLogMsgP6MMSG_s(MMSG_t* mmsg) {
    stub("log", mmsg, empControl.mmsgEventLogMsgReceive);
}

void __wrap__Z21empRcvEventInquiryMsgP6MMSG_s(MMSG_t* mmsg) {
    stub("inquiry", mmsg, empControl.mmsgEventInquiryMsgReceive);
}

void __wrap__Z25empRcvSetEventArchiverMsgP6MMSG_s(MMSG_t* mmsg) {
    stub("set", mmsg, empControl.mmsgEventSetEventArchiverReceive);
}

void __wrap__Z30empRcvGetEventManagerStatusMsgP6MMSG_s(MMSG_t* mmsg) {
    stub("status", mmsg, empControl.mmsgEventGetEventManagerStatusReceive);
}

void __wrap__Z26empRcvAlternateEventLogMsgP6MMSG_s(MMSG_t* mmsg) {
    stub("alternate", mmsg, empControl.mmsgEventAlternateEventLogMsgReceive);
}
}

namespace {

constexpr char OURS[] = "empProcEventMmsgMsg(): Receive a MMSG to the Event Manager\n";
constexpr char NOT_FOR_US[] = "empProcEventMmsgMsg(): Received a MMSG but it isn't for us?\n";

/** What the tests vary of a message; type 4 is the one that is only counted. */
struct Header {
    U8_t messageType = 14;
    U16_t length = 64;
    U32_t opcode = 0x08000004;
    U8_t requestor = 18;
    U8_t cont = 0;
    U32_t local[2] = {0x08000000, 0};
    U32_t other[2] = {0, 0};
};

void put32(U8_t* at, U32_t value) {
    for (int i = 0; i < 4; i++) {
        at[i] = static_cast<U8_t>(value >> (24 - 8 * i));
    }
}

Bytes messageOf(const Header& header) {
    Bytes bytes(64);
    bytes[8] = header.messageType;
    bytes[9] = 1;
    bytes[10] = static_cast<U8_t>(header.length >> 8);
    bytes[11] = static_cast<U8_t>(header.length);
    put32(&bytes[12], header.opcode);
    bytes[16] = header.requestor;
    bytes[17] = header.cont;
    put32(&bytes[20], header.local[0]);
    put32(&bytes[24], header.local[1]);
    put32(&bytes[28], header.other[0]);
    put32(&bytes[32], header.other[1]);
    return bytes;
}

/** The header's part of a message's dump. */
std::string headerDump(const Header& header) {
    char text[1000];
    snprintf(text, sizeof(text),
             "MMCH protocol            = [%d]\n"
             "MMCH type                = [%d]\n"
             "MMCH requestor           = [%d]\n"
             "MMCH mmsg_cont           = [%d]\n"
             "MMCH recipient_ob_bm     = [0x%x]\n"
             "MMCH dest_ep             = [0]\n"
             "MMCH handle              = [0]\n"
             "MMCH general_use1        = [0x%X]\n"
             "MMCH mmsg_length         = [%d]\n"
             "MMCH return_code         = [0]\n",
             static_cast<int>(header.opcode >> 24), static_cast<int>(header.opcode & 0xFFFFFFU),
             header.requestor, header.cont, header.other[0], header.opcode >> 24, header.length);
    return text;
}

constexpr char DUMP_OF_TYPE_4[] = "< This is a Get Event Archiver Message\n"
                                  "The Event Manager shall not receive this type of Messages.\n";
constexpr char DUMP_OF_UNKNOWN_TYPE[] = "< This is an Unknown Event Message\n";
constexpr char TYPE_4_LINE[] = "EMP does not support Get Event Archiver Message.\n";

using Counters_t = std::map<std::string, U32_t>;

Counters_t counters() {
    return {{"1", empControl.mmsgEventLogMsgReceive},
            {"2", empControl.mmsgEventInquiryMsgReceive},
            {"3", empControl.mmsgEventSetEventArchiverReceive},
            {"4", empControl.mmsgEventGetEventArchiverReceive},
            {"5", empControl.mmsgEventGetEventManagerStatusReceive},
            {"6", empControl.mmsgEventGetEventArchiverStatusReceive},
            {"7", empControl.mmsgEventAlternateEventLogMsgReceive},
            {"unknown", empControl.mmsgEventUnknownMsgReceive}};
}

/** All counters at 0 but one. */
Counters_t only(const std::string& name) {
    Counters_t expected = {{"1", 0}, {"2", 0}, {"3", 0}, {"4", 0},
                           {"5", 0}, {"6", 0}, {"7", 0}, {"unknown", 0}};
    expected[name] = 1;
    return expected;
}

class Dispatch : public EmpTest {
  protected:
    static std::string dispatch(const Header& header) {
        MMSG_t* msg = place(messageOf(header));
        return outputOf([msg] { empProcEventMmsgMsg(msg); });
    }

    /** Expects that a type-4 message of this header passes all checks. */
    static void expectTaken(const Header& header) {
        EXPECT_EQ(dispatch(header), stamped(std::string(OURS) + TYPE_4_LINE));
        EXPECT_EQ(counters(), only("4"));
    }

    /** Expects that a message is dropped with these lines and its dump, and nothing else happens.
     */
    void expectDropped(const Header& header, const std::string& lines) const {
        static EmpControl_t before;
        MMSG_t* msg = place(messageOf(header));
        memcpy(static_cast<void*>(&before), &empControl, sizeof(before));
        std::string output = outputOf([msg] { empProcEventMmsgMsg(msg); });
        EXPECT_EQ(output, stamped(lines + headerDump(header) + DUMP_OF_TYPE_4));
        EXPECT_EQ(memcmp(&before, &empControl, sizeof(before)), 0) << "no counter, no byte of it";
        EXPECT_FALSE(msmHasData());
    }

    void expectBadLength(U16_t length) const {
        Header header;
        header.length = length;
        header.requestor = 200;
        expectDropped(header, "empProcEventMmsgMsg(): MMSG mmsh_length [" + std::to_string(length) +
                                  "] is out of range\n"
                                  "empProcEventMmsgMsg(): MMSG requestor [200] sends wrong "
                                  "mmsg_length!!!\n");
    }

    /** Expects that a message is counted, handed over and reported with @p line, in this order. */
    static void expectHandled(U32_t type, const std::string& handler, const std::string& line) {
        Header header;
        header.opcode = 0x08000000 | type;
        EXPECT_EQ(dispatch(header), stamped(OURS) + "<" + handler + ">\n" + stamped(line));
        EXPECT_EQ(counters(), only(std::to_string(type)));
        EXPECT_EQ(handled, 1);
        EXPECT_EQ(countedBeforeHandler, 1U);
        EXPECT_EQ(handledMessage, reinterpret_cast<MMSG_t*>(empControl.empInMsg));
    }

    static void expectUnknown(U32_t type) {
        Header header;
        header.opcode = 0x08000000 | type;
        EXPECT_EQ(dispatch(header),
                  stamped(std::string(OURS) +
                          "empProcEventMmsgMsg(): EMP receives unknown Msg Type.\n" +
                          headerDump(header) + DUMP_OF_UNKNOWN_TYPE));
        EXPECT_EQ(counters(), only("unknown"));
    }
};

// --- Length

TEST_F(Dispatch, LengthOf63IsDropped) {
    expectBadLength(63);
}

TEST_F(Dispatch, LengthOf64IsTaken) {
    expectTaken({});
}

TEST_F(Dispatch, LengthOf4064IsTaken) {
    Header header;
    header.length = 4064;
    expectTaken(header);
}

TEST_F(Dispatch, LengthOf4065IsDropped) {
    expectBadLength(4065);
}

TEST_F(Dispatch, LengthsAtTheEndsOfTheRangeAreDropped) {
    expectBadLength(0);
    expectBadLength(65535);
}

TEST_F(Dispatch, LengthIsCheckedFirst) {
    Header header;
    header.length = 63;
    header.local[0] = 0;
    header.opcode = 0x0C000004;
    expectDropped(header, "empProcEventMmsgMsg(): MMSG mmsh_length [63] is out of range\n"
                          "empProcEventMmsgMsg(): MMSG requestor [18] sends wrong "
                          "mmsg_length!!!\n");
}

// --- Recipient

TEST_F(Dispatch, MessageForTheStartupProcessIsNotForUs) {
    Header header;
    header.local[0] = 0x00040000;
    expectDropped(header, NOT_FOR_US);
}

TEST_F(Dispatch, OurBitAmongTheOtherBladesRecipientsIsEnough) {
    Header header;
    header.local[0] = 0x00040000;
    header.other[0] = 0x08000000;
    expectTaken(header);
}

TEST_F(Dispatch, EveryBitButOursIsNotForUs) {
    Header header;
    header.local[0] = header.other[0] = 0xF7FFFFFF;
    header.local[1] = header.other[1] = 0xFFFFFFFF;
    expectDropped(header, NOT_FOR_US);
}

TEST_F(Dispatch, OurBitNumberInTheSecondWordsDoesNotCount) {
    Header header;
    header.local[0] = 0;
    header.local[1] = header.other[1] = 0x08000000;
    expectDropped(header, NOT_FOR_US);
}

TEST_F(Dispatch, OtherTransportTypesNeedNoRecipient) {
    for (int type : {0, 13, 15, 255}) {
        empControl.mmsgEventGetEventArchiverReceive = 0;
        Header header;
        header.messageType = static_cast<U8_t>(type);
        header.local[0] = 0;
        expectTaken(header);
    }
}

TEST_F(Dispatch, RecipientIsCheckedBeforeTheProtocol) {
    Header header;
    header.local[0] = 0;
    header.opcode = 0x0C000004;
    expectDropped(header, NOT_FOR_US);
}

// --- Protocol

TEST_F(Dispatch, StartupProtocolIsInvalid) {
    Header header;
    header.opcode = 0x0C000004;
    expectDropped(header, "empProcEventMmsgMsg(): Invalid MMSG protocol [12]\n");
}

TEST_F(Dispatch, NeighboursAndEndsOfTheProtocolsAreInvalid) {
    for (U32_t protocol : {0U, 7U, 9U, 128U, 255U}) {
        Header header;
        header.opcode = protocol << 24 | 4;
        expectDropped(header, "empProcEventMmsgMsg(): Invalid MMSG protocol [" +
                                  std::to_string(protocol) + "]\n");
    }
}

TEST_F(Dispatch, ProtocolIsCheckedForOtherTransportTypesToo) {
    Header header;
    header.messageType = 1;
    header.opcode = 0x01000004;
    expectDropped(header, "empProcEventMmsgMsg(): Invalid MMSG protocol [1]\n");
}

// --- Types

TEST_F(Dispatch, EventIsCountedThenHandledThenReported) {
    expectHandled(1, "log", "EMP completes Event Log Message processing.\n");
}

TEST_F(Dispatch, InquiryIsCountedThenHandledThenReported) {
    expectHandled(2, "inquiry", "EMP completes Event Inquiry Message processing.\n");
}

TEST_F(Dispatch, SetEventArchiverIsCountedThenHandledThenReported) {
    expectHandled(3, "set", "EMP completes Set Event Archiver Message processing.\n");
}

TEST_F(Dispatch, GetEventManagerStatusIsCountedThenHandledThenReported) {
    expectHandled(5, "status", "EMP completes Get Event Manager Status Message processing.\n");
}

TEST_F(Dispatch, AlternateEventHasNoCompletionLine) {
    expectHandled(7, "alternate", "");
}

TEST_F(Dispatch, ResponseBitDoesNotKeepAnEventOut) {
    Header header;
    header.opcode = 0x08000001;
    header.cont = 0xC0;
    dispatch(header);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(empControl.mmsgEventLogMsgReceive, 1U);
}

TEST_F(Dispatch, UnknownEndpointIsNoMatterHere) {
    Header header;
    header.opcode = 0x08000001;
    header.requestor = 255;
    dispatch(header);
    EXPECT_EQ(handled, 1);
}

TEST_F(Dispatch, GetEventArchiverOnlyCountsAndPrints) {
    expectTaken({});
    EXPECT_FALSE(msmHasData());
}

TEST_F(Dispatch, GetEventArchiverStatusOnlyCountsAndPrints) {
    Header header;
    header.opcode = 0x08000006;
    EXPECT_EQ(dispatch(header),
              stamped(std::string(OURS) + "EMP shall not receive Get Event Archiver Message with "
                                          "MMSG format.\n"));
    EXPECT_EQ(counters(), only("6"));
    EXPECT_FALSE(msmHasData());
}

TEST_F(Dispatch, TypesOutsideOneToSevenAreUnknown) {
    for (U32_t type : {0U, 8U, 255U}) {
        empControl.mmsgEventUnknownMsgReceive = 0;
        expectUnknown(type);
    }
    EXPECT_FALSE(msmHasData());
    EXPECT_EQ(handled, 0);
}

TEST_F(Dispatch, TypeIsAll24Bits) {
    // The low byte alone would be a known type; 0x0100 and 0x010000 alone would be lost.
    for (U32_t type : {0x010001U, 0x000101U, 0x010004U, 0x800001U, 0xFFFFFFU}) {
        empControl.mmsgEventUnknownMsgReceive = 0;
        expectUnknown(type);
    }
    EXPECT_EQ(handled, 0);
}

TEST_F(Dispatch, CountersWrapAround) {
    empControl.mmsgEventUnknownMsgReceive = 0xFFFFFFFF;
    Header header;
    header.opcode = 0x08000008;
    dispatch(header);
    EXPECT_EQ(empControl.mmsgEventUnknownMsgReceive, 0U);
}

} // namespace
