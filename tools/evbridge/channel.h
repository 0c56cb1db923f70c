/**
 * @file
 * The way to a receiver: datagrams, a stream, or a stream through TLS.
 */
#ifndef EVBRIDGE_CHANNEL_H
#define EVBRIDGE_CHANNEL_H

#include "tls.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace evbridge {

/** How long a receiver may take nothing. */
constexpr std::chrono::seconds PATIENCE{5};

/** Where to. */
struct Place {
    int family = AF_UNIX;
    int type = SOCK_DGRAM;
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string text{};    ///< for lines
    std::string host{};    ///< the address without its port
    std::string tlsName{}; ///< who the receiver must prove to be; empty: its host
};

/** Throws std::invalid_argument. */
Place unixPlace(const std::string& path);

/** "192.0.2.9:601", "[2001:db8::9]:601" or "601" on the loopback. Throws std::invalid_argument. */
Place inetPlace(const std::string& text, int type);

/** Every call throws SinkAway when the receiver is away or takes nothing; the connection is no more
 * then. */
class Channel {
  public:
    explicit Channel(Place place) : place_(std::move(place)) {}

    /** A stream through TLS. Throws std::runtime_error when a file cannot be used. */
    Channel(Place place, const evgate::TlsFiles& files);
    ~Channel() { drop(); }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    bool isUp() const { return descriptor_ >= 0; }

    /** Connects, unless it is up. @return whether it was not */
    bool bringUp();

    /** Sends all of it; as one datagram where it is datagrams.
     * @return false: no datagram can be so long, nothing was sent */
    bool put(std::string_view bytes);

    /** Some bytes that have come. */
    std::string take(std::chrono::milliseconds patience);

    /** Returns once the receiver's system has acknowledged all bytes of the stream, and the
     * receiver still listens. */
    void awaitAcknowledgement();

    [[noreturn]] void fail(const std::string& why);
    void drop();

  private:
    using Clock = std::chrono::steady_clock;

    void connect();
    void shakeHands();
    evgate::Step writeOnce(std::string_view bytes, std::size_t& size);
    evgate::Step readOnce(std::span<U8_t> space, std::size_t& size);
    void await(evgate::Step step, Clock::time_point end);
    bool isReadableWithin(std::chrono::milliseconds time) const;
    void failOf(evgate::Step step);

    Place place_;
    std::optional<evgate::TlsContext> context_;
    std::optional<evgate::TlsStream> tls_;
    int descriptor_ = -1;
};

} // namespace evbridge

#endif
