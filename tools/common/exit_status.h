/**
 * @file
 * How every tool ends.
 */
#ifndef TOOLS_EXIT_STATUS_H
#define TOOLS_EXIT_STATUS_H

#include <string>

namespace tools {

/** Exit statuses of every tool. */
enum ExitStatus : int {
    EXIT_DONE = 0,      ///< did what was asked
    EXIT_FINDING = 1,   ///< did what was asked, and found something to report
    EXIT_COULD_NOT = 2, ///< could not do what was asked; standard error says why
};

/** One line on standard error: "<program>: <text>". @return EXIT_COULD_NOT */
int sayCouldNot(const std::string& program, const std::string& text);

} // namespace tools

#endif
