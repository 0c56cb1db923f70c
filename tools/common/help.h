/**
 * @file
 * The layout of the help texts.
 */
#ifndef TOOLS_HELP_H
#define TOOLS_HELP_H

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace tools {

/** Columns of the terminal that standard output is; else COLUMNS, else 80; 40 to 120. */
size_t helpWidth();

/** Options as a manual page shows them: names and value on the left, what they do, whether they
 * are required and their default on the right. */
std::shared_ptr<CLI::FormatterBase> makeHelpFormatter();

} // namespace tools

#endif
