/**
 * @file
 * The way to the other blade: a connection to its switch, made again whenever it is lost.
 *
 * Each switch connects to the other's link socket and only sends there; what comes from the other
 * blade comes through the switch's own link socket. So both sides are alike and may start in any
 * order.
 */
#ifndef MSM_LINK_H
#define MSM_LINK_H

#include "common/connection.h"

namespace msm {

using tools::Connection;
using tools::End;
using tools::Socket;

class Link {
  public:
    /** Begins to connect to the other switch's link socket. @param queueMax as for Connection */
    Link(asio::io_context& loop, std::string path, size_t queueMax);

    /** Queues a message for the other blade, until flush(). @return false when it was dropped: the
     * other switch is not there, or too slow */
    bool post(std::span<const U8_t> message);

    /** Sends what is queued. */
    void flush();

    /** Messages that post() took and that never reached the other switch, or wait for it. */
    size_t unsent() const { return lost_ + (connection_ ? connection_->unsent().count() : 0); }

  private:
    void connect();
    void retry(const std::string& why);
    void connected();

    asio::io_context& loop_;
    std::string path_;
    size_t queueMax_;
    Socket socket_;
    asio::steady_timer timer_;
    std::shared_ptr<Connection> connection_; ///< while linked
    bool complained_ = false;                ///< the missing peer was mentioned
    size_t lost_ = 0;                        ///< messages in queues of connections that ended
};

} // namespace msm

#endif
