/**
 * @file
 * One blade's link through this end of the gate: a plain connection within the house, a TLS one
 * without.
 */
#ifndef EVGATE_LINK_H
#define EVGATE_LINK_H

#include "messages.h"
#include "options.h"
#include "say.h"
#include "tls.h"

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <optional>

namespace evgate {

using Clock = std::chrono::steady_clock;
using evarchive::Level;

class Link;

/** Counted for all links together. */
struct GateCounts {
    U64_t links = 0;     ///< that stood
    U64_t failed = 0;    ///< that did not come to stand
    U64_t denied = 0;    ///< ended because of what their certificate does not allow
    U64_t shortened = 0; ///< answers that would not have arrived whole
    U64_t requests = 0;  ///< whole ones that went on
    U64_t answers = 0;   ///< whole ones that went on; site only
};

/** What a link needs of the gate. */
class LinkHost {
  public:
    virtual ~LinkHost() = default;

    virtual const Options& options() const = 0;
    virtual GateCounts& counts() = 0;
    virtual void say(Level level, const std::string& line) = 0;
    virtual const TlsContext& tls() const = 0;
    virtual Rights rightsOf(const std::vector<std::string>& names) const = 0;

    /** One for all links: what is in it is gone with the next one's turn. */
    virtual std::span<U8_t> receiveBuffer() = 0;

    /** The link did not come to stand; said not too often. */
    virtual void failed(const Link& link, const std::string& why) = 0;

    /** The link is no more; called once. */
    virtual void closed(Link& link) = 0;
};

/**
 * A link, kept alive by its own outstanding waits. It closes itself. What one side sends is read
 * only when the other side has taken what came before: memory is bounded, and who is slow slows
 * down his peer. The end of either stream is passed on behind its last byte.
 */
class Link : public std::enable_shared_from_this<Link> {
  public:
    using Socket = asio::ip::tcp::socket;

    /** @param taken the connection that was accepted: the plain one at the site, the TLS one at the
     * archive */
    Link(Socket taken, const asio::ip::tcp::endpoint& peer, U64_t number, LinkHost& host);

    void start();

    /** Looks at what has been waited for too long. Called every second or so. */
    void checkTime(Clock::time_point now);

    /** The files were read again: ends the link when they speak against the other end. */
    void checkPeer();

    /** Ends the link: what is whole goes on, and what still comes is read away. */
    void end(Level level, const std::string& why);
    void end();

    void close();

    U64_t number() const { return number_; }
    const asio::ip::address& address() const { return address_; }
    const std::string& peer() const { return peer_; }

  private:
    /** How far it has come. */
    enum class Stage : U8_t { CONNECTING, SHAKING_HANDS, OPEN, ENDING, CLOSED };

    /** One of the two connections. */
    struct Side {
        explicit Side(Socket connection) : socket(std::move(connection)) {}

        Socket socket;
        bool isAwaited[2] = {};  ///< readable, writable
        bool hasEnded = false;   ///< nothing more comes from it
        bool isFinished = false; ///< nothing more goes to it, and it knows
    };

    enum Direction : int { FOR_READING, FOR_WRITING };

    bool isSite() const { return host_.options().end == GateEnd::SITE; }
    bool isOpen() const { return stage_ == Stage::OPEN || stage_ == Stage::ENDING; }
    void connect(Side& side);
    void shakeHands();
    void admit();
    std::string objection();
    void fail(const std::string& why);
    void open();

    void turn();
    void turnLater();
    bool readInner();
    bool readOuter();
    void takeFromInner(View bytes);
    void takeFromOuter(View bytes);
    bool pass(View request);
    void passRest();
    bool mustWait(Step step);
    bool hasRoomForOuter() const;
    bool flushOuter();
    bool flushInner();
    void flushAnswers();
    void flushAnswersLater();
    void passEndsOn();
    void outerEnded();
    void outerFailed();
    void innerFailed();
    void awaitAll();
    void await(Side& side, Direction direction);

    LinkHost& host_;
    asio::ip::address address_;
    std::string peer_;
    U64_t number_;
    Side inner_; ///< plain: the blade at the site, the archiver at the archive
    Side outer_; ///< TLS
    std::optional<TlsStream> tls_;
    std::string certificate_;      ///< the peer's first name, for lines
    S64_t validUntil_ = INT64_MAX; ///< the peer's certificate; seconds since 1970-01-01 UTC
    MessageReader requests_;
    MessageReader answers_; ///< site
    Asked asked_;           ///< site
    Guard guard_{Rights{}}; ///< archive
    Bytes toOuter_;
    Bytes toInner_;            ///< archive
    evarchive::Outbox outbox_; ///< site: answers leave whole
    asio::steady_timer flush_; ///< site
    std::chrono::microseconds flushDelay_{0};
    bool isFlushAwaited_ = false;
    bool outerNeeds_[2] = {}; ///< what TLS waits for
    Stage stage_ = Stage::CONNECTING;
    Clock::time_point since_ = Clock::now(); ///< of the stage
    Clock::time_point taken_ = since_;       ///< when the blade last took an answer
    std::optional<Clock::time_point> halfClosed_;
};

} // namespace evgate

#endif
