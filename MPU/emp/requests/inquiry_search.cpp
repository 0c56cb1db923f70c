#include "requests/inquiry_search.h"

#include "archiver/relay.h"
#include "diag/debug_line.h"
#include "mmsg/reply.h"
#include "requests/inquiry_failure.h"
#include "state/control.h"
#include "text64.h"

#include <iterator>

namespace {

// --- Whose event it is ---------------------------------------------------------------------------

bool sameEnclosure(const EmpEvInquiryMsg_t* inquiry) {
    return empTextEqual(empControl.empEnclosureId, inquiry->evEnclosureId);
}

bool sameBlade(const EmpEvInquiryMsg_t* inquiry) {
    return empTextEqual(empControl.empBladeId, inquiry->evBladeId);
}

bool namesThisBlade(const EmpEvInquiryMsg_t* inquiry) {
    return sameEnclosure(inquiry) && empControl.empSlotId == inquiry->evSlotId &&
           sameBlade(inquiry) && empControl.empInstanceNumber == inquiry->evInstanceNumber;
}

bool namesNoEnclosure(const EmpEvInquiryMsg_t* inquiry) {
    return empTextEqual(inquiry->evEnclosureId, nullEmpEnclosureId);
}

/** Says why an inquiry is not about this blade. KEEP: the odd order; only a "next" is explained. */
void printMismatch(const EmpEvInquiryMsg_t* inquiry) {
    empDebugLine("empRcvEventInquiryMsg(): This Event Inquiry Message is NOT for us.\n");
    if (!sameEnclosure(inquiry)) {
        empDebugLine("empRcvEventInquiryMsg(): empEnclosureId = [%.64s]\n",
                     empTextArg(empControl.empEnclosureId));
        empDebugLine("empRcvEventInquiryMsg(): evEnclosureId = [%.64s]\n",
                     empTextArg(inquiry->evEnclosureId));
    } else if (empControl.empSlotId != inquiry->evSlotId) {
        empDebugLine("empRcvEventInquiryMsg(): empSlotId [%d] != evSlotId [%d]\n",
                     static_cast<int>(empControl.empSlotId), static_cast<int>(inquiry->evSlotId));
    } else if (!sameBlade(inquiry)) {
        empDebugLine("empRcvEventInquiryMsg(): empBladeId = [%.64s]\n",
                     empTextArg(empControl.empBladeId));
        empDebugLine("empRcvEventInquiryMsg(): evBladeId = [%.64s]\n",
                     empTextArg(inquiry->evBladeId));
    }
    if (empControl.empInstanceNumber != inquiry->evInstanceNumber) {
        empDebugLine("empRcvEventInquiryMsg(): empInstanceNumbe [%d] != evInstanceNumber [%d]\n",
                     static_cast<int>(empControl.empInstanceNumber),
                     static_cast<int>(inquiry->evInstanceNumber));
    }
}

// --- When the log does not answer ----------------------------------------------------------------

/** Offers an inquiry to the archiver. @return whether it took it */
bool relay(const MMSG_t* mmsg) {
    return empArchiverFlagSet() && empSendEventInquiryToEventArchiver(mmsg) == EMP_E_OK;
}

bool fail(const MMSG_t* mmsg) {
    empSendEventInquiryMsgFailureToRequestor(mmsg);
    return false;
}

bool relayOrFail(const MMSG_t* mmsg) {
    return relay(mmsg) ? false : fail(mmsg);
}

// --- Searching the index -------------------------------------------------------------------------

bool valid(S32_t index) {
    return eventEntryDatabase[index].evFlag == EMP_E_ENTRY_VALID;
}

/** Moves to the next valid entry. The last step examines the starting one. */
bool searchForward(S32_t* index) {
    empDebugLine("empRcvEventInquiryMsg(): Current Entry Index = [%d].\n", *index);
    for (U32_t steps = 1; steps <= EMP_INDEX_ENTRIES; steps++) {
        ++*index;
        if (*index >= static_cast<S32_t>(EMP_INDEX_ENTRIES)) {
            empDebugLine(
                "empRcvEventInquiryMsg(): Reach the bottom. Start searching from the top.\n");
            *index = 0;
        }
        if (valid(*index)) {
            empDebugLine("empRcvEventInquiryMsg(): Found Entry with Index = [%d].\n", *index);
            return true;
        }
    }
    return false;
}

/** Moves to the previous valid entry. */
bool searchBackward(S32_t* index) {
    empDebugLine("empRcvEventInquiryMsg(): Current Entry Index = [%d].\n", *index);
    for (U32_t steps = 1;; steps++) {
        --*index;
        empDebugLine("empRcvEventInquiryMsg(): New Entry Index = [%d].\n", *index);
        if (steps > EMP_INDEX_ENTRIES) {
            return false;
        }
        if (*index < 0) {
            empDebugLine(
                "empRcvEventInquiryMsg(): Reach the top. Start searching from the bottom.\n");
            // KEEP: the spare entry behind the table, never valid, takes a step of its own.
            *index = static_cast<S32_t>(EMP_INDEX_ENTRIES);
        }
        if (valid(*index)) {
            empDebugLine("empRcvEventInquiryMsg(): Found Entry with Index = [%d].\n", *index);
            return true;
        }
    }
}

U32_t offsetAt(S32_t index) {
    return eventEntryDatabase[index].evOffset;
}

U32_t offsetOf(U32_t sequenceId) {
    return eventEntryDatabase[empIndexSlot(sequenceId)].evOffset;
}

S32_t indexOf(U32_t sequenceId) {
    return static_cast<S32_t>(empIndexSlot(sequenceId));
}

bool answerAt(U32_t recordOffset, U32_t* offset) {
    empDebugLine("empRcvEventInquiryMsg(): Move File Position to [%d].\n",
                 static_cast<int>(recordOffset));
    *offset = recordOffset;
    return true;
}

// --- The five types ------------------------------------------------------------------------------

bool findFirst(const MMSG_t* mmsg, U32_t* offset) {
    empDebugLine("empRcvEventInquiryMsg(): Inquiry First Case wit Sequence Id [%d]\n",
                 static_cast<int>(empInquiryOf(mmsg)->evSeqIdInquiry));
    const EmpEvInquiryMsg_t* inquiry = empInquiryOf(mmsg);
    if (!namesNoEnclosure(inquiry)) {
        // KEEP: the archiver goes first even for this blade; then enclosure and slot suffice.
        if (relay(mmsg)) {
            return false;
        }
        if (!sameEnclosure(inquiry) || empControl.empSlotId != inquiry->evSlotId) {
            return fail(mmsg);
        }
    }
    // KEEP: the entry's flag is not looked at.
    *offset = offsetOf(empControl.empStartSequenceId);
    empDebugLine(
        "empRcvEventInquiryMsg(): empStartSequenceId = [%d], Read Event Entry at evOffset = [%d].\n",
        static_cast<int>(empControl.empStartSequenceId), static_cast<int>(*offset));
    return true;
}

bool findNext(const MMSG_t* mmsg, U32_t* offset) {
    U32_t asked = empInquiryOf(mmsg)->evSeqIdInquiry;
    U32_t oldest = empControl.empStartSequenceId;
    empDebugLine("empRcvEventInquiryMsg(): Inquiry Next Case wit Sequence Id [%d]\n",
                 static_cast<int>(asked));
    if (!namesThisBlade(empInquiryOf(mmsg))) {
        printMismatch(empInquiryOf(mmsg));
        return relayOrFail(mmsg);
    }
    if (empControl.empSequenceId - 1U <= asked) {
        return relayOrFail(mmsg);
    }
    S32_t index = indexOf(asked);
    if (oldest != 0 && asked < oldest - 1U) {
        empDebugLine(
            "empRcvEventInquiryMsg(): SeqId [%d] in Inquiry Msg below the range for Get Next Case.\n",
            static_cast<int>(asked));
        if (relay(mmsg)) {
            return false;
        }
        index = indexOf(oldest - 1U);
    }
    // KEEP: the id of the record found is not compared with the one asked about.
    if (!searchForward(&index)) {
        empDebugLine(
            "empRcvEventInquiryMsg(): Can not find the next valid Entry after Sequence ID [%d]?n",
            static_cast<int>(asked));
        return fail(mmsg);
    }
    return answerAt(offsetAt(index), offset);
}

bool findExact(const MMSG_t* mmsg, U32_t* offset) {
    U32_t asked = empInquiryOf(mmsg)->evSeqIdInquiry;
    empDebugLine("empRcvEventInquiryMsg(): Inquiry Exact Case wit Sequence Id [%d]\n",
                 static_cast<int>(asked));
    if (!namesThisBlade(empInquiryOf(mmsg)) || asked < empControl.empStartSequenceId ||
        asked >= empControl.empSequenceId) {
        return relayOrFail(mmsg);
    }
    if (!valid(indexOf(asked))) {
        empDebugLine(
            "empRcvEventInquiryMsg(): Can not find the exact valid Entry with Sequence ID [%d]?n",
            static_cast<int>(asked));
        return fail(mmsg);
    }
    *offset = offsetOf(asked);
    empDebugLine("empRcvEventInquiryMsg(): Found the exact valid Entry with Sequence ID [%d]\n",
                 static_cast<int>(asked));
    empDebugLine("empRcvEventInquiryMsg(): Found Entry Offset = [%d]\n", static_cast<int>(*offset));
    return true;
}

bool findPrevious(const MMSG_t* mmsg, U32_t* offset) {
    U32_t asked = empInquiryOf(mmsg)->evSeqIdInquiry;
    empDebugLine("empRcvEventInquiryMsg(): Inquiry Previous Case wit Sequence Id [%d]\n",
                 static_cast<int>(asked));
    if (!namesThisBlade(empInquiryOf(mmsg)) || asked <= empControl.empStartSequenceId) {
        return relayOrFail(mmsg);
    }
    S32_t index = indexOf(asked);
    if (asked >= empControl.empSequenceId + 1U) {
        if (relay(mmsg)) {
            return false;
        }
        index = indexOf(empControl.empSequenceId);
    }
    if (!searchBackward(&index)) {
        empDebugLine(
            "empRcvEventInquiryMsg(): Can not find the previous valid Entry before Sequence ID [%d]?n",
            static_cast<int>(asked));
        return fail(mmsg);
    }
    return answerAt(offsetAt(index), offset);
}

bool findLast(const MMSG_t* mmsg, U32_t* offset) {
    empDebugLine("empRcvEventInquiryMsg(): Inquiry Last Case wit Sequence Id [%d]\n",
                 static_cast<int>(empInquiryOf(mmsg)->evSeqIdInquiry));
    if (!namesNoEnclosure(empInquiryOf(mmsg)) && !namesThisBlade(empInquiryOf(mmsg))) {
        return relayOrFail(mmsg);
    }
    // KEEP: the entry's flag is not looked at.
    return answerAt(offsetOf(empControl.empSequenceId - 1U), offset);
}

/** By inquiry type; there is no type 0. */
using FindEvent_t = bool (*)(const MMSG_t* mmsg, U32_t* offset);
constexpr FindEvent_t findEvent[] = {nullptr,   findFirst,    findNext,
                                     findExact, findPrevious, findLast};
static_assert(std::size(findEvent) == EMP_E_INQUIRY_TYPE_LAST + 1);

} // namespace

bool empFindEventOrPassOn(const MMSG_t* mmsg, U32_t* offset) {
    return findEvent[empInquiryOf(mmsg)->evInquiryType](mmsg, offset);
}
