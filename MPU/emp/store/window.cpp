#include "store/window.h"

#include <algorithm>
#include <cstring>

namespace {

U8_t windowBytes[EMP_WINDOW_SIZE];
U64_t windowBase;
U32_t windowLength;

} // namespace

U32_t empWindowAvailable(U64_t offset) {
    U64_t end = windowBase + windowLength;
    return offset < windowBase || offset > end ? 0 : static_cast<U32_t>(end - offset);
}

const U8_t* empWindowAt(U64_t offset) {
    return windowBytes + (offset - windowBase);
}

U8_t* empWindowOpen(U64_t offset) {
    windowBase = offset;
    windowLength = 0;
    return windowBytes;
}

void empWindowHolds(U32_t length) {
    windowLength = length;
}

void empWindowWrite(U64_t offset, const void* bytes, U32_t length) {
    // Writes make it no longer than a read does: more would only be resident.
    U64_t room = std::max(windowLength, EMP_WINDOW_STEP);
    U64_t from = std::max(offset, windowBase);
    U64_t to = std::min(offset + length, windowBase + room);
    // A write behind the window would leave a hole. One that begins at its end makes it longer.
    if (from >= to || from > windowBase + windowLength) {
        return;
    }
    memcpy(windowBytes + (from - windowBase), static_cast<const U8_t*>(bytes) + (from - offset),
           static_cast<size_t>(to - from));
    windowLength = std::max(windowLength, static_cast<U32_t>(to - windowBase));
}
