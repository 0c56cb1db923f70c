#include "diag/hex_dump.h"

#include "diag/output.h"

#include <algorithm>
#include <array>

namespace {

constexpr S32_t BYTES_A_LINE = 32;
constexpr S32_t BYTES_A_GROUP = 4;

struct HexDigits_t {
    char text[2];
};

/** The two digits of every byte: dumps are part of every event's cost. */
constexpr auto hexDigits = [] {
    constexpr char digits[] = "0123456789ABCDEF";
    std::array<HexDigits_t, 256> all{};
    for (size_t i = 0; i < all.size(); i++) {
        all[i] = {{digits[i / 16], digits[i % 16]}};
    }
    return all;
}();

char* putByte(char* at, U8_t byte) {
    return std::copy_n(hexDigits[byte].text, 2, at);
}

/** Puts at most 32 bytes; a full line ends in a line feed, and a block of two in one more. */
char* putLine(char* at, const U8_t* bytes, S32_t count, bool endsBlock) {
    S32_t i = 0;
    for (; i + BYTES_A_GROUP <= count; i += BYTES_A_GROUP) {
        for (S32_t j = 0; j < BYTES_A_GROUP; j++) {
            at = putByte(at, bytes[i + j]);
        }
        *at++ = ' ';
    }
    for (; i < count; i++) {
        at = putByte(at, bytes[i]);
    }
    if (count == BYTES_A_LINE) {
        at[-1] = '\n'; // in place of the last group's blank
        if (endsBlock) {
            *at++ = '\n';
        }
    }
    return at;
}

} // namespace

int empHexDump(const void* buffer, S32_t length) {
    const U8_t* bytes = static_cast<const U8_t*>(buffer);
    bool endsBlock = false;
    for (S32_t left = length; left > 0;) {
        S32_t count = std::min(left, BYTES_A_LINE);
        empLineGrown(putLine(empLineRoom(), bytes, count, endsBlock));
        bytes += count;
        left -= count;
        endsBlock = !endsBlock;
    }
    char* at = empLineRoom();
    *at++ = '\n';
    return empLineEnds(at) ? 1 : -1;
}
