/**
 * @file
 * Cuts a stream of bytes into messages.
 */
#ifndef TOOLS_FRAME_H
#define TOOLS_FRAME_H

#include "mmsg.h"

#include <cstddef>
#include <memory>
#include <span>

namespace tools {

/** mmsg_length of a header of 64 bytes. */
U16_t messageLength(const U8_t* header);

/** Collects what one connection sends and gives it out message by message. */
class FrameReader {
  public:
    enum class Outcome {
        Message,    ///< a whole message
        Incomplete, ///< more bytes are needed
        BadLength,  ///< mmsg_length is outside 64 to 4064: the stream cannot be followed any more
    };

    FrameReader();

    /** Where the next bytes of the stream go: always room for a whole message at least. Invalidates
     * what next() gave. */
    std::span<U8_t> space();

    /** Says how many bytes were put into space(). */
    void commit(size_t bytes);

    /**
     * The next message.
     * @param message set for Outcome::Message: the message, writable, valid until the next space()
     */
    Outcome next(std::span<U8_t>& message);

    /** Takes back the message that next() just gave: it is the next one again. */
    void putBack(std::span<const U8_t> message) { begin_ -= message.size(); }

    size_t pending() const { return end_ - begin_; } ///< bytes that next() has not given out

    /** mmsg_length of the message that has begun; 0 while its header is incomplete. */
    U16_t announcedLength() const;

  private:
    // Many messages a system call under load.
    static constexpr size_t CAPACITY = size_t{16} * MMSG_MAX_LENGTH;

    std::unique_ptr<U8_t[]> bytes_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

} // namespace tools

#endif
