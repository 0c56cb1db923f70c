#include "mmsg/read_ahead.h"

#include "fixed_width.h"
#include "state/control.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace {

/** Holds the longest message that a 16-bit length can announce, so that topping up always has room
 * for what was asked. */
constexpr size_t AHEAD_SIZE = size_t{64} * 1024;

U8_t ahead[AHEAD_SIZE];
size_t front;   ///< of the bytes that wait
size_t end;     ///< of the bytes that wait
int laterError; ///< errno of a receive that failed while bytes waited; 0: none

ssize_t takeWhatIsThere(int flags) {
    ssize_t result = recv(empControl.socketFdMSM, ahead + end, AHEAD_SIZE - end, flags);
    if (result > 0) {
        end += static_cast<size_t>(result);
    }
    return result;
}

/** Adds what has arrived since to the bytes that wait, without waiting for it. */
void topUp() {
    int savedErrno = errno;
    end -= front;
    memmove(ahead, ahead + front, end);
    front = 0;
    // The end of the stream shows again; an error shows only once.
    if (takeWhatIsThere(MSG_DONTWAIT) == -1 && errno != EAGAIN && errno != EWOULDBLOCK) {
        laterError = errno;
    }
    errno = savedErrno;
}

} // namespace

ssize_t empReceiveFromMsm(void* to, size_t length, int flags) {
    if (empMsmReadAhead()) {
        if (end - front < length && laterError == 0) {
            topUp();
        }
    } else if (laterError != 0) {
        errno = laterError;
        laterError = 0;
        return -1;
    } else {
        front = end = 0;
        ssize_t result = takeWhatIsThere(0);
        if (result <= 0) {
            return result;
        }
    }
    size_t given = std::min(length, end - front);
    memcpy(to, ahead + front, given);
    if ((flags & MSG_PEEK) == 0) {
        front += given;
    }
    return static_cast<ssize_t>(given);
}

bool empMsmReadAhead() {
    return front != end;
}

bool empMsmLook() {
    if (!empMsmReadAhead() && laterError == 0) {
        topUp();
    }
    return empMsmReadAhead();
}

const MMCH_t* empMsmWaiting(size_t behind) {
    size_t left = end - front - behind;
    const auto* next = reinterpret_cast<const MMCH_t*>(ahead + front + behind);
    bool whole = left >= MMCH_SIZE && next->mmsg_length >= MMCH_SIZE && left >= next->mmsg_length;
    return whole ? next : nullptr;
}

size_t empMsmMark() {
    return front;
}

void empMsmReturnTo(size_t mark) {
    front = mark;
}
