/**
 * @file
 * Events as syslog messages.
 */
#ifndef EVBRIDGE_SYSLOG_FORM_H
#define EVBRIDGE_SYSLOG_FORM_H

#include "report.h"

namespace evbridge {

/** RFC 5424, of facility local0: the time is the event's, the host its blade, the process its
 * source. Data is cut to DATA_LENGTH and the text to TEXT_LENGTH; cut="1" says so.
 * @param enterprise the number under which the structured data's element stands */
std::string syslogMessage(const Report& report, U32_t enterprise);

} // namespace evbridge

#endif
