/**
 * @file
 * Senders that wait for the event manager.
 */
#ifndef MSM_HOLD_H
#define MSM_HOLD_H

#include "common/message_connection.h"

#include <chrono>
#include <deque>
#include <functional>
#include <memory>

namespace msm {

using Connection = tools::MessageConnection;

/** Connections that are not read because their next message cannot be delivered yet, in the order
 * in which they came. Each waits a bounded time in which the receiver takes nothing. */
class Hold {
  public:
    using Expired = std::function<void(Connection&)>;

    /** @param expired called for a connection that waited for @p limit; it is forgotten then */
    Hold(asio::io_context& loop, std::chrono::seconds limit, Expired expired);

    void add(std::shared_ptr<Connection> connection);

    /** The receiver took something: everybody's time begins again. */
    void restart();

    /** There is room again: everybody is read again, in order. */
    void release();

    bool empty() const { return held_.empty(); }

  private:
    using Clock = std::chrono::steady_clock;
    struct Held {
        std::shared_ptr<Connection> connection;
        Clock::time_point since;
    };

    void watch();
    void expire();

    std::chrono::seconds limit_;
    Expired expired_;
    asio::steady_timer timer_;
    bool watching_ = false;
    std::deque<Held> held_; ///< ascending by time
};

} // namespace msm

#endif
