/**
 * @file
 * The blades that run on this machine, for those who do not say which one they mean.
 */
#ifndef EVCTL_RUNNING_BLADES_H
#define EVCTL_RUNNING_BLADES_H

#include "evctl/wire/blade_options.h"

#include <istream>
#include <sys/types.h>
#include <vector>

namespace evctl {

/** A shared memory segment that looks like the parameter block of a blade that runs. */
struct RunningBlade {
    int key;
    uid_t owner;
    uid_t creator;

    bool operator==(const RunningBlade&) const = default;
};

/** Where the system keeps its table of segments. */
constexpr char SHARED_MEMORY_TABLE[] = "/proc/sysvipc/shm";

/** The segments that have the size of a parameter block and that some process has attached, in a
 * table as the system keeps it (/proc/sysvipc/shm). */
std::vector<RunningBlade> runningBlades(std::istream& table);

/** The key of the only blade that runs here. Blocks of users other than this one and root count
 * only with options.anyOwner: anybody can make one. Throws when there is none, when there are
 * several, and when the system keeps no table. */
int onlyRunningBlade(const KeyOptions& options);

} // namespace evctl

#endif
