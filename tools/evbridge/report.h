/**
 * @file
 * What receivers are told of an entry, in no protocol's form yet.
 */
#ifndef EVBRIDGE_REPORT_H
#define EVBRIDGE_REPORT_H

#include "entry.h"

#include <span>
#include <string>
#include <utility>
#include <vector>

namespace evbridge {

/** Bytes of an event's data that receivers get who do not take any number, and of its text. */
constexpr std::size_t DATA_LENGTH = 1024;
constexpr std::size_t TEXT_LENGTH = 4096;

struct Report {
    U32_t severity = 6;    ///< as in syslog: 3 error, 4 warning, 5 notice, 6 information
    std::string kind;      ///< "event" or "overwritten"
    std::string messageId; ///< "EV4", "OVERWRITTEN"
    std::string host;      ///< the blade
    std::string source;    ///< process of the blade
    std::string time;      ///< "2006-11-21T14:00:00Z"
    std::string text;
    std::vector<std::pair<std::string, std::string>> fields; ///< names of lower-case letters and _
    std::span<const U8_t> data;                              ///< leads into the entry
};

/** @param entry must outlive the report's data */
Report reportOf(const Entry& entry);

} // namespace evbridge

#endif
