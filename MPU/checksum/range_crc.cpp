#include "checksum/range_crc.h"

#include "crc32_register.h"

using namespace mpu;

namespace {

constexpr U32_t NIBBLES = 8; // of a register
constexpr U32_t NIBBLE_VALUES = 16;
constexpr U32_t DIGIT_BITS = 3;
constexpr U32_t DIGITS = 6; // lengths of up to 8^6 bytes
constexpr U32_t DIGIT_VALUES = (1U << DIGIT_BITS) - 1;

/** What a number of zero bytes makes of a register: one entry a nibble of it, to be summed up. */
struct Shift_t {
    U32_t entry[NIBBLES][NIBBLE_VALUES];
};

/** shift[d][v - 1]: v * 8^d zero bytes. */
struct Shifts_t {
    Shift_t shift[DIGITS][DIGIT_VALUES];
};

/** Product of two polynomials modulo the checksum's; bit 31 is the coefficient of x^0. */
constexpr U32_t multiply(U32_t left, U32_t right) {
    U32_t product = 0;
    for (U32_t bit = 1U << 31; bit != 0; bit >>= 1) {
        product ^= (left & bit) != 0 ? right : 0;
        right = (right & 1U) != 0 ? (right >> 1) ^ CRC32_POLYNOMIAL : right >> 1;
    }
    return product;
}

constexpr Shift_t makeShift(U32_t power) {
    Shift_t shift{};
    for (U32_t nibble = 0; nibble < NIBBLES; nibble++) {
        for (U32_t bit = 1; bit < NIBBLE_VALUES; bit <<= 1) {
            U32_t image = multiply(power, bit << (4 * nibble));
            for (U32_t rest = 0; rest < bit; rest++) {
                shift.entry[nibble][bit | rest] = image ^ shift.entry[nibble][rest];
            }
        }
    }
    return shift;
}

constexpr Shifts_t makeShifts() {
    Shifts_t shifts{};
    U32_t unit = 1U << (31 - 8); // x^8: one zero byte
    for (U32_t digit = 0; digit < DIGITS; digit++) {
        U32_t power = unit;
        for (U32_t value = 0; value < DIGIT_VALUES; value++) {
            shifts.shift[digit][value] = makeShift(power);
            power = multiply(power, unit);
        }
        unit = power;
    }
    return shifts;
}

constexpr Shifts_t SHIFTS = makeShifts();

U32_t applyShift(const Shift_t& shift, U32_t crc) {
    U32_t result = 0;
    for (U32_t nibble = 0; nibble < NIBBLES; nibble++) {
        result ^= shift.entry[nibble][(crc >> (4 * nibble)) & (NIBBLE_VALUES - 1)];
    }
    return result;
}

/** The register after @p length zero bytes. */
U32_t addZeros(U32_t crc, U32_t length) {
    for (U32_t digit = 0; length != 0; digit++, length >>= DIGIT_BITS) {
        U32_t value = length & DIGIT_VALUES;
        if (value != 0) {
            crc = applyShift(SHIFTS.shift[digit][value - 1], crc);
        }
    }
    return crc;
}

} // namespace

RangeCrc_t::RangeCrc_t(const U8_t* bytes, U32_t* checkpoints)
    : bytes_(bytes), checkpoints_(checkpoints) {
    checkpoints_[0] = 0;
}

void RangeCrc_t::reach(U32_t length) {
    for (; reached_ + STEP <= length; reached_ += STEP) {
        U32_t at = reached_ / STEP;
        checkpoints_[at + 1] = crc32AddBytes(checkpoints_[at], bytes_ + reached_, STEP);
    }
}

U32_t RangeCrc_t::registerBefore(U32_t offset) const {
    U32_t rest = offset % STEP;
    return crc32AddBytes(checkpoints_[offset / STEP], bytes_ + (offset - rest), rest);
}

U32_t RangeCrc_t::ofRange(U32_t offset, U32_t length) const {
    // A checksum begins with all ones. They, and what stands before the range, are carried over it
    // and taken from what stands before its end.
    U32_t before = registerBefore(offset) ^ 0xFFFFFFFFU;
    return crc32OfRegister(registerBefore(offset + length) ^ addZeros(before, length));
}
