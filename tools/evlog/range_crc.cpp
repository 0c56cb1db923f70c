#include "evlog/range_crc.h"

#include "altEventLog.h"

#include <array>

namespace {

constexpr U32_t POLYNOMIAL = 0x82F63B78; // reflected
constexpr U32_t BLOCK_BITS = 6;
constexpr U32_t BLOCK = 1U << BLOCK_BITS;
constexpr U32_t DIGITS = 3; // lengths of up to 64 * 64 * 64 bytes

/** Product of two polynomials modulo the checksum's; bit 31 is the coefficient of x^0. */
constexpr U32_t multiply(U32_t left, U32_t right) {
    U32_t product = 0;
    for (U32_t bit = 1U << 31; bit != 0; bit >>= 1) {
        product ^= (left & bit) != 0 ? right : 0;
        right = (right & 1U) != 0 ? (right >> 1) ^ POLYNOMIAL : right >> 1;
    }
    return product;
}

using Powers_t = std::array<std::array<U32_t, BLOCK>, DIGITS>;

/** powers[d][v] = x^(8 * v * 64^d): what v * 64^d zero bytes do to a checksum. */
constexpr Powers_t makePowers() {
    Powers_t powers{};
    U32_t step = 1U << (31 - 8);
    for (U32_t digit = 0; digit < DIGITS; digit++) {
        powers[digit][0] = 1U << 31;
        for (U32_t value = 1; value < BLOCK; value++) {
            powers[digit][value] = multiply(powers[digit][value - 1], step);
        }
        step = multiply(powers[digit][BLOCK - 1], step);
    }
    return powers;
}

constexpr Powers_t POWERS = makePowers();

/** The checksum that @p crc becomes when @p length bytes whose own checksum is 0 follow. */
U32_t shift(U32_t crc, U32_t length) {
    for (U32_t digit = 0; digit < DIGITS; digit++) {
        U32_t value = (length >> (digit * BLOCK_BITS)) & (BLOCK - 1);
        if (value != 0) {
            crc = multiply(POWERS[digit][value], crc);
        }
    }
    return crc;
}

/** computeCRC32() stands in reverse byte order; this turns either form into the other. */
U32_t swapBytes(U32_t crc) {
    return __builtin_bswap32(crc);
}

} // namespace

EvlogRangeCrc_t::EvlogRangeCrc_t(std::span<const U8_t> bytes) : bytes_(bytes) {
    prefixes_.reserve(bytes.size() / BLOCK + 1);
    U32_t crc = 0;
    prefixes_.push_back(crc);
    for (size_t at = 0; at + BLOCK <= bytes.size(); at += BLOCK) {
        crc = shift(crc, BLOCK) ^ swapBytes(computeCRC32(bytes.data() + at, BLOCK));
        prefixes_.push_back(crc);
    }
}

U32_t EvlogRangeCrc_t::ofPrefix(U32_t length) const {
    U32_t rest = length % BLOCK;
    U32_t ofRest = swapBytes(computeCRC32(bytes_.data() + (length - rest), rest));
    return shift(prefixes_[length / BLOCK], rest) ^ ofRest;
}

U32_t EvlogRangeCrc_t::ofRange(U32_t offset, U32_t length) const {
    return swapBytes(ofPrefix(offset + length) ^ shift(ofPrefix(offset), length));
}
