/**
 * @file
 * The messages that pass through: cut out of the stream, checked, remembered. Knows no socket.
 */
#ifndef EVGATE_MESSAGES_H
#define EVGATE_MESSAGES_H

#include "certificate_map.h"
#include "outbox.h"

#include <functional>
#include <optional>

namespace evgate {

using evarchive::Answer;
using evarchive::Bytes;
using evarchive::Judgement;
using evarchive::View;

/** Judges the bytes at a supposed border of answers: what an event manager takes for a message. */
Judgement judgeAnswer(View bytes);

/** Cuts one direction of a link into messages. */
class MessageReader {
  public:
    /** @param judge evarchive::judgeBorder for what blades send, judgeAnswer for what comes back */
    explicit MessageReader(Judgement (*judge)(View)) : judge_(judge) {}

    /** What a taker says of a message. */
    using Take = std::function<bool(View message)>;

    /**
     * Takes what was received.
     * @param take called for each whole message, just as it was sent; false: no further one
     * @return false when no further message comes: take() said so, or the borders are lost
     */
    bool receive(View bytes, const Take& take);

    /** Why the borders are lost; nothing: they are not. */
    const char* lost() const { return lost_; }

    /** The beginning of a message, or of what is none. */
    View rest() const { return input_; }

  private:
    Judgement (*judge_)(View);
    Bytes input_;
    const char* lost_ = nullptr;
};

/** At the site: what a blade has asked, so that an answer too long to arrive whole can be replaced
 * by one that helps. */
class Asked {
  public:
    /** A request has passed. */
    void note(View request);

    /** An answer, and what goes out when it is too long. */
    Answer answerOf(View message);

  private:
    struct Inquiry {
        U32_t handle;
        EmpEvInquiryMsg_t image;
    };

    bool namesAsker(const EmpEvInquiryMsg_t& inquiry) const;

    std::optional<EmpGetEvArchiverStatusMsg_t> asker_;
    std::list<Inquiry> inquiries_;
};

/** At the archive: only what a link's certificate allows goes on. */
class Guard {
  public:
    explicit Guard(Rights rights) : rights_(std::move(rights)) {}

    void setRights(Rights rights) { rights_ = std::move(rights); }

    /**
     * Appends a request to what goes on to the archiver. An inquiry about an enclosure that may not
     * be asked about goes on without a name: nothing is found.
     * @return the enclosure that may not be spoken for; nothing: it went on
     */
    std::optional<std::string> pass(View request, Bytes& onward) const;

  private:
    Rights rights_;
};

} // namespace evgate

#endif
