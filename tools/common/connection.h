/**
 * @file
 * One connection that carries local messages: reads, sends, never waits for its peer.
 */
#ifndef TOOLS_CONNECTION_H
#define TOOLS_CONNECTION_H

#include "common/frame.h"
#include "common/out_queue.h"

#include <asio.hpp>

#include <functional>
#include <memory>
#include <span>
#include <string>

namespace tools {

using Socket = asio::local::stream_protocol::socket;

/** How a connection ended. */
enum class End {
    Closed,    ///< by its peer, between two messages
    Broken,    ///< by its peer, in the middle of a message
    BadLength, ///< from this side, because of a bad mmsg_length
    Failed,    ///< by an error of the socket
    GivenUp,   ///< from this side, by close()
};

/**
 * A connection that lives as long as it is read: the asynchronous read holds it. What the peer has
 * sent is taken to its last byte, even when the peer is already gone. All calls come from the one
 * thread of the event loop; no callback is called from within a call, but for close().
 */
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    struct Callbacks {
        /**
         * A whole message; it may be changed in place, and is gone after the call.
         * @return false when it cannot be taken now: it stays, and the peer is not read any further
         * until resume()
         */
        std::function<bool(Connection&, std::span<U8_t>)> message;
        /** Everything that arrived together was given out: the time to flush(). May be empty. */
        std::function<void()> batch;
        /** The connection has ended; called once. */
        std::function<void(Connection&, End)> end;
        /** The peer has taken some of what waited for it. May be empty. */
        std::function<void(Connection&)> progress;
    };

    /**
     * @param name      for lines: "startup#3"
     * @param queueMax  messages that may wait for the peer
     */
    Connection(Socket socket, std::string name, size_t queueMax, Callbacks callbacks);

    /** Begins to read. */
    void start();

    /** Reads on after a message that was not taken, which is given out again first. */
    void resume();

    /** Ends the connection, after a line that says why. What was not given out yet is lost. */
    void close(const std::string& why);

    /**
     * Queues a message, which goes out with the next flush() together with others.
     * @return false when it was dropped: the queue is full, or the peer takes no more
     */
    bool post(std::span<const U8_t> message);

    /** Sends what is queued, as far as the peer takes it now; the rest follows by itself. */
    void flush();

    /** post() and flush(). */
    bool send(std::span<const U8_t> message);

    /** @return whether post() would take a message now */
    bool hasRoom();

    /** Whether the peer is gone, also while what it sent last is still to be read. */
    bool peerIsGone();

    /** Messages that post() took and that have not gone out: they wait, or the peer is gone. */
    OutQueue& unsent() { return queue_; }
    const OutQueue& unsent() const { return queue_; }

    const std::string& name() const { return name_; }

  private:
    void read();
    void takeMessages();
    void endOfStream(std::error_code error);
    bool sendPiece();
    void sendAll();
    void waitWritable();
    void sayDrops();
    void finish(End end, const std::string& why);

    Socket socket_;
    std::string name_;
    size_t queueMax_;
    Callbacks callbacks_;
    FrameReader frames_;
    OutQueue queue_;
    size_t dropped_ = 0;   ///< since the queue was last empty
    bool canSend_ = true;  ///< false once the peer takes nothing any more
    bool waiting_ = false; ///< for the peer to take more
    bool open_ = true;     ///< false once the end was said
};

} // namespace tools

#endif
