/**
 * @file
 * From a feed to a sink, with the position kept behind it.
 */
#ifndef EVBRIDGE_BRIDGE_H
#define EVBRIDGE_BRIDGE_H

#include "evctl/event_filter.h"
#include "say.h"

#include <chrono>
#include <variant>

namespace evbridge {

/** What was asked for. */
struct Options {
    std::string from;
    std::string to;
    std::string cursor; ///< file
    evctl::EventFilter filter;
    std::chrono::milliseconds interval{2000}; ///< between two looks
    bool once = false;                        ///< until everything has been handed on
    bool skipOld = false;                     ///< without a cursor: only what comes from now on
};

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

/** Until SIGINT or SIGTERM, or as Options::once says. Throws when the source or the cursor cannot
 * be used at the start, or the cursor cannot be kept. @return the exit status */
int runBridge(const Options& options, const evarchive::Say& say);

/** The content of a cursor file, without its first line; "" when there is none. Throws
 * std::runtime_error when it is another file. */
std::string readCursorFile(const std::string& path);

/** Replaces it, whole or not at all, so that it survives a loss of power. */
void writeCursorFile(const std::string& path, const std::string& position);

} // namespace evbridge

#endif
