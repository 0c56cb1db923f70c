/**
 * @file
 * Running blades among the sources of events.
 */
#ifndef EVCTL_BLADE_SOURCE_H
#define EVCTL_BLADE_SOURCE_H

#include "evctl/wire/request.h"
#include "sources/source.h"

namespace evctl {

/** How a blade is named among files: "blade:" and its key, or nothing for EVCTL_KEY's or the only
 * running one. A file of such a name is "./blade:...". */
constexpr char BLADE_PREFIX[] = "blade:";

/** sources::openSources(), and what the log of a running blade holds now, for the name of a blade.
 * Throws std::exception. */
sources::Sources openSourcesOrBlade(const std::string& path,
                                    const sources::OpenOptions& options = {});

/** The log of the blade that @p request names, from its oldest to its newest event of now, read at
 * once. Throws SessionError. @param name is shown */
std::unique_ptr<sources::Source> bladeSource(const std::string& name,
                                             const RequestOptions& request);

} // namespace evctl

#endif
