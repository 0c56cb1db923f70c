/**
 * @file
 * Takes connections: at a pace, from who may connect, as many as there are descriptors for. The
 * others are closed at once, so that their blades try again later instead of waiting for ever.
 */
#ifndef EVARCHIVER_ACCEPTOR_H
#define EVARCHIVER_ACCEPTOR_H

#include "admission.h"
#include "say.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <functional>

namespace evarchive {

/** One listening socket and its loop. Calls back from the loop's thread. */
class Acceptor {
  public:
    struct Settings {
        asio::ip::tcp::endpoint listen;
        std::vector<std::string> allow = {}; ///< networks; empty: all
        U32_t limit = 0;                     ///< connections at a time; 0: usualLimit, or what
                                             ///< there are descriptors for
        U32_t usualLimit = 0;
        U32_t descriptors = 1; ///< of one connection and what comes with it
        U32_t hostLimit = 0;   ///< connections at a time from one address; 0: no limit
        U32_t rate = 0;        ///< connections taken a second
        int receiveBuffer = 0; ///< SO_RCVBUF of connections; 0: the system's choice
        int segmentSize = 0;   ///< TCP_MAXSEG of connections; 0: the system's choice
        bool refuses = false;  ///< bound, but nobody listens
    };

    struct Callbacks {
        Say say;
        /** @return why no connection is taken now; may be empty */
        std::function<std::optional<std::string>()> whyNot;
        /** A connection, which counts until leave() is called with its address. */
        std::function<void(asio::ip::tcp::socket, const asio::ip::tcp::endpoint&)> take;
    };

    /** Binds; throws std::system_error when it cannot, std::runtime_error when there are too few
     * descriptors. Nobody can connect before start(). */
    Acceptor(asio::io_context& context, Settings settings, Callbacks callbacks);

    /** Listens; throws std::system_error when it cannot. */
    void start();

    /** Takes no further connection. */
    void close();

    /** A connection that was taken has ended. */
    void leave(const asio::ip::address& address) { admission_.leave(address); }

    /** Says, not too often, that a connection was not taken, and counts it. */
    void refuse(const std::string& peer, const std::string& why);

    asio::ip::tcp::endpoint place() const { return acceptor_.local_endpoint(); }
    U64_t refused() const { return refused_; }

  private:
    using Clock = std::chrono::steady_clock;

    void bind();
    void awaitConnections();
    void acceptLater(std::chrono::milliseconds pause);
    void acceptAll();
    bool acceptOne();
    void take(asio::ip::tcp::socket socket);

    asio::io_context& context_;
    Settings settings_;
    Callbacks callbacks_;
    asio::ip::tcp::acceptor acceptor_{context_};
    asio::steady_timer pause_{context_};
    SpareDescriptor spare_;
    Admission admission_;
    Pace pace_;
    bool isClosed_ = false;
    U64_t refused_ = 0;
    Clock::time_point saidRefused_;
    U64_t refusedSilently_ = 0;
};

} // namespace evarchive

#endif
