#include "evlog/range_crc.h"

#include "log_image.h"

#include <gtest/gtest.h>

namespace {

std::string noise(size_t size) {
    std::string bytes;
    uint32_t value = 12345;
    for (size_t at = 0; at < size; at++) {
        value = value * 1'103'515'245 + 12'345;
        bytes.push_back(static_cast<char>(value >> 16));
    }
    return bytes;
}

std::span<const U8_t> spanOf(const std::string& bytes) {
    return {reinterpret_cast<const U8_t*>(bytes.data()), bytes.size()};
}

} // namespace

TEST(RangeCrc, GivesTheCheckValue) {
    std::string bytes = "xx123456789yy";
    EXPECT_EQ(EvlogRangeCrc_t(spanOf(bytes)).ofRange(2, 9), 0x839206E3U);
}

TEST(RangeCrc, AgreesWithTheDirectSumAtEveryAlignment) {
    std::string bytes = noise(70'000);
    EvlogRangeCrc_t crc(spanOf(bytes));
    for (uint32_t offset : {0U, 1U, 63U, 64U, 65U, 127U, 1000U, 4095U}) {
        for (uint32_t length : {1U, 2U, 63U, 64U, 65U, 152U, 4000U, 4096U, 65'687U}) {
            EXPECT_EQ(test::bigEndian(crc.ofRange(offset, length), 4),
                      test::storedCrc(bytes.substr(offset, length)))
                << offset << "+" << length;
        }
    }
}

TEST(RangeCrc, ReachesTheLastByte) {
    std::string bytes = noise(1000);
    EXPECT_EQ(test::bigEndian(EvlogRangeCrc_t(spanOf(bytes)).ofRange(0, 1000), 4),
              test::storedCrc(bytes));
}
