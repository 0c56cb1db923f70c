/**
 * @file
 * Who may ask.
 */
#ifndef EVWEB_ACCESS_H
#define EVWEB_ACCESS_H

#include "http.h"

#include <set>

namespace evweb {

/** Bytes of the shortest token that is taken. */
constexpr std::size_t SHORTEST_TOKEN = 16;

struct AccessRules {
    std::vector<std::string> tokens{}; ///< each lets in, as a bearer token or as a password
    std::string userHeader{};          ///< of a reverse proxy on this host; lower case, or empty
    std::set<std::string> hosts{};     ///< names that this server is asked for by; empty: any

    bool isOpen() const { return tokens.empty() && userHeader.empty(); }
};

/** The tokens of a file, one a line; empty lines and those that begin with '#' are none. Throws
 * std::runtime_error when it cannot be read, others than its owner and group can read it, it holds
 * none, or one that is too short. */
std::vector<std::string> readTokens(const std::string& path);

/** Throws Refusal: 405 for what is no GET or HEAD, 400 for a request with a body, 421 for a host
 * that this server is not (a foreign page could have its name lead here), 401 and 403. */
void requireAccess(const Request& request, const AccessRules& rules);

} // namespace evweb

#endif
