#include "archiver/new_event.h"

#include "archiver/forward.h"
#include "archiver/forward_list.h"
#include "diag/debug_line.h"
#include "state/control.h"

namespace {

void forwardInOrder(U32_t sequenceId, const EmpForwardNewTexts_t& texts) {
    // The event before id 0 is 0xFFFFFFFF.
    if (empControl.empEventArchiverSequenceId < sequenceId - 1U) {
        // KEEP: one older event goes instead of the new one.
        empSendCatchUpEvent(texts.aheadText);
        return;
    }
    empDebugLine(texts.directText, static_cast<int>(sequenceId));
    // KEEP: unlike the catch-up step, this moves the cursor only when the event was taken.
    if (empSendEventLogToEventArchiver(sequenceId) == EMP_E_OK) {
        empControl.empEventArchiverSequenceId++;
    }
}

} // namespace

void empForwardNewEvent(U32_t sequenceId, const EmpForwardNewTexts_t& texts) {
    if (!empArchiverFlagSet()) {
        return;
    }
    switch (empControl.evArchiverSocketState) {
    case EMP_E_ARCHIVER_SOCKET_ST_OPEN:
        forwardInOrder(sequenceId, texts);
        break;
    case EMP_E_ARCHIVER_SOCKET_ST_FULL:
        empSendForwardListToEventArchiver();
        break;
    default:
        empDebugLine(texts.notOpenText);
        break;
    }
}
