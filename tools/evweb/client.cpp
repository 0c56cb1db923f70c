#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

namespace evweb {
namespace {

constexpr std::size_t NETWORK_BYTES = 8;
constexpr std::size_t MAPPED_BYTES = 12; // before the IPv4 address

std::string nameOfV4(const in_addr& address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof(text));
    return strncmp(text, "127.", 4) == 0 ? LOCAL : text;
}

std::string nameOfV6(in6_addr address) {
    if (IN6_IS_ADDR_V4MAPPED(&address)) {
        in_addr mapped{};
        memcpy(&mapped, address.s6_addr + MAPPED_BYTES, sizeof(mapped));
        return nameOfV4(mapped);
    }
    if (IN6_IS_ADDR_LOOPBACK(&address)) {
        return LOCAL;
    }
    const bool isOfLink = IN6_IS_ADDR_LINKLOCAL(&address);
    if (!isOfLink) {
        std::fill(address.s6_addr + NETWORK_BYTES, std::end(address.s6_addr), U8_t{0});
    }
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &address, text, sizeof(text));
    return text + std::string(isOfLink ? "" : "/64");
}

} // namespace

std::string clientOf(const sockaddr& peer) {
    if (peer.sa_family == AF_INET) {
        return nameOfV4(reinterpret_cast<const sockaddr_in&>(peer).sin_addr);
    }
    return peer.sa_family == AF_INET6
               ? nameOfV6(reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr)
               : LOCAL;
}

} // namespace evweb
