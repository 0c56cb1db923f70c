/**
 * @file
 * What the replies to local requestors have in common.
 */
#ifndef EMP_MMSG_REPLY_H
#define EMP_MMSG_REPLY_H

#include "diag/line_format.h"
#include "emp_mesgs.h"
#include "fixed_width.h"
#include "mmsg.h"
#include "state/control.h"

/** Body of an inquiry. */
inline const EmpEvInquiryMsg_t* empInquiryOf(const MMSG_t* mmsg) {
    return reinterpret_cast<const EmpEvInquiryMsg_t*>(mmsg->user_data_start);
}

/** The reply under construction, in the shared work space. */
inline MMSG_t* empReply() {
    return reinterpret_cast<MMSG_t*>(eventEntryWorkSpace);
}

/** The event that the reply under construction carries. */
inline EmpEvLogMsg_t* empReplyEvent() {
    return reinterpret_cast<EmpEvLogMsg_t*>(empReply()->user_data_start);
}

/** The bitmap that names the requestor in a reply. */
enum EMP_REPLY_TO_e {
    EMP_E_REPLY_TO_LOCAL_BLADE, ///< recipient_loc_bm
    EMP_E_REPLY_TO_OTHER_BLADE, ///< recipient_ob_bm
};

/** Where an inquiry came from, by the mmsg_cont of its message. */
constexpr EMP_REPLY_TO_e empReplyTo(U8_t mmsgCont) {
    return (mmsgCont & MMSG_E_CONT_OTHER_BLADE) != 0 ? EMP_E_REPLY_TO_OTHER_BLADE
                                                     : EMP_E_REPLY_TO_LOCAL_BLADE;
}

/**
 * Builds the header of a reply: an MMCH of the event manager's protocol with the response bit, the
 * requestor as destination and sole recipient, and its handle. Length and return code are left 0.
 * @param requestor endpoint; one of 64 or more is in neither bitmap and gets no bit
 */
void empBuildReplyMmch(MMCH_t* mmch, U32_t type, U8_t requestor, U32_t handle, EMP_REPLY_TO_e to);

/** Lines that tell where an inquiry came from, under their caller's name. */
struct EmpInquirySourceTexts_t {
    EmpLineFormat_t<> otherBlade;
    EmpLineFormat_t<> localBlade;
};

/**
 * Begins the reply to an inquiry, empReply(), and prints where that came from.
 * @param mmsgCont of the inquiry
 */
void empBeginInquiryReply(U8_t mmsgCont, U8_t requestor, U32_t handle,
                          const EmpInquirySourceTexts_t& texts);

/** Counts a reply that carries an event, or its failure, by its return code. Call before sending.
 */
void empCountEventReply(const MMCH_t* mmch);

#endif
