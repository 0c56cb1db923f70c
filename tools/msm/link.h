/**
 * @file
 * The way to the other blade: two connections to its switch, made again whenever one is lost.
 *
 * Each switch connects to the other's link socket and only sends there; what comes from the other
 * blade comes through the switch's own link socket. So both sides are alike and may start in any
 * order. What is for the other blade's event manager has a connection of its own: the other switch
 * stops reading that one while its event manager takes nothing, and nothing else waits for it.
 */
#ifndef MSM_LINK_H
#define MSM_LINK_H

#include "common/message_connection.h"

#include <array>
#include <functional>
#include <memory>

namespace msm {

using Connection = tools::MessageConnection;
using tools::End;
using tools::Socket;

class Link {
  public:
    /** Begins to connect to the other switch's link socket.
     * @param queueMax    as for Connection, for each of the two
     * @param progressed  called when the other switch took some of what is for its event
     *                    manager, or ended */
    Link(asio::io_context& loop, std::string path, size_t queueMax,
         std::function<void()> progressed);

    /** Queues a message for the other blade, until flush(). @return false when it was dropped: the
     * other switch is not there, or too slow */
    bool post(std::span<const U8_t> message);

    /** Sends what is queued. */
    void flush();

    /** The other switch is there, but takes no more for its event manager now. */
    bool eventsMustWait();

    /** Enough of them went out, or wait no more, for their senders to go on. */
    bool eventsHaveRoom() const;

    /** Messages that post() took and that never reached the other switch, or wait for it. */
    size_t unsent() const;

  private:
    enum Way : size_t { EVENTS, OTHERS, WAYS };

    void connect(Way way);
    void retry(const std::string& why);
    void connected(Way way);
    void lost();
    bool isUp() const { return ways_[OTHERS] != nullptr; }

    asio::io_context& loop_;
    std::string path_;
    size_t queueMax_;
    std::function<void()> progressed_;
    Socket socket_; ///< that is being connected
    asio::steady_timer timer_;
    std::array<std::shared_ptr<Connection>, WAYS> ways_; ///< made in this order
    tools::OutQueue kept_;    ///< for the event manager, when the other switch ended
    bool complained_ = false; ///< the missing peer was mentioned
    size_t lost_ = 0;         ///< messages in queues of connections that ended
};

} // namespace msm

#endif
