#include "limit_options.h"

#include "admission.h"
#include "common/cli.h"
#include "endpoint_text.h"

#include <stdexcept>

namespace evarchive {
namespace {

std::string checkNetwork(const std::string& text) {
    try {
        networkOf(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

} // namespace

std::string checkEndpoint(const std::string& text) {
    try {
        endpointOf(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

void addAllowOption(CLI::App& app, std::vector<std::string>& allow) {
    app.add_option("--allow", allow,
                   "Take only connections from these networks: ADDRESS or ADDRESS/BITS, as often "
                   "as needed; default: all addresses")
        ->check(checkNetwork)
        ->option_text("NETWORK...");
}

void addLimitOptions(CLI::App& app, LimitOptions limits, const std::string& descriptors) {
    app.add_option("--connection-limit", limits.connectionLimit,
                   "Links at a time; the start is refused when there are too few descriptors" +
                       descriptors + ". Default: 10000, or as many as there are descriptors for")
        ->check(CLI::Range(1, 100'000));
    app.add_option("--per-host", limits.hostLimit, "Links at a time from one address; 0: any")
        ->capture_default_str();
    app.add_option("--handshake-rate", limits.handshakeRate, "Links taken a second, at most")
        ->check(CLI::Range(10, 1'000'000))
        ->capture_default_str();
}

} // namespace evarchive
