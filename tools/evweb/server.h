/**
 * @file
 * The sockets: connections, each with a thread and an end.
 */
#ifndef EVWEB_SERVER_H
#define EVWEB_SERVER_H

#include "http.h"

#include <chrono>
#include <sys/socket.h>

namespace evweb {

/** Where requests come in. */
struct ListenPlace {
    std::string path;    ///< of a Unix socket; empty: TCP
    std::string address; ///< numeric
    U16_t port = 0;      ///< 0: any free one

    bool isLoopback() const; ///< nobody but this host comes in there
};

/** "8480" (on 127.0.0.1), "192.0.2.1:8480", "[::1]:8480", "unix:/run/evweb/evweb.sock". Throws
 * std::invalid_argument. */
ListenPlace listenPlaceOf(const std::string& text);

/** What connections from this host, and by the Unix socket, are counted as. */
constexpr char LOCAL[] = "local";

/** What a connection is counted as with others of the same client: LOCAL, an IPv4 address, or the
 * first 64 bits of an IPv6 one, "2001:db8::/64", since whoever has these has all behind them; of a
 * network's own (link-local) ones all of it. An IPv4 address in the form of an IPv6 one is one. */
std::string clientOf(const sockaddr& peer);

struct ServerSettings {
    ListenPlace listen;
    unsigned connections = 64;                  ///< at a time; further ones are refused
    unsigned perHost = 32;                      ///< of them of one client, see clientOf()
    std::chrono::seconds lifetime{120};         ///< of a connection, however slowly it is read
    std::chrono::milliseconds sendTime{10'000}; ///< for the next bytes of an answer to be taken
    std::function<Response(const Request&)> answer;
    std::function<void(const std::string&)> say;
};

/** Serves until SIGTERM or SIGINT, which the caller has blocked in all threads. Throws
 * std::runtime_error when it cannot listen. @return the signal */
int serve(const ServerSettings& settings);

} // namespace evweb

#endif
