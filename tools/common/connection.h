/**
 * @file
 * One connection that carries local messages: reads, sends, never waits for its peer.
 */
#ifndef TOOLS_CONNECTION_H
#define TOOLS_CONNECTION_H

#include "common/frame.h"

#include <asio.hpp>

#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tools {

using Socket = asio::local::stream_protocol::socket;

/** How a connection ended. */
enum class End {
    Closed,    ///< by its peer, between two messages
    Broken,    ///< by its peer, in the middle of a message
    BadLength, ///< from this side, because of a bad mmsg_length
    Failed,    ///< by an error of the socket
};

/**
 * A connection that lives as long as it is read: the asynchronous read holds it. What the peer has
 * sent is taken to its last byte, even when the peer is already gone. All calls come from the one
 * thread of the event loop; no callback is called from within a call.
 */
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    struct Callbacks {
        /** A whole message; it may be changed in place, and is gone after the call. */
        std::function<void(Connection&, std::span<U8_t>)> message;
        /** The connection has ended; called once. */
        std::function<void(Connection&, End)> end;
    };

    /**
     * @param name      for lines: "startup#3"
     * @param queueMax  messages that may wait for the peer
     */
    Connection(Socket socket, std::string name, size_t queueMax, Callbacks callbacks);

    /** Begins to read. */
    void start();

    /**
     * Sends a message with one send, or queues it while the peer is slow.
     * @return false when it was dropped: the queue is full, or the peer takes no more
     */
    bool send(std::span<const U8_t> message);

    /** Messages that send() took and that have not gone out: they wait, or the peer is gone. */
    size_t unsent() const { return queue_.size(); }

    const std::string& name() const { return name_; }

  private:
    using Message = std::vector<U8_t>;

    void read();
    void takeMessages();
    void endOfStream(std::error_code error);
    bool sendNow(std::span<const U8_t>& rest);
    void waitWritable();
    void drain();
    void sayDrops();
    void finish(End end, const std::string& why);

    Socket socket_;
    std::string name_;
    size_t queueMax_;
    Callbacks callbacks_;
    FrameReader frames_;
    std::deque<Message> queue_;
    size_t dropped_ = 0;  ///< since the queue was last empty
    bool canSend_ = true; ///< false once the peer takes nothing any more
};

} // namespace tools

#endif
