/**
 * @file
 * The command line.
 */
#ifndef EVBRIDGE_OPTIONS_H
#define EVBRIDGE_OPTIONS_H

#include "evctl/filters/event_filter.h"
#include "feed.h"
#include "sink.h"

#include <chrono>
#include <variant>

namespace evbridge {

/** What was asked for. */
struct Options {
    FeedOptions from;
    SinkOptions sink;
    std::string cursor; ///< file
    evctl::EventFilter filter;
    std::chrono::milliseconds interval{2000}; ///< between two looks
    bool once = false;    ///< until everything has been handed on that was there
    bool skipOld = false; ///< without a cursor: only what comes from now on
};

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

} // namespace evbridge

#endif
