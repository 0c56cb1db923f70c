/**
 * @file
 * The blades that run on this machine, for those who do not say which one they mean.
 */
#ifndef EVCTL_RUNNING_BLADES_H
#define EVCTL_RUNNING_BLADES_H

#include <istream>
#include <vector>

namespace evctl {

/** The keys of the shared memory segments that have the size of a parameter block and that some
 * process has attached, in a table as the system keeps it (/proc/sysvipc/shm). */
std::vector<int> keysOfRunningBlades(std::istream& table);

/** The key of the only blade that runs here. Throws when there is none, or several. */
int onlyRunningBlade();

} // namespace evctl

#endif
