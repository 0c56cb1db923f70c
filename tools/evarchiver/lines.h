/**
 * @file
 * Lines for the operator on standard output: stamped, with their level, each whole.
 */
#ifndef EVARCHIVER_LINES_H
#define EVARCHIVER_LINES_H

#include "say.h"

#include <ctime>

namespace evarchive {

/** "2026-11-22T04:05:06Z warning: text" */
std::string stampedLine(Level level, const std::string& text, time_t now);

/** Writes a line to standard output at once; from any thread. */
void writeLine(const std::string& line);

} // namespace evarchive

#endif
