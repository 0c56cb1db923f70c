/**
 * @file
 * The answer to an inquiry that nobody can answer.
 */
#ifndef EMP_REQUESTS_INQUIRY_FAILURE_H
#define EMP_REQUESTS_INQUIRY_FAILURE_H

#include "fixed_width.h"
#include "mmsg.h"

/** Answers an inquiry with a failure. @return the bytes sent, always 216 */
S32_t empSendEventInquiryMsgFailureToRequestor(const MMSG_t* mmsg);

#endif
