/**
 * @file
 * Lines of a program that runs for long.
 */
#ifndef TOOLS_SAY_H
#define TOOLS_SAY_H

#include <string>

namespace tools {

/** One line on standard output, at once: "<program>: <text>". */
void say(const std::string& text);

/** say() for every line of @p text. */
void sayLines(const std::string& text);

} // namespace tools

#endif
