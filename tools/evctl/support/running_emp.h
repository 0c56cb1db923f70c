/**
 * @file
 * The event manager that runs for a parameter block, as the system's table of processes shows it.
 */
#ifndef EVCTL_RUNNING_EMP_H
#define EVCTL_RUNNING_EMP_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace evctl {

struct RunningEmp {
    std::string version;              ///< of its program, as VersionFullString() gives it; or empty
    std::vector<std::string> outputs; ///< files that the program which started it keeps outputs in
};

/** Nothing when none is found: it does not run, or belongs to another user.
 * @param proc where the table of processes stands */
std::optional<RunningEmp> findRunningEmp(int key, const std::string& proc = "/proc");

/** The version in a program's file, as VersionFullString() gives it; empty when there is none. */
std::string versionIn(std::string_view program);

} // namespace evctl

#endif
