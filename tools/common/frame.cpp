#include "common/frame.h"

#include <cstring>

namespace tools {

U16_t messageLength(const U8_t* header) {
    U16be_t length;
    memcpy(&length, header + offsetof(MMCH_t, mmsg_length), sizeof(length));
    return length;
}

FrameReader::FrameReader() : bytes_(new U8_t[CAPACITY]) {}

std::span<U8_t> FrameReader::space() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    } else if (CAPACITY - end_ < MMSG_MAX_LENGTH) {
        memmove(bytes_.get(), bytes_.get() + begin_, pending());
        end_ -= begin_;
        begin_ = 0;
    }
    return {bytes_.get() + end_, CAPACITY - end_};
}

void FrameReader::commit(size_t bytes) {
    end_ += bytes;
}

FrameReader::Outcome FrameReader::next(std::span<U8_t>& message) {
    if (pending() < MMCH_SIZE) {
        return Outcome::Incomplete;
    }
    U16_t length = announcedLength();
    if (length < MMCH_SIZE || length > MMSG_MAX_LENGTH) {
        return Outcome::BadLength;
    }
    if (pending() < length) {
        return Outcome::Incomplete;
    }
    message = {bytes_.get() + begin_, length};
    begin_ += length;
    return Outcome::Message;
}

U16_t FrameReader::announcedLength() const {
    return pending() < MMCH_SIZE ? U16_t{0} : messageLength(bytes_.get() + begin_);
}

} // namespace tools
