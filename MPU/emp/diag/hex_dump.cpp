#include "diag/hex_dump.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

constexpr S32_t BYTES_A_LINE = 32;
constexpr S32_t BYTES_A_GROUP = 4;
/** Two digits a byte, a blank between groups, and the line feed of the line and of every second
 * line. */
constexpr size_t LINE_TEXT_MAX = 2 * BYTES_A_LINE + BYTES_A_LINE / BYTES_A_GROUP - 1 + 2;

constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

/** Writes the text of one line with one call: dumps are part of every event's cost. */
void writeLine(const U8_t* bytes, S32_t count, bool endsBlock) {
    char text[LINE_TEXT_MAX];
    char* end = text;
    for (S32_t i = 0; i < count; i++) {
        *end++ = HEX_DIGITS[bytes[i] >> 4U];
        *end++ = HEX_DIGITS[bytes[i] & 0xFU];
        S32_t n = i + 1;
        if (n < BYTES_A_LINE && n % BYTES_A_GROUP == 0) {
            *end++ = ' ';
        }
    }
    if (count == BYTES_A_LINE) {
        *end++ = '\n';
        if (endsBlock) {
            *end++ = '\n';
        }
    }
    fwrite(text, 1, static_cast<size_t>(end - text), stdout);
}

} // namespace

int empHexDump(const void* buffer, S32_t length) {
    int savedErrno = errno;
    const U8_t* bytes = static_cast<const U8_t*>(buffer);
    bool endsBlock = false;
    for (S32_t left = length; left > 0;) {
        S32_t count = std::min(left, BYTES_A_LINE);
        writeLine(bytes, count, endsBlock);
        bytes += count;
        left -= count;
        endsBlock = !endsBlock;
    }
    int result = fputc('\n', stdout) == EOF ? -1 : 1;
    errno = savedErrno;
    return result;
}
