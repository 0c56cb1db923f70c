/**
 * @file
 * One link as a conversation: bytes in, requests out. Knows no socket, no clock and no archive.
 *
 * A blade that was stalled can send a byte of a message twice. The message then has one byte more
 * than its header says, and that shows only behind it. So an event is certain when the border
 * behind it has been seen to be one: the next header has come, or nothing has for long. Until then
 * it is passed on as doubtful. A stream whose border is none is given up together with the event
 * before it, which is taken back; the blade's next status request is then answered with the events
 * before that one, and it sends again from there.
 */
#ifndef EVARCHIVER_SESSION_H
#define EVARCHIVER_SESSION_H

#include "rules.h"
#include "say.h"

namespace evarchive {

/** What the server is to do with the link. */
enum class Verdict : U8_t {
    GO_ON,
    CLOSE, ///< said why, where there is something to say
};

/** Counted for all sessions together. */
struct SessionCounts {
    U64_t messages = 0;    ///< whole requests
    U64_t bordersLost = 0; ///< streams given up
    U64_t givenUp = 0;     ///< events given up with them
};

/** Who takes what a session brings. The views are gone after the call. */
class Requests {
  public:
    virtual ~Requests() = default;

    /** An event: EmpEvLogMsg_t. It comes again with more certainty, unless this is certain. */
    virtual void takeEvent(View body, Certainty certainty) = 0;

    /** An event that was passed on already is not what the blade sent. */
    virtual void takeBackEvent(View body) = 0;

    virtual void takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) = 0;
    virtual void takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) = 0;
};

/** One link. */
class Session {
  public:
    /** @param closeAfter close after so many messages; 0: never */
    Session(Requests& requests, SessionCounts& counts, Say say, U64_t closeAfter = 0);

    /** Takes what was received. Nothing more may be received after CLOSE. */
    Verdict receive(View bytes);

    /** Nothing has come for a moment. */
    void idle();

    /** Nothing has come for long: what came whole was meant so. */
    void idleForLong();

    /** The other side has ended the stream or the link has failed. */
    void end();

    /** Whether idle() and idleForLong() have something to do. */
    bool isUnsettled() const { return atHand_ && stage_ != Stage::SETTLED && input_.empty(); }

    U64_t messages() const { return messages_; }

  private:
    /** How far the event at hand has got. */
    enum class Stage : U8_t {
        FRESH,    ///< nobody knows of it
        DOUBTFUL, ///< passed on as doubtful
        SETTLED,  ///< passed on as certain, because nothing came behind it for long
    };

    std::size_t parse(View bytes, Verdict& verdict);
    Verdict take(View request, View behind);
    void takeEvent(View body, View behind);
    void settle(Certainty certainty);
    Verdict giveUp(const char* reason, View event);

    Requests& requests_;
    SessionCounts& counts_;
    Say say_;
    U64_t closeAfter_;
    U64_t messages_ = 0;
    Bytes input_;                 ///< the beginning of a request
    std::optional<Bytes> atHand_; ///< body of an event that waits for the border behind it
    Stage stage_ = Stage::FRESH;
};

} // namespace evarchive

#endif
