#include "requests/inquiry.h"

#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "diag/message_dump.h"
#include "fault/fixed_sites.h"
#include "mmsg/message.h"
#include "mmsg/reply.h"
#include "requests/inquiry_search.h"
#include "state/control.h"
#include "store/entry.h"
#include "store/log_file.h"

namespace {

inline constexpr char SEEK_CALL_FAILS[] = "Linux lseek function call fails!";

/** Where reading the answer to an inquiry of one type may fail. */
struct InquirySites_t {
    EmpEntrySites_t sites;
    const char* seekText;
};

/** By inquiry type; there is no type 0. */
constexpr InquirySites_t inquirySites[] = {
    {},
    {EMP_SITES_INQUIRY_FIRST, EMP_LSEEK_FAILS},
    {EMP_SITES_INQUIRY_NEXT, SEEK_CALL_FAILS},
    {EMP_SITES_INQUIRY_EXACT, EMP_LSEEK_FAILS},
    {EMP_SITES_INQUIRY_PREVIOUS, SEEK_CALL_FAILS},
    {EMP_SITES_INQUIRY_LAST, SEEK_CALL_FAILS},
};

constexpr EmpInquirySourceTexts_t sourceTexts = {
    "empRcvEventInquiryMsg(): This Inquiry Message is from Other Blade.\n",
    "empRcvEventInquiryMsg(): This Inquiry Message is from Local Blade.\n",
};

void checkSignature(const EmpEvRecord_t* record, U32_t type, EmpSite_t site) {
    if (type == EMP_E_INQUIRY_TYPE_FIRST && !empRecordSigned(record)) {
        empHexDump(record, EMP_RECORD_SIZE);
        EMP_BUGCHECK(site, "empStartSequenceId = [%d] points to invalid Event Entry?",
                     static_cast<int>(empControl.empStartSequenceId));
    }
    // KEEP: EXACT alone does not dump the record.
    if (type == EMP_E_INQUIRY_TYPE_EXACT) {
        empRequireSignature(record, site);
    } else {
        empRequireSignatureOrDump(record, site);
    }
}

void printRecordRead(U32_t type) {
    if (type == EMP_E_INQUIRY_TYPE_FIRST) {
        empDebugLine("empRcvEventInquiryMsg(): Read [%d] bytes of Event Record to temp place.\n",
                     EMP_RECORD_SIZE);
    } else {
        empDebugLine("empRcvEventInquiryMsg(): Read [%d] bytes of Event Record to Temp place.\n",
                     EMP_RECORD_SIZE);
    }
}

void printDataRead(U32_t type, int length) {
    if (type == EMP_E_INQUIRY_TYPE_FIRST) {
        empDebugLine(
            "empRcvEventInquiryMsg(): Read [%d] bytes of Event Structur into Event Log Message.\n",
            length);
    } else {
        empDebugLine("empRcvEventInquiryMsg(): Read [%d] bytes of Event Structure to Temp place.\n",
                     length);
    }
}

/** Reads the event at an offset of the log file into the reply. */
void readAnswer(U32_t type, U32_t offset) {
    const EmpEntrySites_t& sites = inquirySites[type].sites;
    empLogSeek(offset, sites.seek, inquirySites[type].seekText);
    EmpEvRecord_t record;
    printRecordRead(type);
    empReadRecord(&record, sites.record);
    checkSignature(&record, type, sites.signature);
    printDataRead(type, record.evStructLength);
    empReadRecordData(&record, empReplyEvent()->evStruct, sites.data);
    empReply()->mmch.mmsg_length = static_cast<U16_t>(record.evStructLength + EMP_EVENT_MMSG_SIZE);
    empReply()->mmch.return_code = EMP_E_RESPONSE_SUCCESS;
    empCopyEventHeader(&empReplyEvent()->evLogHdr, &record);
}

void sendAnswer() {
    empDebugLine("empRcvEventInquiryMsg(): Send out a MMSG from the Event Manager to Requestor.\n");
    empMmsgPrint(empReply());
    empCountEventReply(&empReply()->mmch);
    empSendToMsm(empReply(), empReply()->mmch.mmsg_length, EMP_SITE_INQUIRY_SEND,
                 EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT);
}

void restorePosition(S64_t position) {
    empDebugLine("empRcvEventInquiryMsg(): Switch back to the original File Position [%d]\n",
                 static_cast<int>(position));
    empLogMoveTo(position);
}

} // namespace

void empRcvEventInquiryMsg(MMSG_t* mmsg) {
    if ((mmsg->mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0) {
        empDebugLine(
            "empRcvEventInquiryMsg(): Response Message for Event Inquiry Test Message from Event Manager. Do nothing and return.\n\n");
        return;
    }
    S64_t position = empLogFilePosition;
    empDebugLine("empRcvEventInquiryMsg(): Current File Position is at [%d]\n",
                 static_cast<int>(position));
    empBeginInquiryReply(mmsg->mmch.mmsg_cont, mmsg->mmch.requestor, mmsg->mmch.handle,
                         sourceTexts);
    U32_t type = empInquiryOf(mmsg)->evInquiryType;
    if (type < EMP_E_INQUIRY_TYPE_FIRST || type > EMP_E_INQUIRY_TYPE_LAST) {
        empControl.mmsgEventInquiryMsgInvalid++;
        return;
    }
    U32_t offset = 0;
    if (!empFindEventOrPassOn(mmsg, &offset)) {
        return;
    }
    readAnswer(type, offset);
    sendAnswer();
    restorePosition(position);
}
