#include "checksum/range_crc.h"

#include "log_image.h"

#include <gtest/gtest.h>

#include <vector>

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

/** The checksum of a range, as it is stored. */
class Ranges {
  public:
    explicit Ranges(const std::string& bytes)
        : checkpoints_(RangeCrc_t::checkpointsFor(bytes.size())),
          crc_(reinterpret_cast<const U8_t*>(bytes.data()), checkpoints_.data()) {}
    std::string stored(uint32_t offset, uint32_t length) {
        crc_.reach(offset + length);
        return test::bigEndian(crc_.ofRange(offset, length), 4);
    }

  private:
    std::vector<U32_t> checkpoints_;
    RangeCrc_t crc_;
};

} // namespace

TEST(RangeCrc, GivesTheCheckValue) {
    EXPECT_EQ(Ranges(std::string("xx123456789yy")).stored(2, 9), "\x83\x92\x06\xE3");
}

TEST(RangeCrc, AgreesWithTheDirectSumAtEveryAlignment) {
    std::string bytes = noise(280'000);
    Ranges ranges(bytes);
    for (uint32_t offset : {0U, 1U, 7U, 8U, 15U, 16U, 17U, 33U, 1000U, 4095U}) {
        for (uint32_t length : {1U, 2U, 15U, 16U, 17U, 63U, 64U, 65U, 152U, 511U, 512U, 4000U,
                                4096U, 32'767U, 32'768U, 65'687U, 262'143U}) {
            EXPECT_EQ(ranges.stored(offset, length), test::storedCrc(bytes.substr(offset, length)))
                << offset << "+" << length;
        }
    }
}

TEST(RangeCrc, OfNothingIsThatOfNothing) {
    EXPECT_EQ(Ranges("abc").stored(2, 0), std::string(4, '\0'));
}

TEST(RangeCrc, ReachesTheLastByteInSteps) {
    std::string bytes = noise(1000);
    Ranges ranges(bytes);
    EXPECT_EQ(ranges.stored(0, 1), test::storedCrc(bytes.substr(0, 1)));
    EXPECT_EQ(ranges.stored(0, 33), test::storedCrc(bytes.substr(0, 33)));
    EXPECT_EQ(ranges.stored(0, 1000), test::storedCrc(bytes));
    EXPECT_EQ(ranges.stored(999, 1), test::storedCrc(bytes.substr(999)));
}
