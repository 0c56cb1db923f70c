/**
 * @file
 * Logs that guard has set aside.
 */
#ifndef EVCTL_FILE_ASIDE_H
#define EVCTL_FILE_ASIDE_H

#include <string>
#include <vector>

namespace evctl {

/** What stands between the name of a log that was set aside and the time of that. */
constexpr char LOG_ASIDE[] = ".fatal-";

/** The logs that were set aside of @p log, oldest first; none when its directory cannot be read. */
std::vector<std::string> logsSetAside(const std::string& log);

} // namespace evctl

#endif
