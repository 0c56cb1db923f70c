/**
 * @file
 * A log, and the alternate events that the event manager's next start will take into it.
 */
#ifndef EVCTL_WAITING_H
#define EVCTL_WAITING_H

#include "evlog/evlog.h"
#include "sources/alternate_files.h"

#include <optional>
#include <string>
#include <vector>

namespace evctl {

struct LogAndWaiting {
    std::optional<EvlogImage_t> log;       ///< none where there is none yet
    std::vector<sources::AelFile> waiting; ///< those that will be stored, in that order

    /** The records of what waits; they lead into it. */
    std::vector<EvlogRecord_t> records() const;
};

/**
 * The log and the alternate event files of a directory (in it or in its aelfiles) or of a bundle; a
 * single file of either kind; or a log and the aelfiles beside it, where it has the name under
 * which the event manager works with it. What is wrong on the way goes to standard error.
 * Throws when there is neither, and when nothing waits and what should be the log is none.
 * @param status raised to a finding when something is wrong
 */
LogAndWaiting loadLogAndWaiting(const std::string& path, int* status);

} // namespace evctl

#endif
