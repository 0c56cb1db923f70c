#include "access.h"

#include <fstream>
#include <optional>
#include <sys/stat.h>

namespace evweb {
namespace {

std::string headerOf(const Request& request, const std::string& name) {
    const auto found = request.headers.find(name);
    return found == request.headers.end() ? "" : found->second;
}

/** In a time that does not tell how much of it is right. */
bool isSame(const std::string& given, const std::string& token) {
    unsigned difference = given.size() == token.size() ? 0 : 1;
    for (std::size_t at = 0; at < given.size(); ++at) {
        difference |= static_cast<unsigned char>(given[at]) ^
                      static_cast<unsigned char>(token[at % token.size()]);
    }
    return difference == 0;
}

std::optional<unsigned> digitOf(char letter) {
    static const std::string letters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t at = letters.find(letter);
    return at == std::string::npos ? std::nullopt : std::optional(static_cast<unsigned>(at));
}

/** Base 64; what is none ends the text. */
std::string decoded(const std::string& text) {
    std::string bytes;
    unsigned bits = 0;
    unsigned count = 0;
    for (const char letter : text) {
        const std::optional<unsigned> digit = digitOf(letter);
        if (!digit) {
            break;
        }
        bits = (bits << 6U | *digit) & 0xFFFFU;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xFFU);
        }
    }
    return bytes;
}

/** The token that a request brings: as such, or as the password that a browser asks for. */
std::string tokenOf(const Request& request) {
    const std::string given = headerOf(request, "authorization");
    const std::string scheme = lowerCase(given.substr(0, given.find(' '))); // whatever its case
    const std::size_t behind = given.find_first_not_of(' ', scheme.size());
    const std::string rest = behind == std::string::npos ? "" : given.substr(behind);
    if (scheme == "bearer") {
        return rest;
    }
    const std::string both = scheme == "basic" ? decoded(rest) : "";
    const std::size_t colon = both.find(':');
    return colon == std::string::npos ? "" : both.substr(colon + 1);
}

bool hasToken(const Request& request, const AccessRules& rules) {
    const std::string given = tokenOf(request);
    bool isKnown = false;
    for (const std::string& token : rules.tokens) {
        isKnown = (!given.empty() && isSame(given, token)) || isKnown;
    }
    return isKnown;
}

bool hasUser(const Request& request, const AccessRules& rules) {
    return !rules.userHeader.empty() && request.isLocal &&
           !headerOf(request, rules.userHeader).empty();
}

/** "name:8480", "[::1]:8480" without the port. */
std::string hostOf(const Request& request) {
    std::string host = headerOf(request, "host");
    const std::size_t end = host.starts_with('[') ? host.find(']') : 0;
    const std::size_t colon = host.find(':', end == std::string::npos ? 0 : end);
    return host.substr(0, colon);
}

} // namespace

std::string lowerCase(std::string text) {
    for (char& letter : text) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return text;
}

std::vector<std::string> readTokens(const std::string& path) {
    struct stat state {};
    std::ifstream file(path);
    if (!file || stat(path.c_str(), &state) != 0 || !S_ISREG(state.st_mode)) {
        throw std::runtime_error(path + ": cannot be read");
    }
    if ((state.st_mode & S_IRWXO) != 0) {
        throw std::runtime_error(path + ": others can read or write it; chmod o= " + path);
    }
    std::vector<std::string> tokens;
    for (std::string line; std::getline(file, line);) {
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        if (line.size() < SHORTEST_TOKEN) {
            throw std::runtime_error(path + ": a token of less than " +
                                     std::to_string(SHORTEST_TOKEN) + " bytes is in it");
        }
        tokens.push_back(line);
    }
    if (tokens.empty()) {
        throw std::runtime_error(path + ": no token is in it");
    }
    return tokens;
}

void requireAccess(const Request& request, const AccessRules& rules) {
    if (request.method != "GET" && request.method != "HEAD") {
        throw Refusal(405, "this server only answers GET and HEAD");
    }
    const std::string length = headerOf(request, "content-length");
    if (!headerOf(request, "transfer-encoding").empty() || (!length.empty() && length != "0")) {
        throw Refusal(400, "a request with a body");
    }
    if (!rules.hosts.empty() && !rules.hosts.contains(hostOf(request))) {
        throw Refusal(421, "this server is not known by that name; --host adds one");
    }
    if (rules.isOpen() || hasToken(request, rules) || hasUser(request, rules)) {
        return;
    }
    if (rules.tokens.empty()) {
        throw Refusal(403, "the proxy in front of this server named no user");
    }
    throw Refusal(401, "a token is wanted, as bearer token or as password");
}

} // namespace evweb
