/**
 * @file
 * One TCP connection of a blade.
 */
#ifndef EVARCHIVER_LINK_H
#define EVARCHIVER_LINK_H

#include "common/connection.h"
#include "options.h"
#include "outbox.h"
#include "session.h"
#include "times.h"

#include <list>

namespace evarchive {

using Clock = std::chrono::steady_clock;

class Link;

/** Counted for all links together. */
struct LinkCounts {
    SessionCounts sessions;
    U64_t received = 0;  ///< bytes
    U64_t shortened = 0; ///< answers that would not have arrived whole
    U64_t late = 0;      ///< requests that the archive did not answer in time
    U64_t shed = 0;      ///< links closed because too much waits
    U64_t refused = 0;   ///< connections not taken
    U64_t replaced = 0;  ///< links closed because their blade has a later one
    Times handshakes;    ///< from a status request to its answer
};

/** What a link needs of the server. All calls come from the loop's thread. */
class LinkHost {
  public:
    virtual ~LinkHost() = default;

    virtual const Options& options() const = 0;
    virtual LinkCounts& counts() = 0;
    virtual void say(Level level, const std::string& line) = 0;

    /** One for all links: what is in it is gone with the next one's turn. */
    virtual std::span<U8_t> receiveBuffer() = 0;

    /** @return whether there is room in the spool for what a link brings */
    virtual bool hasRoom(const Link& link) = 0;

    /** Hands a request to the link's lane. */
    virtual void submit(const Link& link, Batch::Kind kind, View body, U32_t ticket) = 0;

    /** The link's blade has said who it is. */
    virtual void speaks(Link& link, const BladeKey& blade) = 0;

    /** An event on the link waits for the border behind it. */
    virtual void unsettled(Link& link) = 0;

    /** Answers wait on the link: so many bytes more, or fewer. @return whether they may */
    virtual bool addUnsent(std::ptrdiff_t bytes) = 0;

    /** The link is no more; called once. */
    virtual void closed(Link& link) = 0;
};

/** A blade's connection. It closes itself. */
class Link final : public tools::Connection, private Requests {
  public:
    Link(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer, LinkNumber number,
         LinkHost& host);

    void start();

    /** Something that the archive says. */
    void deliver(Reply reply);

    /** Lets the session settle when nothing has come since @p since. @return whether it is to be
     * called again */
    bool settle(Clock::time_point since);

    /** Looks at what has been waited for too long. Called every second or so. */
    void checkTime(Clock::time_point now);

    /** Ends the link in order, after filing what is whole. */
    void end(Level level, const std::string& why);
    void end();

    /** Ends it at once. */
    using Connection::close;

    LinkNumber number() const { return number_; }
    const asio::ip::address& address() const { return address_; }
    const std::string& peer() const { return peer_; }
    const std::optional<BladeKey>& blade() const { return blade_; }

  private:
    /** A request that the archive has not answered. */
    struct Awaited {
        U32_t ticket = 0;
        U32_t handle = 0;
        std::optional<EmpEvInquiryMsg_t> inquiry = {}; ///< none: it is a status request
        Clock::time_point since = {};
        bool isLate = false; ///< answered without the archive
    };

    std::span<U8_t> space() override { return host_.receiveBuffer(); }
    bool received(std::size_t bytes) override;
    void peerEnded(std::error_code /*why*/) override { close(); }
    void flushed(tools::Outgoing::State state) override;
    void closed() override;

    void takeEvent(View body, Certainty certainty) override;
    void takeBackEvent(View body) override;
    void takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) override;
    void takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) override;

    U32_t await(Awaited awaited);
    void takeReply(const Reply& reply);
    void say(Level level, const std::string& line);
    void answerStatus(U32_t handle, const StatusVerdict& verdict);
    void answerInquiry(const Awaited& awaited, const std::optional<StoredEvent>& event);
    Bytes insteadOf(const Awaited& awaited) const;
    Bytes emptyAnswer(const Awaited& awaited, EMP_RESPONSE_e code) const;
    bool namesAsker(const EmpEvInquiryMsg_t& inquiry) const;
    bool wouldStopAsker(const Awaited& awaited) const;
    void giveUpWaiting(Awaited& awaited);
    void answer(Answer answer);
    void sendLate(const Answer& answer);
    void enqueue(Answer answer);
    bool countUnsent();

    asio::ip::address address_;
    std::string peer_;
    LinkNumber number_;
    LinkHost& host_;
    Session session_;
    Outbox outbox_;
    std::size_t unsent_ = 0; ///< bytes that the host counts for this link
    std::list<Awaited> awaited_;
    U32_t lastTicket_ = 0;
    std::list<std::pair<U32_t, Clock::time_point>> lastHandles_; ///< of inquiries of type LAST
    std::optional<BladeKey> blade_;
    std::unique_ptr<EmpGetEvArchiverStatusMsg_t> status_; ///< the last one
    U32_t statusHandle_ = 0;
    bool isFlooding_ = false;
    bool hasResent_ = false; ///< a resend was asked for once
    Clock::time_point begun_ = Clock::now();
    Clock::time_point lastHeard_ = begun_;
    Clock::time_point endingSince_;
};

} // namespace evarchive

#endif
