/**
 * @file
 * The answers that wait for a link to take them, one after the other.
 */
#ifndef EVARCHIVER_OUTBOX_H
#define EVARCHIVER_OUTBOX_H

#include "common/outgoing.h"
#include "protocol.h"

#include <list>

namespace evarchive {

/** A response, and what goes out when it is too long to arrive whole. */
struct Answer {
    Bytes message;
    Bytes instead; ///< shorter; empty: nothing goes out instead, the link cannot be served
};

/** The answers of one link; each goes out whole and alone, see whole_send.h. */
class Outbox final : public tools::Outgoing {
  public:
    /** @param longest overrides what the connection says that arrives whole; 0: it does not */
    explicit Outbox(std::size_t longest) : longest_(longest) {}

    void add(Answer answer);

    State flush(int descriptor) override;
    std::size_t bytes() const override { return bytes_; }

    /** Whether it is broken because not even a short answer arrives whole on this link. */
    bool isTooLong() const { return isTooLong_; }

    /** Answers that went out in short, since the last call; with the length of the last of them and
     * what would have arrived whole. */
    struct Shortened {
        U64_t count = 0;
        std::size_t length = 0;
        std::size_t longest = 0;
    };
    Shortened takeShortened();

  private:
    bool shorten(Answer& answer, int descriptor);

    std::size_t longest_;
    std::list<Answer> answers_;
    std::size_t bytes_ = 0;
    bool isTooLong_ = false;
    Shortened shortened_;
};

} // namespace evarchive

#endif
