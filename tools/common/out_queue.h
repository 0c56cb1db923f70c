/**
 * @file
 * Messages that wait for one peer, as one run of bytes.
 */
#ifndef TOOLS_OUT_QUEUE_H
#define TOOLS_OUT_QUEUE_H

#include "common/outgoing.h"
#include "mmsg.h"

#include <span>
#include <vector>

namespace tools {

/** A queue of whole messages; only the first may have gone out in part. As many go out with one
 * send as a peer surely finds whole. */
class OutQueue final : public Outgoing {
  public:
    /** Most bytes of a piece that holds more than one message: the kernel keeps so much together,
     * so that a peer never sees a message's first byte without its last. */
    static constexpr size_t PIECE_MAX = size_t{3} * MMSG_MAX_LENGTH;

    /** @param message a whole message: as long as its mmsg_length says */
    void push(std::span<const U8_t> message);

    /** Moves all messages of @p other behind those that are here, its first one whole again. */
    void append(OutQueue& other);

    size_t count() const { return count_; } ///< messages that have not gone out to their last byte
    bool empty() const { return count_ == 0; }

    /** What one send should carry: what is left of the first message and whole ones behind it.
     * Valid until the next call of another function. */
    std::span<const U8_t> piece() const;

    /** Says how many bytes of piece() went out. */
    void sent(size_t bytes);

    State flush(int descriptor) override;
    size_t bytes() const override { return bytes_.size() - begin_ - firstSent_; }

  private:
    size_t lengthAt(size_t position) const;
    void giveBackMemory();

    std::vector<U8_t> bytes_;
    size_t begin_ = 0;     ///< where the first message begins
    size_t firstSent_ = 0; ///< bytes of the first message that went out
    size_t count_ = 0;
};

} // namespace tools

#endif
