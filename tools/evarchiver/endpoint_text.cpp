#include "endpoint_text.h"

#include "fixed_width.h"

#include <charconv>
#include <stdexcept>

namespace evarchive {
namespace {

U16_t portOf(const std::string& text) {
    U16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc{} || stopped != end) {
        throw std::invalid_argument("'" + text + "' is no port, 0 to 65535");
    }
    return port;
}

} // namespace

asio::ip::tcp::endpoint endpointOf(const std::string& text, const asio::ip::address& address) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return {address, portOf(text)};
    }
    std::string name = text.substr(0, colon);
    if (name.size() > 1 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    }
    asio::error_code error;
    const auto parsed = asio::ip::make_address(name, error);
    if (error) {
        throw std::invalid_argument("'" + name + "' is no IP address");
    }
    return {parsed, portOf(text.substr(colon + 1))};
}

std::string textOfEndpoint(const asio::ip::tcp::endpoint& endpoint) {
    const std::string address = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
           std::to_string(endpoint.port());
}

} // namespace evarchive
