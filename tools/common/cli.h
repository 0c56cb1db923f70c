/**
 * @file
 * What the command lines of all tools share: the version flag, how problems are said, and checks of
 * numbers.
 */
#ifndef TOOLS_CLI_H
#define TOOLS_CLI_H

#include "exit_status.h"
#include "fixed_width.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace tools {

/**
 * Gives a command line what all tools have: --help, --version, and the layout of the help text.
 * @param app    the command line, its name being the program's
 * @param footer what the help text says behind the options, such as examples; "" for nothing. The
 *               exit statuses are added to it.
 */
void setUpCommandLine(CLI::App& app, const std::string& footer);

/**
 * Parses the command line.
 * @return nothing when the tool shall run; else the status to exit with, everything being said:
 * EXIT_DONE after --help and --version, EXIT_COULD_NOT after an error. Of an unknown command or
 * option the nearest one is said.
 */
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv);

/** A check: the value is a whole decimal number from @p min to @p max. */
CLI::Validator wholeNumber(U64_t min, U64_t max = UINT64_MAX);

/** A check: the value is a decimal number, with a fraction or without, from @p min to @p max. */
CLI::Validator decimalNumber(double min, double max);

/** A check: the value is not empty. */
CLI::Validator notEmpty();

} // namespace tools

#endif
