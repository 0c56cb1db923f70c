#include "diag/message_dump.h"

#include "fixed_time_stamp.h"
#include "state/control.h"

#include <gtest/gtest.h>

#include <array>

namespace {

/** A message under construction: offsets and bytes, independent of the structures. */
using Message = std::array<U8_t, 4080>;

void put(Message& message, size_t offset, std::initializer_list<int> bytes) {
    for (int byte : bytes) {
        message.at(offset++) = static_cast<U8_t>(byte);
    }
}

void putText(Message& message, size_t offset, const std::string& text) {
    memcpy(&message.at(offset), text.data(), text.size());
}

/** An event header of 152 bytes, every field with a value of its own. */
void putEvent(Message& message, size_t offset) {
    putText(message, offset, "Enclosure-7");
    putText(message, offset + 64, "Blade-7");
    put(message, offset + 128, {0x00, 0x00, 0x01, 0x02}); // slot 258
    put(message, offset + 132, {0x00, 0x00, 0x00, 0x03}); // instance 3
    put(message, offset + 136, {0x80, 0x00, 0x00, 0x00}); // sequence id 2^31
    put(message, offset + 140, {0xFF, 0xFF, 0xFF, 0xFE}); // time
    put(message, offset + 144, {0x00, 0x05});             // data length as the header says it
    put(message, offset + 146, {0xC8, 0x02, 0xFF, 0x80}); // source, type, category, version
    put(message, offset + 150, {0xAB, 0xCD});             // id
    put(message, offset + 152, {0xB6, 0x8F, 0x01, 0x00, 0x7F});
}

const char EVENT_FIELDS[] = "evEnclosureId            = [Enclosure-7]\n"
                            "evBladeId                = [Blade-7]\n"
                            "evSlotId                 = [258]\n"
                            "evInstanceNumber         = [3]\n"
                            "evSequenceId             = [-2147483648]\n"
                            "evTime                   = [-2]\n"
                            "evStructLength           = [5]\n"
                            "evSource                 = [200]\n"
                            "evType                   = [2]\n"
                            "evCategory               = [255]\n"
                            "evIdVersion              = [128]\n"
                            "evId                     = [43981]\n";
const char DATA[] = STAMP "evStruct                 = 0X\n";

/** An MMCH of protocol 8 whose every printed field has a value of its own. */
Message mmsg(int type, int length, int cont = 0x81) {
    Message message = {};
    put(message, 8, {14, 1, length >> 8, length & 0xFF});
    put(message, 12, {8, 0, 0, type});
    put(message, 16, {35, cont, 18, 0});
    put(message, 20, {0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22});
    put(message, 28, {0xC8, 0x00, 0x00, 0x0B, 0x33, 0x33, 0x33, 0x33});
    put(message, 36, {0x00, 0x00, 0x00, 0x02}); // return_code
    put(message, 40, {0xFF, 0xFF, 0xFF, 0xFF}); // handle
    put(message, 44, {0x44, 0x44, 0x44, 0x44}); // general_use1
    return message;
}

std::string mmch(int type, int length, int cont = 0x81) {
    return stamped("MMCH protocol            = [8]\n"
                   "MMCH type                = [" +
                   std::to_string(type) +
                   "]\n"
                   "MMCH requestor           = [35]\n"
                   "MMCH mmsg_cont           = [" +
                   std::to_string(cont) +
                   "]\n"
                   "MMCH recipient_ob_bm     = [0xc800000b]\n"
                   "MMCH dest_ep             = [18]\n"
                   "MMCH handle              = [-1]\n"
                   "MMCH general_use1        = [0x8]\n"
                   "MMCH mmsg_length         = [" +
                   std::to_string(length) +
                   "]\n"
                   "MMCH return_code         = [2]\n");
}

Message archiverMsg(int type, int bodyLength, int flag = 2) {
    Message message = {};
    put(message, 0, {0, 1, bodyLength >> 8, bodyLength & 0xFF});
    put(message, 4, {type >> 8, type & 0xFF, flag >> 8, flag & 0xFF});
    put(message, 8, {0, 0, 0, 3});
    put(message, 12, {0xFF, 0xFF, 0xFC, 0x18}); // handle -1000
    return message;
}

std::string archiverHeader(int type, int bodyLength, int flag = 2) {
    return stamped("evArchiverMsg Header Version = [1]\n"
                   "evArchiverMsg Body Length    = [" +
                   std::to_string(bodyLength) +
                   "]\n"
                   "evArchiverMsg Msg Type       = [" +
                   std::to_string(type) +
                   "]\n"
                   "evArchiverMsg Msg Flag       = [" +
                   std::to_string(flag) +
                   "]\n"
                   "evArchiverMsg Return Code    = [3]\n"
                   "evArchiverMsg Handle         = [-1000]\n");
}

/** A status body of 176 bytes whose oldest record has @p structLength data bytes. */
void putStatus(Message& message, size_t offset, int structLength) {
    putText(message, offset, "Enclosure-7");
    putText(message, offset + 64, "Blade-7");
    put(message, offset + 128, {0, 0, 0, 12});
    put(message, offset + 132, {0, 0, 0, 13});
    put(message, offset + 136, {0, 0, 0, 14});
    put(message, offset + 140, {structLength >> 8, structLength & 0xFF, 0xEE, 0xEE});
    putText(message, offset + 144, "ABCDEFGHIJKLMNOPQRSTUVWX");
    put(message, offset + 168, {0xFF, 0xFF, 0xFF, 0xFF});
    put(message, offset + 172, {0, 0, 0, 2});
}

class MessageDump : public testing::Test {
  protected:
    void SetUp() override { empControl.empDebug = 1; }

    static std::string printed(const Message& message) {
        testing::internal::CaptureStdout();
        empMmsgPrint(reinterpret_cast<const MMSG_t*>(message.data()));
        return testing::internal::GetCapturedStdout();
    }
    static std::string printedArchiver(const Message& message) {
        testing::internal::CaptureStdout();
        empEvArchiverMsgPrint(reinterpret_cast<const EmpEvArchiverMsg_t*>(message.data()));
        return testing::internal::GetCapturedStdout();
    }
};

using MmsgPrint = MessageDump;
using ArchiverMsgPrint = MessageDump;
using RecordPrint = MessageDump;

// --- Local messages ------------------------------------------------------------------------------

TEST_F(MmsgPrint, Event) {
    Message message = mmsg(1, 221);
    putEvent(message, 64);
    EXPECT_EQ(printed(message), mmch(1, 221) + stamped("< This is an Event LOG Message\n") +
                                    stamped(EVENT_FIELDS) + DATA + "B68F0100 7F\n");
}

TEST_F(MmsgPrint, AlternateEvent) {
    Message message = mmsg(7, 218);
    putEvent(message, 64);
    EXPECT_EQ(printed(message), mmch(7, 218) +
                                    stamped("< This is an Alternate Event LOG Message\n") +
                                    stamped(EVENT_FIELDS) + DATA + "B68F\n");
}

TEST_F(MmsgPrint, DataIsCutAt64Bytes) {
    Message message = mmsg(1, 4064);
    putEvent(message, 64);
    EXPECT_EQ(printed(message),
              mmch(1, 4064) + stamped("< This is an Event LOG Message\n") + stamped(EVENT_FIELDS) +
                  DATA +
                  "B68F0100 7F000000 00000000 00000000 00000000 00000000 00000000 00000000\n"
                  "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000\n\n\n");
}

TEST_F(MmsgPrint, DataLengthBelowZeroPrintsAnEmptyDump) {
    for (int length : {0, 64, 215, 216}) {
        Message message = mmsg(1, length);
        putEvent(message, 64);
        EXPECT_EQ(printed(message), mmch(1, length) + stamped("< This is an Event LOG Message\n") +
                                        stamped(EVENT_FIELDS) + DATA + "\n");
    }
}

TEST_F(MmsgPrint, TextsWithoutTerminatorEndWithTheirField) {
    Message message = mmsg(1, 216);
    putText(message, 64, std::string(64, 'E') + std::string(64, 'B'));
    put(message, 192, {'x', 'x', 'x', 'x'});
    std::string text = printed(message);
    EXPECT_NE(text.find("evEnclosureId            = [" + std::string(64, 'E') + "]\n"),
              std::string::npos);
    EXPECT_NE(text.find("evBladeId                = [" + std::string(64, 'B') + "]\n"),
              std::string::npos);
}

TEST_F(MmsgPrint, Inquiry) {
    Message message = mmsg(2, 208);
    put(message, 64, {0, 0, 0, 5});
    put(message, 204, {0x80, 0, 0, 1});
    EXPECT_EQ(printed(message),
              mmch(2, 208) + stamped("< This is an Event Inquiry Message\n"
                                     "handle                   = [-1]\n"
                                     "evInquiryType            = [5]\n"
                                     "evSeqIdInquiry           = [-2147483647]\n"));
}

TEST_F(MmsgPrint, TypeTwoWithTheResponseBitIsAResponse) {
    for (int cont : {0x40, 0xC0}) {
        Message message = mmsg(2, 220, cont);
        putEvent(message, 64);
        EXPECT_EQ(printed(message), mmch(2, 220, cont) +
                                        stamped("< This is an Event Response Message\n"
                                                "handle                   = [-1]\n"
                                                "return_code              = [2]\n") +
                                        stamped(EVENT_FIELDS) + DATA + "B68F0100 \n");
    }
}

TEST_F(MmsgPrint, SetArchiver) {
    Message message = mmsg(3, 72);
    put(message, 64, {192, 168, 0, 255, 0xC3, 0x50});
    EXPECT_EQ(printed(message),
              mmch(3, 72) + stamped("< This is a Set Event Archiver Message\n"
                                    "evArchiverIpAddress          = [192.168.0.255]\n"
                                    "evArchiverTcpPort            = [50000]\n"));
}

TEST_F(MmsgPrint, GetArchiver) {
    EXPECT_EQ(printed(mmsg(4, 64)),
              mmch(4, 64) +
                  stamped("< This is a Get Event Archiver Message\n"
                          "The Event Manager shall not receive this type of Messages.\n"));
}

TEST_F(MmsgPrint, ManagerStatus) {
    Message message = mmsg(5, 84);
    put(message, 64, {10, 0, 0, 1, 0x4E, 0x20, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 1, 0});
    EXPECT_EQ(printed(message),
              mmch(5, 84) + stamped("< This is a Get Event Manager Status Message\n"
                                    "evArchiverIpAddress          = [10.0.0.1]\n"
                                    "evArchiverTcpPort            = [20000]\n"
                                    "evManagerStatusFlag          = [1]\n"
                                    "evManagerInquiryMsgTimeout   = [2]\n"
                                    "evArchiverConnectionFailed   = [3]\n"
                                    "evArchiverConnectionAttempt  = [256]\n"));
}

TEST_F(MmsgPrint, ArchiverStatusLacksThreeLines) {
    Message message = mmsg(6, 240);
    putStatus(message, 64, 24);
    EXPECT_EQ(printed(message),
              mmch(6, 240) + stamped("< This is a Get Event Archiver Status Message\n"
                                     "evEnclosureId                = [Enclosure-7]\n"
                                     "evBladeId                    = [Blade-7]\n"
                                     "evSlotId                     = [12]\n"
                                     "evInstanceNumber             = [13]\n"
                                     "evSequenceIdLast             = [-1]\n"
                                     "evArchiverControlFlag        = [2]\n"));
}

TEST_F(MmsgPrint, AnyOtherTypeIsUnknown) {
    for (int type : {0, 8, 255}) {
        EXPECT_EQ(printed(mmsg(type, 64)),
                  mmch(type, 64) + stamped("< This is an Unknown Event Message\n"));
    }
}

TEST_F(MmsgPrint, TypeHas24Bits) {
    Message message = mmsg(1, 64);
    put(message, 12, {12, 0x80, 0x00, 0x01});
    std::string text = printed(message);
    EXPECT_EQ(text.rfind(stamped("MMCH protocol            = [12]\n"
                                 "MMCH type                = [8388609]\n"),
                         0),
              0U);
    EXPECT_NE(text.find(stamped("MMCH general_use1        = [0xC]\n")), std::string::npos);
    EXPECT_NE(text.find(stamped("< This is an Unknown Event Message\n")), std::string::npos);
}

TEST_F(MmsgPrint, WithoutDebugOnlyTheDataIsPrinted) {
    empControl.empDebug = 0;
    Message message = mmsg(1, 221);
    putEvent(message, 64);
    EXPECT_EQ(printed(message), "B68F0100 7F\n");
    EXPECT_EQ(printed(mmsg(4, 64)), "");
}

// --- Messages of the archiver link ---------------------------------------------------------------

TEST_F(ArchiverMsgPrint, Event) {
    Message message = archiverMsg(1, 157);
    putEvent(message, 16);
    EXPECT_EQ(printedArchiver(message), archiverHeader(1, 157) +
                                            stamped("< This is an Event LOG Message\n") +
                                            stamped(EVENT_FIELDS) + DATA + "B68F0100 7F\n");
}

TEST_F(ArchiverMsgPrint, InquiryLengthAsAnEventPrintsAnEmptyDump) {
    Message message = archiverMsg(1, 144);
    putEvent(message, 16);
    EXPECT_EQ(printedArchiver(message), archiverHeader(1, 144) +
                                            stamped("< This is an Event LOG Message\n") +
                                            stamped(EVENT_FIELDS) + DATA + "\n");
}

TEST_F(ArchiverMsgPrint, DataIsCutAt64Bytes) {
    for (int bodyLength : {216, 217, 4064}) {
        Message message = archiverMsg(1, bodyLength);
        putEvent(message, 16);
        EXPECT_EQ(
            printedArchiver(message),
            archiverHeader(1, bodyLength) + stamped("< This is an Event LOG Message\n") +
                stamped(EVENT_FIELDS) + DATA +
                "B68F0100 7F000000 00000000 00000000 00000000 00000000 00000000 00000000\n"
                "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000\n\n\n");
    }
}

TEST_F(ArchiverMsgPrint, TypeTwoThatIsNoResponseIsAnInquiry) {
    for (int flag : {0, 1, 3, 258}) {
        Message message = archiverMsg(2, 144, flag);
        put(message, 16, {0, 0, 0, 1});
        put(message, 156, {0, 0, 0, 10});
        EXPECT_EQ(printedArchiver(message),
                  archiverHeader(2, 144, flag) + stamped("< This is an Event Inquiry Message\n"
                                                         "evInquiryType            = [1]\n"
                                                         "evSeqIdInquiry           = [10]\n"));
    }
}

TEST_F(ArchiverMsgPrint, TypeTwoWithFlagTwoIsAResponse) {
    Message message = archiverMsg(2, 153);
    putEvent(message, 16);
    EXPECT_EQ(printedArchiver(message), archiverHeader(2, 153) +
                                            stamped("< This is an Event Response Message\n") +
                                            stamped(EVENT_FIELDS) + DATA + "B6\n");
}

TEST_F(ArchiverMsgPrint, SetArchiver) {
    Message message = archiverMsg(3, 8);
    put(message, 16, {1, 2, 3, 200, 0xFF, 0xFF});
    EXPECT_EQ(printedArchiver(message),
              archiverHeader(3, 8) + stamped("< This is a Set Event Archiver Message\n"
                                             "evArchiverIpAddress          = [1.2.3.200]\n"
                                             "evArchiverTcpPort            = [65535]\n"));
}

TEST_F(ArchiverMsgPrint, GetArchiver) {
    EXPECT_EQ(printedArchiver(archiverMsg(4, 0)),
              archiverHeader(4, 0) +
                  stamped("< This is a Get Event Archiver Message\n"
                          "The Event Manager shall not receive this type of Messages.\n"));
}

TEST_F(ArchiverMsgPrint, ManagerStatus) {
    EXPECT_EQ(printedArchiver(archiverMsg(5, 20)),
              archiverHeader(5, 20) + stamped("< This is a Get Event Manager Status Message\n"
                                              "evArchiverIpAddress          = [0.0.0.0]\n"
                                              "evArchiverTcpPort            = [0]\n"
                                              "evManagerStatusFlag          = [0]\n"
                                              "evManagerInquiryMsgTimeout   = [0]\n"
                                              "evArchiverConnectionFailed   = [0]\n"
                                              "evArchiverConnectionAttempt  = [0]\n"));
}

std::string statusLines(int structLength) {
    return archiverHeader(6, 176) + stamped("< This is a Get Event Archiver Status Message\n"
                                            "evEnclosureId                = [Enclosure-7]\n"
                                            "evBladeId                    = [Blade-7]\n"
                                            "evSlotId                     = [12]\n"
                                            "evInstanceNumber             = [13]\n"
                                            "evSequenceIdFirst            = [14]\n"
                                            "evStructLength               = [" +
                                            std::to_string(structLength) +
                                            "]\n"
                                            "evSequenceIdLast             = [-1]\n"
                                            "evArchiverControlFlag        = [2]\n"
                                            "Valid part of evRandom[]     = 0X\n");
}

TEST_F(ArchiverMsgPrint, StatusShowsTheValidPartOfTheRandomBytes) {
    Message message = archiverMsg(6, 176);
    putStatus(message, 16, 5);
    EXPECT_EQ(printedArchiver(message), statusLines(5) + "41424344 45\n");
    putStatus(message, 16, 0);
    EXPECT_EQ(printedArchiver(message), statusLines(0) + "\n");
}

TEST_F(ArchiverMsgPrint, StatusShowsAtMost24RandomBytes) {
    for (int structLength : {24, 25, 40, 65535}) {
        Message message = archiverMsg(6, 176);
        putStatus(message, 16, structLength);
        EXPECT_EQ(printedArchiver(message),
                  statusLines(structLength) +
                      "41424344 45464748 494A4B4C 4D4E4F50 51525354 55565758 \n");
    }
}

TEST_F(ArchiverMsgPrint, TypeSevenIsUnknownOnTheLink) {
    for (int type : {0, 7, 8, 257, 65535}) {
        EXPECT_EQ(printedArchiver(archiverMsg(type, 0)),
                  archiverHeader(type, 0) + stamped("< This is an Unknown Event Message\n"));
    }
}

// --- Records -------------------------------------------------------------------------------------

TEST_F(RecordPrint, HeaderOfAStoredEvent) {
    Message message = {};
    put(message, 0, {0xB6, 0x8F, 1, 200, 0x83, 0x92, 0x06, 0xE3});
    putEvent(message, 8);
    testing::internal::CaptureStdout();
    empEvRecordPrint(reinterpret_cast<const EmpEvRecord_t*>(message.data()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              stamped("evRdSignature            = [0xB68F]\n"
                      "evRdVersion              = [1]\n"
                      "evRdReserved             = [200]\n"
                      "evRdCRCChecksum          = [0x839206E3]\n") +
                  stamped(EVENT_FIELDS));
}

} // namespace
