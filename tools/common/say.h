/**
 * @file
 * Lines of a program that runs for long. Nobody who reads them, or stops reading, can hold it up.
 */
#ifndef TOOLS_SAY_H
#define TOOLS_SAY_H

#include "fixed_width.h"

#include <string>
#include <string_view>

namespace tools {

/** Makes SIGPIPE an error of the write that meets it. First thing in main() of what says lines. */
void surviveReaders();

/** One line on standard output, at once, or dropped and counted: "<program>: <text>". */
void say(std::string_view text);

/** say() for every line of @p text. */
void sayLines(std::string_view text);

/** One line as it is. */
void sayPlain(std::string_view line);

/** Lines that were dropped so far because their reader stalled or is gone. */
U64_t droppedLines();

} // namespace tools

#endif
