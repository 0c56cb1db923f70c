#include "diag/message_dump.h"

#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "text64.h"

#include <algorithm>

namespace {

constexpr S32_t EVENT_DATA_SHOWN = 64; ///< bytes of event data that a dump shows at most
constexpr S32_t RANDOM_SIZE = sizeof(EmpGetEvArchiverStatusMsg_t::evRandom);

/** A field as the argument of "%d": numbers from 2^31 on show negative. */
int shown(U32_t value) {
    return static_cast<int>(value);
}

void printEventFields(const EmpEvLogHeader_t& event) {
    empDebugLine("evEnclosureId            = [%.64s]\n", empTextArg(event.evEnclosureId));
    empDebugLine("evBladeId                = [%.64s]\n", empTextArg(event.evBladeId));
    empDebugLine("evSlotId                 = [%d]\n", shown(event.evSlotId));
    empDebugLine("evInstanceNumber         = [%d]\n", shown(event.evInstanceNumber));
    empDebugLine("evSequenceId             = [%d]\n", shown(event.evSequenceId));
    empDebugLine("evTime                   = [%d]\n", shown(event.evTime));
    empDebugLine("evStructLength           = [%d]\n", shown(event.evStructLength));
    empDebugLine("evSource                 = [%d]\n", shown(event.evSource));
    empDebugLine("evType                   = [%d]\n", shown(event.evType));
    empDebugLine("evCategory               = [%d]\n", shown(event.evCategory));
    empDebugLine("evIdVersion              = [%d]\n", shown(event.evIdVersion));
    empDebugLine("evId                     = [%d]\n", shown(event.evId));
}

/** @param dataLength signed: a message shorter than an event header leaves less than nothing */
void printEvent(const EmpEvLogMsg_t& event, S32_t dataLength) {
    printEventFields(event.evLogHdr);
    empDebugLine("evStruct                 = 0X\n");
    empHexDump(event.evStruct, std::min(dataLength, EVENT_DATA_SHOWN));
}

void printInquiry(const EmpEvInquiryMsg_t& inquiry) {
    empDebugLine("evInquiryType            = [%d]\n", shown(inquiry.evInquiryType));
    empDebugLine("evSeqIdInquiry           = [%d]\n", shown(inquiry.evSeqIdInquiry));
}

void printArchiverAddress(const IpAddr_t& address, U16_t port) {
    empDebugLine("evArchiverIpAddress          = [%d.%d.%d.%d]\n", address.bytes[0],
                 address.bytes[1], address.bytes[2], address.bytes[3]);
    empDebugLine("evArchiverTcpPort            = [%d]\n", port);
}

void printManagerStatus(const EmpGetEvManagerStatusMsg_t& status) {
    printArchiverAddress(status.evArchiverIpAddress, status.evArchiverTcpPort);
    empDebugLine("evManagerStatusFlag          = [%d]\n", shown(status.evManagerStatusFlag));
    empDebugLine("evManagerInquiryMsgTimeout   = [%d]\n", shown(status.evManagerInquiryMsgTimeout));
    empDebugLine("evArchiverConnectionFailed   = [%d]\n", shown(status.evArchiverConnectionFailed));
    empDebugLine("evArchiverConnectionAttempt  = [%d]\n",
                 shown(status.evArchiverConnectionAttempt));
}

void printArchiverStatusBlade(const EmpGetEvArchiverStatusMsg_t& status) {
    empDebugLine("evEnclosureId                = [%.64s]\n", empTextArg(status.evEnclosureId));
    empDebugLine("evBladeId                    = [%.64s]\n", empTextArg(status.evBladeId));
    empDebugLine("evSlotId                     = [%d]\n", shown(status.evSlotId));
    empDebugLine("evInstanceNumber             = [%d]\n", shown(status.evInstanceNumber));
}

void printArchiverStatusFirst(const EmpGetEvArchiverStatusMsg_t& status) {
    empDebugLine("evSequenceIdFirst            = [%d]\n", shown(status.evSequenceIdFirst));
    empDebugLine("evStructLength               = [%d]\n", shown(status.evStructLength));
}

void printArchiverStatusLast(const EmpGetEvArchiverStatusMsg_t& status) {
    empDebugLine("evSequenceIdLast             = [%d]\n", shown(status.evSequenceIdLast));
    empDebugLine("evArchiverControlFlag        = [%d]\n", shown(status.evArchiverControlFlag));
}

void printArchiverStatusRandom(const EmpGetEvArchiverStatusMsg_t& status) {
    empDebugLine("Valid part of evRandom[]     = 0X\n");
    empHexDump(status.evRandom, std::min<S32_t>(status.evStructLength, RANDOM_SIZE));
}

void printMmch(const MMCH_t& mmch) {
    empDebugLine("MMCH protocol            = [%d]\n", mmch.opcode.request.protocol);
    empDebugLine("MMCH type                = [%d]\n", shown(mmch.opcode.request.type));
    empDebugLine("MMCH requestor           = [%d]\n", mmch.requestor);
    empDebugLine("MMCH mmsg_cont           = [%d]\n", mmch.mmsg_cont);
    // Only the first word of this bitmap is shown, and nothing of recipient_loc_bm.
    empDebugLine("MMCH recipient_ob_bm     = [0x%x]\n", U32_t{mmch.recipient_ob_bm[0]});
    empDebugLine("MMCH dest_ep             = [%d]\n", mmch.dest_ep);
    empDebugLine("MMCH handle              = [%d]\n", shown(mmch.handle));
    // KEEP: this line shows the protocol once more, not general_use1; traces are read with that.
    empDebugLine("MMCH general_use1        = [0x%X]\n", U32_t{mmch.opcode.request.protocol});
    empDebugLine("MMCH mmsg_length         = [%d]\n", shown(mmch.mmsg_length));
    empDebugLine("MMCH return_code         = [%d]\n", shown(mmch.return_code));
}

void printMmsgInquiryOrResponse(const MMSG_t& mmsg, const EmpEvLogMsg_t& event, S32_t dataLength) {
    if ((mmsg.mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) == 0) {
        empDebugLine("< This is an Event Inquiry Message\n");
        empDebugLine("handle                   = [%d]\n", shown(mmsg.mmch.handle));
        printInquiry(*reinterpret_cast<const EmpEvInquiryMsg_t*>(mmsg.user_data_start));
        return;
    }
    empDebugLine("< This is an Event Response Message\n");
    empDebugLine("handle                   = [%d]\n", shown(mmsg.mmch.handle));
    empDebugLine("return_code              = [%d]\n", shown(mmsg.mmch.return_code));
    printEvent(event, dataLength);
}

void printArchiverInquiryOrResponse(const EmpEvArchiverMsg_t& message, const EmpEvLogMsg_t& event,
                                    S32_t dataLength) {
    if (message.evArchiverMsgHdr.evArchiverMsgFlag != EMP_E_EVENT_ARCHIVER_MSG_RESPONSE) {
        empDebugLine("< This is an Event Inquiry Message\n");
        printInquiry(*reinterpret_cast<const EmpEvInquiryMsg_t*>(message.user_data_start));
        return;
    }
    empDebugLine("< This is an Event Response Message\n");
    printEvent(event, dataLength);
}

/** The messages that read the same on both links: types 3, 4, 5 and what nobody knows. */
void printSettingsMessage(U32_t type, const U8_t* body) {
    switch (type) {
    case EMP_E_MSGS_SET_EVENT_ARCHIVER: {
        const auto* request = reinterpret_cast<const EmpSetEvArchiverMsg_t*>(body);
        empDebugLine("< This is a Set Event Archiver Message\n");
        printArchiverAddress(request->evArchiverIpAddress, request->evArchiverTcpPort);
        break;
    }
    case EMP_E_MSGS_GET_EVENT_ARCHIVER:
        empDebugLine("< This is a Get Event Archiver Message\n");
        empDebugLine("The Event Manager shall not receive this type of Messages.\n");
        break;
    case EMP_E_MSGS_GET_EVENT_MANAGER_STATUS:
        empDebugLine("< This is a Get Event Manager Status Message\n");
        printManagerStatus(*reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(body));
        break;
    default:
        empDebugLine("< This is an Unknown Event Message\n");
        break;
    }
}

void printArchiverHeader(const EmpEvArchiverMsgHeader_t& header) {
    empDebugLine("evArchiverMsg Header Version = [%d]\n", shown(header.evArchiverMsgHdrVersion));
    empDebugLine("evArchiverMsg Body Length    = [%d]\n", shown(header.evArchiverMsgBodyLength));
    empDebugLine("evArchiverMsg Msg Type       = [%d]\n", shown(header.evArchiverMsgType));
    empDebugLine("evArchiverMsg Msg Flag       = [%d]\n", shown(header.evArchiverMsgFlag));
    empDebugLine("evArchiverMsg Return Code    = [%d]\n", shown(header.evArchiverMsgReturnCode));
    empDebugLine("evArchiverMsg Handle         = [%d]\n", shown(header.evArchiverMsgHandle));
}

} // namespace

void empMmsgPrint(const MMSG_t* mmsg) {
    const U8_t* body = mmsg->user_data_start;
    const auto& event = *reinterpret_cast<const EmpEvLogMsg_t*>(body);
    S32_t dataLength = S32_t{mmsg->mmch.mmsg_length} - EMP_EVENT_MMSG_SIZE;
    U32_t type = mmsg->mmch.opcode.request.type;

    printMmch(mmsg->mmch);
    switch (type) {
    case EMP_E_MSGS_LOG:
        empDebugLine("< This is an Event LOG Message\n");
        printEvent(event, dataLength);
        break;
    case EMP_E_MSGS_INQUIRY:
        printMmsgInquiryOrResponse(*mmsg, event, dataLength);
        break;
    case EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS: {
        const auto& status = *reinterpret_cast<const EmpGetEvArchiverStatusMsg_t*>(body);
        empDebugLine("< This is a Get Event Archiver Status Message\n");
        printArchiverStatusBlade(status);
        printArchiverStatusLast(status);
        break;
    }
    case EMP_E_MSGS_ALTERNATE_LOG:
        empDebugLine("< This is an Alternate Event LOG Message\n");
        printEvent(event, dataLength);
        break;
    default:
        printSettingsMessage(type, body);
        break;
    }
}

void empEvArchiverMsgPrint(const EmpEvArchiverMsg_t* message) {
    const EmpEvArchiverMsgHeader_t& header = message->evArchiverMsgHdr;
    const U8_t* body = message->user_data_start;
    const auto& event = *reinterpret_cast<const EmpEvLogMsg_t*>(body);
    S32_t dataLength = S32_t{header.evArchiverMsgBodyLength} - EMP_EVENT_HEADER_SIZE;
    U32_t type = header.evArchiverMsgType;

    printArchiverHeader(header);
    switch (type) {
    case EMP_E_MSGS_LOG:
        empDebugLine("< This is an Event LOG Message\n");
        printEvent(event, dataLength);
        break;
    case EMP_E_MSGS_INQUIRY:
        printArchiverInquiryOrResponse(*message, event, dataLength);
        break;
    case EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS: {
        const auto& status = *reinterpret_cast<const EmpGetEvArchiverStatusMsg_t*>(body);
        empDebugLine("< This is a Get Event Archiver Status Message\n");
        printArchiverStatusBlade(status);
        printArchiverStatusFirst(status);
        printArchiverStatusLast(status);
        printArchiverStatusRandom(status);
        break;
    }
    default:
        printSettingsMessage(type, body);
        break;
    }
}

void empEvRecordPrint(const EmpEvRecord_t* record) {
    empDebugLine("evRdSignature            = [0x%X]\n", U32_t{record->evRdSignature});
    empDebugLine("evRdVersion              = [%d]\n", record->evRdVersion);
    empDebugLine("evRdReserved             = [%d]\n", record->evRdReserved);
    empDebugLine("evRdCRCChecksum          = [0x%X]\n", U32_t{record->evRdCRCChecksum});
    // A record is an event header behind the first 8 bytes.
    const U8_t* bytes = reinterpret_cast<const U8_t*>(record);
    printEventFields(*reinterpret_cast<const EmpEvLogHeader_t*>(bytes + EMP_CRC_START));
}
