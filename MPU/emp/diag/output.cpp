#include "diag/output.h"

#include "state/held.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr size_t BUFFER_SIZE = size_t{128} * 1024;

char buffer[BUFFER_SIZE];
char* const limit = buffer + BUFFER_SIZE;
char* line = buffer; ///< begin of the line under construction
char* end = buffer;  ///< end of what there is of it
bool held;           ///< whole lines stay in the buffer

/** Writes to standard output; waits for a reader even where write would not. What cannot be written
 * is lost: nobody is left to tell it. */
void writeOut(const char* from, const char* to) {
    int savedErrno = errno;
    while (from < to) {
        ssize_t written = write(STDOUT_FILENO, from, static_cast<size_t>(to - from));
        if (written > 0) {
            from += written;
        } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            struct pollfd output = {STDOUT_FILENO, POLLOUT, 0};
            poll(&output, 1, -1);
        } else if (written == 0 || errno != EINTR) {
            break;
        }
    }
    errno = savedErrno;
}

bool passOn(const char* from, const char* to) {
    if (held) {
        writeOut(from, to);
        return true;
    }
    int savedErrno = errno;
    bool taken =
        fwrite(from, 1, static_cast<size_t>(to - from), stdout) == static_cast<size_t>(to - from);
    errno = savedErrno;
    return taken;
}

/** Writes the whole lines; the one under construction moves to the front. */
void passOnWholeLines() {
    empSettleRecords();
    passOn(buffer, line);
    size_t begun = static_cast<size_t>(end - line);
    memmove(buffer, line, begun);
    line = buffer;
    end = buffer + begun;
}

void requireRoom(size_t length) {
    if (static_cast<size_t>(limit - end) >= length) {
        return;
    }
    passOnWholeLines();
    if (static_cast<size_t>(limit - end) < length) {
        passOn(buffer, end);
        end = buffer;
    }
}

} // namespace

void empBufferOutput() {
    held = true;
    // The library's ways out go through exit.
    atexit(empFlushOutput);
}

void empFlushOutput() {
    int savedErrno = errno;
    passOnWholeLines();
    fflush(stdout);
    errno = savedErrno;
}

size_t empOutputRoom() {
    return static_cast<size_t>(limit - end);
}

size_t empOutputMark() {
    return static_cast<size_t>(line - buffer);
}

void empOutputReturnTo(size_t mark) {
    line = end = buffer + mark;
}

char* empLineRoom() {
    requireRoom(EMP_LINE_ROOM);
    return end;
}

void empLineGrown(char* newEnd) {
    end = newEnd;
}

bool empLineEnds(char* newEnd) {
    line = end = newEnd;
    if (held) {
        return true;
    }
    bool taken = passOn(buffer, end);
    line = end = buffer;
    return taken;
}

char* empPutDecimal(char* at, U32_t number) {
    constexpr int longestNumber = 11;
    return std::to_chars(at, at + longestNumber, static_cast<S32_t>(number)).ptr;
}

char* empPutHex(char* at, U32_t number, U32_t width, const char* digits) {
    U32_t length = 1;
    while (length < 8 && number >> 4 * length != 0) {
        length++;
    }
    length = std::max(length, width);
    for (U32_t i = length; i > 0; i--) {
        at[i - 1] = digits[number & 0xFU];
        number >>= 4U;
    }
    return at + length;
}

char* empPutText(char* at, const char* text, U32_t precision, U32_t width) {
    size_t length = precision != 0 ? strnlen(text, precision) : strlen(text);
    size_t blanks = length < width ? width - length : 0;
    end = at;
    while (length > 0) {
        size_t part = std::min(length, BUFFER_SIZE);
        requireRoom(part);
        end = std::copy_n(text, part, end);
        text += part;
        length -= part;
    }
    return std::fill_n(empLineRoom(), blanks, ' ');
}
