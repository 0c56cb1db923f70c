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

} // namespace msm

#endif
