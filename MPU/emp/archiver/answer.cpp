#include "archiver/answer.h"

#include "archiver/pending.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "mmsg/message.h"
#include "mmsg/reply.h"
#include "state/control.h"
#include "store/entry.h"
#include "store/log_file.h"
#include "text64.h"

#include <cstring>

namespace {

constexpr char ANSWER[] = "empRcvEventLogMsgFromEventArchiver";

constexpr EmpInquirySourceTexts_t sourceTexts = {
    "empRcvEventLogMsgFromEventArchiver(): This Inquiry Message is from Other Blade.\n",
    "empRcvEventLogMsgFromEventArchiver(): This Inquiry Message is from Local Blade.\n",
};

/** KEEP: only the handle is compared, and the newest record that bears it wins. */
EvMsgRecordEntry_t* findByHandle(U32_t handle) {
    EvMsgRecordEntry_t* entry = EvMsgRecordResponseList;
    while (entry != nullptr && entry->handle != handle) {
        entry = entry->link.flink;
    }
    return entry;
}

void buildAnswer(const EvMsgRecordEntry_t* entry, const EmpEvArchiverMsg_t* message) {
    empBeginInquiryReply(entry->mmsg_cont, entry->requestor, entry->handle, sourceTexts);
    const auto* event = reinterpret_cast<const EmpEvLogMsg_t*>(message->user_data_start);
    empReply()->mmch.return_code = message->evArchiverMsgHdr.evArchiverMsgReturnCode;
    empReply()->mmch.mmsg_length =
        static_cast<U16_t>(event->evLogHdr.evStructLength + EMP_EVENT_MMSG_SIZE);
    memcpy(empReplyEvent(), event, empReply()->mmch.mmsg_length - size_t{MMCH_SIZE});
}

bool namesThisBlade(const EmpEvLogHeader_t& event) {
    return empTextEqual(event.evEnclosureId, empControl.empEnclosureId) &&
           empTextEqual(event.evBladeId, empControl.empBladeId) &&
           event.evSlotId == empControl.empSlotId &&
           event.evInstanceNumber == empControl.empInstanceNumber;
}

/** Puts a stored event in place of the archiver's answer. */
void serveLocalEvent(U32_t sequenceId) {
    S64_t position = empLogFilePosition;
    // KEEP: the entry's flag is not looked at.
    empLogSeek(eventEntryDatabase[empIndexSlot(sequenceId)].evOffset, EMP_HERE_IN(ANSWER));
    EmpEvRecord_t record;
    empDebugLine(
        "empRcvEventLogMsgFromEventArchiver(): Read [%d] bytes of Event Record to Temp place.\n",
        EMP_RECORD_SIZE);
    empReadRecord(&record, EMP_HERE_IN(ANSWER));
    empRequireSignatureOrDump(&record, EMP_HERE_IN(ANSWER));
    empDebugLine(
        "empRcvEventLogMsgFromEventArchiver(): Read [%d] bytes of Event Structure to Temp place.\n",
        static_cast<int>(record.evStructLength));
    empReadRecordData(&record, empReplyEvent()->evStruct, EMP_HERE_IN(ANSWER));
    empReply()->mmch.mmsg_length = static_cast<U16_t>(record.evStructLength + EMP_EVENT_MMSG_SIZE);
    empReply()->mmch.return_code = EMP_E_RESPONSE_SUCCESS;
    empCopyEventHeader(&empReplyEvent()->evLogHdr, &record);
    empLogMoveTo(position);
}

/** The archiver knows no next event of this blade: the log may. */
void fillInNext() {
    if (empReply()->mmch.return_code != EMP_E_RESPONSE_FAILURE) {
        return;
    }
    U32_t asked = empReplyEvent()->evLogHdr.evSequenceId;
    U32_t oldest = empControl.empStartSequenceId;
    U32_t next = empControl.empSequenceId;
    // Nothing lies before id 0, and nothing between the ids of an empty log: there the differences
    // would wrap.
    if (oldest != 0 && asked < oldest - 1U) {
        serveLocalEvent(oldest);
    } else if (next >= 2 && asked < next - 2U) {
        // KEEP: the newest event is never filled in.
        serveLocalEvent(asked + 1U);
    }
}

void fillIn(U8_t inquiryType) {
    switch (inquiryType) {
    case EMP_E_INQUIRY_TYPE_FIRST:
    case EMP_E_INQUIRY_TYPE_EXACT:
    case EMP_E_INQUIRY_TYPE_PREVIOUS:
        break;
    case EMP_E_INQUIRY_TYPE_NEXT:
        fillInNext();
        break;
    case EMP_E_INQUIRY_TYPE_LAST:
        EMP_BUGCHECK(EMP_HERE_IN(ANSWER), "Receive Get Last Msg from Event Archiver?");
    default:
        EMP_BUGCHECK(EMP_HERE_IN(ANSWER), "Receive unsupported MSG type from Event Archiver?");
    }
}

} // namespace

void empRcvEventLogMsgFromEventArchiver(const EmpEvArchiverMsg_t* message) {
    EvMsgRecordEntry_t* entry = findByHandle(message->evArchiverMsgHdr.evArchiverMsgHandle);
    const auto* event = reinterpret_cast<const EmpEvLogMsg_t*>(message->user_data_start);
    // Longer data than any event may have is no answer to anything.
    if (entry == nullptr || event->evLogHdr.evStructLength > EMP_MAX_STRUCT) {
        return;
    }
    buildAnswer(entry, message);
    if (namesThisBlade(event->evLogHdr)) {
        fillIn(entry->evInquiryType);
    }
    empDebugLine(
        "empRcvEventLogMsgFromEventArchiver(): Send out a MMSG from the Event Manager to Requestor.\n");
    empMmsgPrint(empReply());
    empCountEventReply(&empReply()->mmch);
    empSendToMsm(empReply(), empReply()->mmch.mmsg_length, EMP_HERE,
                 EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT);
    empEvMsgEntryFree(entry);
}
