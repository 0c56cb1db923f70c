/**
 * @file
 * A simulated blade: its log, and its link to an archiver as an event manager keeps it. It asks for
 * the archiver's status first, forwards from there, takes a status answer at any time, and takes
 * the body of an answer with one receive: a short one is the end of an event manager.
 */
#ifndef EVFLEET_BLADE_LINK_H
#define EVFLEET_BLADE_LINK_H

#include "evfleet/simulated_log.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <random>

namespace evfleet {

/** Counted for all blades together. */
struct FleetCounts {
    U64_t sent = 0;       ///< events written whole, again ones included
    U64_t connects = 0;   ///< connections that came to be
    U64_t handshakes = 0; ///< status answers
    U64_t failedConnects = 0;
    U64_t closedByPeer = 0;
    U64_t outages = 0;      ///< links cut from here
    U64_t restarts = 0;     ///< of event managers, among the outages
    U64_t died = 0;         ///< answers that did not arrive whole: each ends an event manager
    U64_t claimsBeyond = 0; ///< claims of ids that the log has never given out
};

/** How a link is cut. */
enum class Outage {
    CLOSE,       ///< in order, between two messages
    RESET,       ///< within a message
    ABANDON,     ///< nothing more is sent, and a new link is made beside the old one
    REPEAT_BYTE, ///< a message has one of its bytes twice, as a stalled event manager sends it
    RESTART,     ///< the event manager is killed within a message; its log stays, all else is new
};
constexpr int OUTAGE_KINDS = 5;

/** What all blades share. */
struct FleetContext {
    asio::io_context io{1};
    std::vector<asio::ip::tcp::endpoint> archivers; ///< each connection takes one by chance
    std::chrono::milliseconds reconnect{1000};      ///< from the end of a link to the next try
    bool oneByOne = false; ///< one event a segment, as event managers send; else what fits
    FleetCounts counts;
    std::mt19937_64 random;
    Bytes scratch;                                ///< of the sender at work
    std::vector<asio::ip::tcp::socket> abandoned; ///< open, and never touched again
};

/** One blade. */
class BladeLink {
  public:
    BladeLink(FleetContext& fleet, SimulatedLog log);

    const SimulatedLog& log() const { return log_; }

    /** Connects; from then on the link comes back by itself after each end. */
    void connect();

    /** Logs events and forwards them if the link is open. */
    void logEvents(U32_t count);

    /** Cuts the link after @p events further events have been forwarded. */
    void cutAfter(U64_t events, Outage outage);

    /** The log is lost, the event manager starts anew. */
    void rebuild();

    /** Closes the link and connects again at once. */
    void reconnectNow();

    /** Ends the link for good. */
    void stop();

    bool isOpen() const { return isOpen_; }

    /** Whether everything in the log has been written to an open link. */
    bool isCaughtUp() const { return isOpen_ && rest_.empty() && cursor_ + 1 == log_.next(); }

  private:
    static constexpr U32_t FIRST_HANDLE = 1000; ///< of an event manager that has just started

    void connected(const asio::error_code& error);
    void closed();
    void reset();
    void reconnectLater(std::chrono::milliseconds wait);
    void awaitAnswer();
    bool receiveAnswer();
    void takeStatusAnswer(const U8_t* body);
    void forward();
    void fillScratch();
    void written(std::size_t size);
    void awaitRoom();
    bool sendRest();
    void cut();
    void sendHalfAMessage();
    void repeatByte();

    FleetContext& fleet_;
    SimulatedLog log_;
    asio::ip::tcp::socket socket_;
    asio::steady_timer timer_;
    U64_t life_ = 0; ///< of the socket: what was begun for an earlier one is void
    U32_t handle_ = FIRST_HANDLE;
    U32_t cursor_ = 0; ///< last id forwarded
    bool isOpen_ = false;
    bool isWaitingForRoom_ = false;
    bool isStopped_ = false;
    Bytes rest_; ///< of a message that went out in part
    std::vector<std::size_t> borders_;
    U64_t untilCut_ = 0; ///< events; 0: none planned
    Outage outage_ = Outage::CLOSE;
};

} // namespace evfleet

#endif
