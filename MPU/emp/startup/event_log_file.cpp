#include "startup/event_log_file.h"

#include "dispatch.h"
#include "emp_evl.h"
#include "emp_mesgs.h"
#include "mmsg/message.h"
#include "state/control.h"
#include "store/scan.h"

#include <cstring>

void empProcessEventLogFile() {
    if (empScanEventLogFile() == EMP_E_SCAN_REBUILT) {
        empSendEventMmsgToEmpInitTime(EMP_E_ID_EVENTMGRMP_CORRUPTED_EVENT_LOG_FILE,
                                      EMP_E_TYPE_WARNING, nullptr, 0);
    }
}

void empSendEventMmsgToEmpInitTime(U16_t eventId, U8_t eventType, const void* eventDataPtr,
                                   U16_t eventStructLength) {
    if (eventStructLength > EMP_MAX_STRUCT) {
        eventStructLength = EMP_MAX_STRUCT;
    }
    memset(empControl.empInMsg, 0, EMP_WORK_SPACE_SIZE);
    auto* msg = reinterpret_cast<MMSG_t*>(empControl.empInMsg);
    empBuildMmch(&msg->mmch, MMSG_E_PROTOCOL_EVENTMGR, EMP_E_MSGS_LOG);
    msg->mmch.mmsg_length = static_cast<U16_t>(eventStructLength + EMP_EVENT_MMSG_SIZE);
    msg->mmch.recipient_loc_bm[0] = empEndpointBit(MMSG_E_EPID_EVENTLOGMP);

    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(empControl.empInMsg + MMCH_SIZE);
    event->evLogHdr.evType = eventType;
    event->evLogHdr.evCategory = EMP_E_CATEGORY_MANAGEMENT;
    event->evLogHdr.evIdVersion = 1;
    event->evLogHdr.evId = eventId;
    if (eventStructLength != 0) {
        memcpy(empControl.empInMsg + EMP_EVENT_MMSG_SIZE, eventDataPtr, eventStructLength);
    }
    empProcEventMmsgMsg(msg);
}
