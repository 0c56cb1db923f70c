/**
 * @file
 * Relaying inquiries to the Event Archiver.
 */
#ifndef EMP_ARCHIVER_RELAY_H
#define EMP_ARCHIVER_RELAY_H

#include "emp_mesgs.h"
#include "fixed_width.h"
#include "mmsg.h"

/**
 * Relays a local inquiry, or queues it.
 * @return EMP_E_OK when the archiver's answer, or its absence, will answer the requestor;
 * EMP_E_GENERR when the inquiry is refused and the caller has to
 */
S32_t empSendEventInquiryToEventArchiver(const MMSG_t* mmsg);

#endif
