#include "test_injection.h"

#include "altEventLog.h"
#include "diag/debug_line.h"
#include "emp_evl.h"
#include "emp_mesgs.h"
#include "mmsg/message.h"
#include "state/control.h"
#include "text64.h"

#include <cstring>

namespace {

constexpr U32_t TEST_HANDLE = 1234;
constexpr U16_t TEST_ARCHIVER_PORT = 20000;
constexpr U32_t TEST_SEQUENCE_ID = 10;

U8_t* bodyOf(MMSG_t* mmsg) {
    return reinterpret_cast<U8_t*>(mmsg) + MMCH_SIZE;
}

/** Fills what a test event has of its own; the rest of the header is the intake's or the writer's.
 */
void buildTestEvent(EmpEvLogMsg_t* event) {
    event->evLogHdr.evType = EMP_E_TYPE_INFORMATION;
    event->evLogHdr.evCategory = EMP_E_CATEGORY_SYSTEM;
    event->evLogHdr.evIdVersion = 1;
    event->evLogHdr.evId = EMP_E_ID_EVENTMGRMP_TEST;
    U8_t* data = reinterpret_cast<U8_t*>(event) + EMP_EVENT_HEADER_SIZE;
    for (size_t i = 0; i < sizeof(EmpTestEvStruct_t); i++) {
        data[i] = static_cast<U8_t>(i);
    }
}

void buildEvent(MMSG_t* mmsg) {
    empDebugLine(
        "empTestMsg(): sizeof(EmpEvLogHeader_t) = [%d], sizeof(EmpTestEvStruct_t) = [%d]\n",
        int{sizeof(EmpEvLogHeader_t)}, int{sizeof(EmpTestEvStruct_t)});
    buildTestEvent(reinterpret_cast<EmpEvLogMsg_t*>(bodyOf(mmsg)));
}

void buildInquiry(MMSG_t* mmsg) {
    empDebugLine("empTestMsg(): sizeof(EmpEvInquiryMsg_t) = [%d]\n",
                 int{sizeof(EmpEvInquiryMsg_t)});
    mmsg->mmch.handle = TEST_HANDLE;
    auto* inquiry = reinterpret_cast<EmpEvInquiryMsg_t*>(bodyOf(mmsg));
    inquiry->evInquiryType = EMP_E_INQUIRY_TYPE_FIRST;
    empTextCopy(inquiry->evEnclosureId, oMpuParams->chassisSN);
    empTextCopy(inquiry->evBladeId, oMpuParams->serialStr);
    inquiry->evSlotId = oMpuParams->slotId;
    inquiry->evSeqIdInquiry = TEST_SEQUENCE_ID;
}

void buildSetArchiver(MMSG_t* mmsg) {
    empDebugLine("empTestMsg(): sizeof(EmpSetEvArchiverMsg_t) = [%d]\n",
                 int{sizeof(EmpSetEvArchiverMsg_t)});
    mmsg->mmch.handle = TEST_HANDLE;
    auto* request = reinterpret_cast<EmpSetEvArchiverMsg_t*>(bodyOf(mmsg));
    request->evArchiverIpAddress = {{192, 168, 0, 1}};
    request->evArchiverTcpPort = TEST_ARCHIVER_PORT;
}

void buildManagerStatus(MMSG_t* mmsg) {
    empDebugLine("empTestMsg(): sizeof(EmpGetEvManagerStatusMsg_t) = [%d]\n",
                 int{sizeof(EmpGetEvManagerStatusMsg_t)});
    mmsg->mmch.handle = TEST_HANDLE;
}

struct TestRequest_t {
    U32_t type;
    U16_t length; ///< of the whole message
    void (*build)(MMSG_t* mmsg);
};

constexpr TestRequest_t testRequests[] = {
    {EMP_E_MSGS_LOG, EMP_EVENT_MMSG_SIZE + sizeof(EmpTestEvStruct_t), buildEvent},
    {EMP_E_MSGS_INQUIRY, MMCH_SIZE + sizeof(EmpEvInquiryMsg_t), buildInquiry},
    {EMP_E_MSGS_SET_EVENT_ARCHIVER, MMCH_SIZE + sizeof(EmpSetEvArchiverMsg_t), buildSetArchiver},
    {EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, MMCH_SIZE + sizeof(EmpGetEvManagerStatusMsg_t),
     buildManagerStatus},
};

const TestRequest_t* findRequest(U32_t type) {
    for (const TestRequest_t& request : testRequests) {
        if (request.type == type) {
            return &request;
        }
    }
    return nullptr;
}

/** @return the message's length; 0 for a type that is not supported */
U16_t buildRequest(MMSG_t* mmsg, U32_t type) {
    const TestRequest_t* request = findRequest(type);
    if (request == nullptr) {
        empDebugLine("empTestMsg(): Un-supported Event Message.\n");
        return 0;
    }
    mmsg->mmch.mmsg_length = request->length;
    empDebugLine("empTestMsg(): mmsg_length = [%d], sizeof(MMCH_t) = [%d]\n", request->length,
                 int{sizeof(MMCH_t)});
    request->build(mmsg);
    return request->length;
}

} // namespace

S32_t empTestMsg(U32_t type) {
    memset(eventEntryWorkSpace, 0, EMP_WORK_SPACE_SIZE);
    auto* mmsg = reinterpret_cast<MMSG_t*>(eventEntryWorkSpace);
    empBuildMmch(&mmsg->mmch, MMSG_E_PROTOCOL_EVENTMGR, type);
    mmsg->mmch.dest_ep = MMSG_E_EPID_EVENTLOGMP;
    mmsg->mmch.recipient_loc_bm[0] = empEndpointBit(MMSG_E_EPID_EVENTLOGMP);
    empDebugLine("empTestMsg(): This test Event Message is from Local Blade.\n");

    U16_t length = buildRequest(mmsg, type);
    empDebugLine("empTestMsg(): Send out a Test MMSG from the Event Manager to Event Manager.\n");
    // A send of nothing on a closed socket would fail.
    if (length == 0) {
        return 0;
    }
    // KEEP: this bug-check names the function with its parentheses.
    return empSendToMsm(mmsg, length, EMP_HERE_IN("empTestMsg()"), EMP_E_SHORT_SEND_SHOWS_INTENDED);
}

S32_t empTestAlternateEventLog() {
    memset(eventEntryWorkSpace, 0, EMP_EVENT_HEADER_SIZE + sizeof(EmpTestEvStruct_t));
    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(eventEntryWorkSpace);
    event->evLogHdr.evStructLength = sizeof(EmpTestEvStruct_t);
    event->evLogHdr.evSource = MMSG_E_EPID_EVENTLOGMP;
    buildTestEvent(event);
    // It may print, and abort; its lines are stdio's.
    empFlushOutput();
    return altEventLogM(event, oMpuParams);
}
