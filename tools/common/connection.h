/**
 * @file
 * One connection of a tool: reads, sends, never waits for its peer, and can end in order.
 */
#ifndef TOOLS_CONNECTION_H
#define TOOLS_CONNECTION_H

#include "common/outgoing.h"

#include <asio.hpp>

#include <memory>
#include <span>

namespace tools {

/**
 * A stream socket of any kind. What a derived class makes of the bytes that come is its own; how
 * its messages go out is the business of its Outgoing.
 *
 * A connection lives as long as it is read or waits to send: what it has under way holds it. All
 * calls come from the one thread of the event loop.
 */
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    using Stream = asio::generic::stream_protocol::socket;

    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /** Sends what is queued, as far as it may go now; the rest follows by itself. */
    void flush();

    bool isOpen() const { return isOpen_; }
    bool isEnding() const { return isEnding_; }

  protected:
    /** @param outgoing of the derived class: lives as long as this */
    Connection(Stream socket, Outgoing& outgoing);

    /** Reads on, unless it is being read. */
    void read();

    /** Ends it in order: what is queued goes out, the peer is told, and what it still sends is
     * taken off the wire and thrown away until it ends as well. Nothing that is on its way is cut
     * by this; how long it may take is the caller's to watch. */
    void endInOrder();

    /** Ends it at once. */
    void close();

    int descriptor() { return socket_.native_handle(); }
    asio::any_io_executor executor() { return socket_.get_executor(); }

    /** Whether anything can still go out. */
    bool canSend() const { return isOpen_ && canSend_; }

    /** The peer takes something again. Whoever overrides it calls it. */
    virtual void writable();

  private:
    /** Where the next bytes go; not empty. Connections may share it: what comes is given out at
     * once. */
    virtual std::span<U8_t> space() = 0;

    /** So many bytes have come into space(); not called while it is being ended here. @return
     * whether to read on; if not, read() is called some time */
    virtual bool received(std::size_t bytes) = 0;

    /** The peer has ended the stream, or it has failed. Not called while it is being ended here. */
    virtual void peerEnded(std::error_code why) = 0;

    /** Outgoing was asked to send. */
    virtual void flushed(Outgoing::State state) = 0;

    /** It is no more; called once. */
    virtual void closed() {}

    void receive();
    void lost(std::error_code why);
    void send();
    void waitWritable();
    void waitAWhile();
    void finishEnd();

    Stream socket_;
    Outgoing& outgoing_;
    std::unique_ptr<asio::steady_timer> timer_; ///< made when something has to wait for its time
    std::chrono::microseconds delay_{0};
    bool isReading_ = false;
    bool isWaiting_ = false; ///< to send more
    bool canSend_ = true;
    bool isEnding_ = false;
    bool isOpen_ = true;
};

} // namespace tools

#endif
