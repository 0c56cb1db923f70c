/**
 * @file
 * Addresses with ports as people write them.
 */
#ifndef EVARCHIVER_ENDPOINT_TEXT_H
#define EVARCHIVER_ENDPOINT_TEXT_H

#include <asio/ip/tcp.hpp>
#include <string>

namespace evarchive {

/** "4711", "192.168.0.1:4711" or "[::1]:4711"; a port alone means @p address. Throws
 * std::invalid_argument. */
asio::ip::tcp::endpoint endpointOf(const std::string& text,
                                   const asio::ip::address& address = asio::ip::address_v4::any());

/** "192.168.0.1:4711" or "[::1]:4711". */
std::string textOfEndpoint(const asio::ip::tcp::endpoint& endpoint);

} // namespace evarchive

#endif
