/**
 * @file
 * One TCP connection of a blade.
 */
#ifndef EVARCHIVER_LINK_H
#define EVARCHIVER_LINK_H

#include "options.h"
#include "session.h"

#include <array>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <deque>
#include <memory>

namespace evarchive {

using Clock = std::chrono::steady_clock;

/** A connection, kept alive by its own outstanding operations. It closes itself. */
class Link : public std::enable_shared_from_this<Link> {
  public:
    /** What a link tells its server. */
    struct Listener {
        std::function<void()> heard;                              ///< after each piece received
        std::function<void(const std::shared_ptr<Link>&)> closed; ///< once, at the end
    };

    Link(asio::ip::tcp::socket socket, const std::string& peer, const Options& options,
         Archive& archive, SessionCounts& counts, Listener listener, Say say);

    void start();

    /** Lets the session settle when nothing has come since @p since. */
    void idleSince(Clock::time_point since);

    bool isUnsettled() const { return session_.isUnsettled(); }

    /** Files what is whole and closes. */
    void close();

  private:
    void read();
    void received(std::size_t length);
    void answer(Bytes response);
    void sendLate(Bytes response);
    void enqueue(Bytes response);
    void flush();
    void waitForRoom();

    asio::ip::tcp::socket socket_;
    std::string peer_;
    const Options& options_;
    Listener listener_;
    Say say_;
    Session session_;
    std::array<U8_t, 32'768> input_{};
    std::deque<Bytes> output_;
    std::size_t outputBytes_ = 0;
    bool isWaitingForRoom_ = false;
    bool isFailed_ = false; ///< to be closed once the session has returned
    bool isClosed_ = false;
    Clock::time_point lastHeard_ = Clock::now();
};

} // namespace evarchive

#endif
