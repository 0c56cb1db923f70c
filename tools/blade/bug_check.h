/**
 * @file
 * What the event manager says when it stops itself.
 */
#ifndef BLADE_BUG_CHECK_H
#define BLADE_BUG_CHECK_H

#include <optional>
#include <string>
#include <string_view>

namespace blade {

/** The frame at the beginning of a bug-check's report. */
struct BugCheck {
    std::string function;
    std::string line;
    std::string message;
};

/** @return the last whole frame in the event manager's output */
std::optional<BugCheck> findBugCheck(std::string_view output);

} // namespace blade

#endif
