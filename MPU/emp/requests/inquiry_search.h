/**
 * @file
 * Which stored event an inquiry asks for, and who answers when it is not here.
 */
#ifndef EMP_REQUESTS_INQUIRY_SEARCH_H
#define EMP_REQUESTS_INQUIRY_SEARCH_H

#include "emp_mesgs.h"
#include "fixed_width.h"
#include "mmsg.h"

/** Body of an inquiry. */
inline const EmpEvInquiryMsg_t* empInquiryOf(const MMSG_t* mmsg) {
    return reinterpret_cast<const EmpEvInquiryMsg_t*>(mmsg->user_data_start);
}

/**
 * Finds the event that answers an inquiry of one of the five types. When it is not to be answered
 * from the log, the inquiry is relayed, or answered with a failure.
 * @param offset receives the record's offset in the log file
 * @return whether the log answers
 */
bool empFindInquiredEvent(const MMSG_t* mmsg, U32_t* offset);

#endif
