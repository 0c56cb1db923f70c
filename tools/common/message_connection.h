/**
 * @file
 * One connection that carries local messages.
 */
#ifndef TOOLS_MESSAGE_CONNECTION_H
#define TOOLS_MESSAGE_CONNECTION_H

#include "common/connection.h"
#include "common/frame.h"
#include "common/out_queue.h"

#include <functional>
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
 * A Connection whose peer's messages are given out one by one. What the peer has sent is taken to
 * its last byte, even when it takes nothing any more. No callback is called from within a call, but
 * for close().
 */
class MessageConnection final : public Connection {
  public:
    struct Callbacks {
        /**
         * A whole message; it may be changed in place, and is gone after the call.
         * @return false when it cannot be taken now: it stays, and the peer is not read any further
         * until resume()
         */
        std::function<bool(MessageConnection&, std::span<U8_t>)> message;
        /** Everything that arrived together was given out: the time to flush(). May be empty. */
        std::function<void()> batch;
        /** The connection has ended; called once. */
        std::function<void(MessageConnection&, End)> end;
        /** The peer has taken some of what waited for it. May be empty. */
        std::function<void(MessageConnection&)> progress;
    };

    /**
     * @param name      for lines: "startup#3"
     * @param queueMax  messages that may wait for the peer
     */
    MessageConnection(Socket socket, std::string name, size_t queueMax, Callbacks callbacks);

    std::shared_ptr<MessageConnection> shared_from_this() {
        return std::static_pointer_cast<MessageConnection>(Connection::shared_from_this());
    }

    /** Begins to read. */
    void start() { read(); }

    /** Reads on after a message that was not taken, which is given out again first. */
    void resume();

    /** Ends the connection, after a line that says why. What was not given out yet is lost. */
    void close(const std::string& why);

    /**
     * Queues a message, which goes out with the next flush() together with others.
     * @return false when it was dropped: the queue is full, or the peer takes no more
     */
    bool post(std::span<const U8_t> message);

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
    std::span<U8_t> space() override { return frames_.space(); }
    bool received(size_t bytes) override;
    void peerEnded(std::error_code why) override;
    void flushed(Outgoing::State state) override;
    void writable() override;
    bool takeMessages();
    void sayDrops();
    void finish(End end, const std::string& why);

    std::string name_;
    size_t queueMax_;
    Callbacks callbacks_;
    FrameReader frames_;
    OutQueue queue_;
    size_t dropped_ = 0; ///< since the queue was last empty
};

} // namespace tools

#endif
