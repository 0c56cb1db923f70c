#include "server.h"

#include <arpa/inet.h>
#include <charconv>

namespace evweb {
namespace {

constexpr char UNIX[] = "unix:";
constexpr std::size_t LONGEST_PATH = 107; // of a socket's address

bool isAddress(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

} // namespace

bool ListenPlace::isLoopback() const {
    return !path.empty() || address == "::1" || address.starts_with("127.");
}

ListenPlace listenPlaceOf(const std::string& text) {
    if (text.starts_with(UNIX)) {
        const std::string path = text.substr(sizeof(UNIX) - 1);
        if (path.empty() || path.size() > LONGEST_PATH) {
            throw std::invalid_argument("'" + text + "': a path of 1 to 107 bytes");
        }
        return {.path = path, .address = {}, .port = 0};
    }
    const std::size_t colon = text.rfind(':');
    std::string address = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    if (address.starts_with('[') && address.ends_with(']')) {
        address = address.substr(1, address.size() - 2);
    } else if (address.find(':') != std::string::npos) {
        address.clear();
    }
    const std::string digits = colon == std::string::npos ? text : text.substr(colon + 1);
    U16_t port = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || stop != digits.data() + digits.size() || !isAddress(address)) {
        throw std::invalid_argument("'" + text + "' is no ADDRESS:PORT, PORT or unix:PATH");
    }
    return {.path = {}, .address = address, .port = port};
}

} // namespace evweb
