#include "crc32_table.h"

#include "altEventLog.h"

#include <gtest/gtest.h>

#include <vector>

using namespace mpu;

namespace {

/** The same checksum bit by bit, without any table. */
U32_t bitwiseChecksum(const U8_t* bytes, size_t length) {
    U32_t crc = 0xFFFFFFFFU;
    for (size_t i = 0; i < length; i++) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0x82F63B78U : crc >> 1;
        }
    }
    crc = ~crc;
    return (crc << 24) | ((crc & 0xFF00U) << 8) | ((crc >> 8) & 0xFF00U) | (crc >> 24);
}

std::vector<U8_t> variedBytes(size_t length) {
    std::vector<U8_t> bytes(length);
    U32_t state = 1;
    for (U8_t& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<U8_t>(state >> 24);
    }
    return bytes;
}

} // namespace

TEST(Crc32, NineDigitsGiveTheReversedCastagnoliValue) {
    EXPECT_EQ(computeCRC32("123456789", 9), 0x839206E3U);
}

TEST(Crc32, HeaderOfZerosGivesItsWorkedValue) {
    const U8_t zeros[152] = {};
    EXPECT_EQ(computeCRC32(zeros, sizeof(zeros)), 0x3DC53C3BU);
}

TEST(Crc32, NoBytesGiveZero) {
    EXPECT_EQ(computeCRC32("x", 0), 0U);
    EXPECT_EQ(computeCRC32(nullptr, 0), 0U);
}

TEST(Crc32, TableHoldsTheKnownRemainders) {
    static_assert(crc32Table.entry[0][0] == 0);
    static_assert(crc32Table.entry[0][1] == 0xF26B8303U);
    static_assert(crc32Table.entry[0][128] == 0x82F63B78U);
    static_assert(crc32Table.entry[0][255] == 0xAD7D5351U);
    EXPECT_EQ(crc32Table.entry[0][1], 0xF26B8303U);
}

TEST(Crc32, EveryLengthAndAlignmentAgreesWithTheBitwiseSum) {
    std::vector<U8_t> bytes = variedBytes(8 + 200);
    for (size_t offset = 0; offset < 8; offset++) {
        for (U32_t length = 0; length <= 200; length++) {
            ASSERT_EQ(computeCRC32(bytes.data() + offset, length),
                      bitwiseChecksum(bytes.data() + offset, length))
                << "offset " << offset << " length " << length;
        }
    }
}

TEST(Crc32, LargestRecordAgreesWithTheBitwiseSum) {
    std::vector<U8_t> bytes = variedBytes(152 + 65535);
    EXPECT_EQ(computeCRC32(bytes.data(), static_cast<U32_t>(bytes.size())),
              bitwiseChecksum(bytes.data(), bytes.size()));
}

TEST(Crc32, EverySingleFlippedBitOfAHeaderShows) {
    std::vector<U8_t> bytes = variedBytes(152);
    U32_t intact = computeCRC32(bytes.data(), 152);
    for (size_t bit = 0; bit < bytes.size() * 8; bit++) {
        bytes[bit / 8] = static_cast<U8_t>(bytes[bit / 8] ^ (1U << (bit % 8)));
        ASSERT_NE(computeCRC32(bytes.data(), 152), intact) << "bit " << bit;
        bytes[bit / 8] = static_cast<U8_t>(bytes[bit / 8] ^ (1U << (bit % 8)));
    }
}
