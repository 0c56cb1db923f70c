/**
 * @file
 * Inquiries: requests for one stored event.
 */
#ifndef EMP_REQUESTS_INQUIRY_H
#define EMP_REQUESTS_INQUIRY_H

#include "mmsg.h"

/**
 * Answers an inquiry from the log, relays it to the Event Archiver, or answers with a failure. One
 * that is itself a response, or of an unknown type, gets no answer.
 * @param mmsg message with an EmpEvInquiryMsg_t body; its length is not checked, what is missing of
 * the body must read as zero
 */
void empRcvEventInquiryMsg(MMSG_t* mmsg);

#endif
