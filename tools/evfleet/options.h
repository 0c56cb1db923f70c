/**
 * @file
 * The command line.
 */
#ifndef EVFLEET_OPTIONS_H
#define EVFLEET_OPTIONS_H

#include "evfleet/fleet.h"

#include <variant>

namespace evfleet {

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<FleetOptions, int> parseOptions(int argc, const char* const* argv);

} // namespace evfleet

#endif
