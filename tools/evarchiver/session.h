/**
 * @file
 * One link as a conversation: bytes in, answers out. Knows no socket and no clock.
 *
 * A blade that was stalled can send a byte of a message twice. The message then has one byte more
 * than its header says, and that shows only behind it. So an event is filed when the border behind
 * it has been seen to be one: the next header has come, or nothing has for a while. A stream whose
 * border is none is given up together with the event before it; the blade's next status request is
 * then answered with the events before that one, and it sends again from there.
 */
#ifndef EVARCHIVER_SESSION_H
#define EVARCHIVER_SESSION_H

#include "archive.h"

namespace evarchive {

/** What the server is to do with the link. */
enum class Verdict {
    GO_ON,
    CLOSE, ///< said why, where there is something to say
};

/** Counted for all sessions together. */
struct SessionCounts {
    U64_t messages = 0;    ///< whole requests
    U64_t bordersLost = 0; ///< streams given up
    U64_t givenUp = 0;     ///< events given up with them
};

/** One link. */
class Session {
  public:
    using Answer = std::function<void(Bytes response)>;

    /**
     * @param peer   how texts call the other side
     * @param closeAfter close after so many messages; 0: never
     */
    Session(Archive& archive, SessionCounts& counts, std::string peer, Answer answer, Say say,
            U64_t closeAfter = 0);

    /** Takes what was received. Answers come from inside. Nothing more may be received after
     * CLOSE. */
    Verdict receive(View bytes);

    /** Nothing has come for a while: an event with nothing behind it is whole. */
    Verdict idle();

    /** The other side has ended the stream or the link has failed. */
    void end();

    /** Whether an event waits for the border behind it. */
    bool isUnsettled() const { return event_.has_value(); }

  private:
    Verdict take(View request);
    void keepEvent(View request);
    Verdict settle();
    void takeInquiry(View request);
    void takeStatusRequest(View request);
    Verdict giveUp(const char* reason);
    bool hasBorderBehind(View rest) const;

    Archive& archive_;
    SessionCounts& counts_;
    std::string peer_;
    Answer answer_;
    Say say_;
    U64_t closeAfter_;
    U64_t messages_ = 0;
    Bytes input_;                   ///< the beginning of a request
    std::optional<Bytes> event_;    ///< body of an event that waits for the border behind it
    std::optional<BladeKey> blade_; ///< who speaks, once a status request has said it
};

} // namespace evarchive

#endif
