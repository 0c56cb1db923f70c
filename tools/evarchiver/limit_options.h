/**
 * @file
 * Options of every program that takes links: who may connect, and how many.
 */
#ifndef EVARCHIVER_LIMIT_OPTIONS_H
#define EVARCHIVER_LIMIT_OPTIONS_H

#include "common/cli_fwd.h"
#include "fixed_width.h"

#include <string>
#include <vector>

namespace evarchive {

/** A check: a place, as endpointOf() takes it. */
std::string checkEndpoint(const std::string& text);

/** Adds --allow. */
void addAllowOption(CLI::App& app, std::vector<std::string>& allow);

/** Where the numbers are kept. */
struct LimitOptions {
    U32_t& connectionLimit;
    U32_t& hostLimit;
    U32_t& handshakeRate;
};

/** Adds --connection-limit, --per-host and --handshake-rate.
 * @param descriptors how many each link takes, for the help text: ", two a link"; "" for one */
void addLimitOptions(CLI::App& app, LimitOptions limits, const std::string& descriptors = "");

} // namespace evarchive

#endif
