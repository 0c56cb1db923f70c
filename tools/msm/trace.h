/**
 * @file
 * Message headers as readable lines.
 */
#ifndef MSM_TRACE_H
#define MSM_TRACE_H

#include "mmsg.h"

#include <string>

namespace msm {

/** A header in one line: protocol, type, length, requestor, recipients and the fields that replies
 * use. */
std::string headerText(const MMCH_t& header);

/** Names of the endpoints whose bits are set, with blanks between; "-" for none. */
std::string recipientsText(const U32be_t (&bitmap)[2]);

/** The endpoints of a bitmap as one number: endpoint n is bit n. */
U64_t recipientsOf(const U32be_t (&bitmap)[2]);

/** Whether the event manager is one of @p recipients, which are as recipientsOf() tells them. */
constexpr bool isForManager(U64_t recipients) {
    return ((recipients >> MMSG_E_EPID_EVENTLOGMP) & 1) != 0;
}

} // namespace msm

#endif
