/** One record a file: alternate event log files. */
#include "log_image.h"

#include <gtest/gtest.h>

namespace {

EVLOG_REASON_e read(const std::string& bytes, EvlogRecord_t* record) {
    return evlogReadRecord({reinterpret_cast<const U8_t*>(bytes.data()), bytes.size()}, record);
}

EVLOG_REASON_e read(const std::string& bytes) {
    EvlogRecord_t record;
    return read(bytes, &record);
}

} // namespace

TEST(ReadRecord, GivesHeaderAndBody) {
    std::string bytes = test::record({.id = 0xFEDCBA98, .source = 34}, "body");
    EvlogRecord_t record;
    ASSERT_EQ(read(bytes, &record), EVLOG_E_REASON_NONE);
    EXPECT_EQ(U32_t{record.header->evSequenceId}, 0xFEDCBA98U);
    EXPECT_EQ(record.header->evSource, 34);
    EXPECT_EQ(std::string(record.body.begin(), record.body.end()), "body");
    EXPECT_EQ(record.role, EVLOG_E_ROLE_NEWEST);
}

TEST(ReadRecord, LiteralBytesAreARecord) {
    // Version 1, all texts and numbers zero: the checksum of 152 zeros is 0x3DC53C3B.
    std::string bytes = std::string("\xB6\x8F\x01\x00\x3D\xC5\x3C\x3B", 8) + std::string(152, '\0');
    EXPECT_EQ(read(bytes), EVLOG_E_REASON_NONE);
}

TEST(ReadRecord, EachCorruptFieldIsNamed) {
    std::string good = test::record({.id = 1}, "body");
    auto with = [&good](size_t at, char value) {
        std::string bytes = good;
        bytes[at] = value;
        return read(bytes);
    };
    EXPECT_EQ(with(0, 0), EVLOG_E_REASON_NO_HEADER);
    EXPECT_EQ(with(2, 2), EVLOG_E_REASON_VERSION);
    EXPECT_EQ(with(7, 0), EVLOG_E_REASON_CHECKSUM);
    EXPECT_EQ(with(8, 0), EVLOG_E_REASON_CHECKSUM);
    EXPECT_EQ(with(152, 0x10), EVLOG_E_REASON_LENGTH);
    EXPECT_EQ(with(153, 5), EVLOG_E_REASON_CUT);
    EXPECT_EQ(with(154, 35), EVLOG_E_REASON_SOURCE);
    EXPECT_EQ(with(163, 0), EVLOG_E_REASON_CHECKSUM);
}

TEST(ReadRecord, OneByteShortIsCut) {
    std::string bytes = test::record({.id = 1}, "body");
    EXPECT_EQ(read(bytes.substr(0, 163)), EVLOG_E_REASON_CUT);
    EXPECT_EQ(read(bytes.substr(0, 159)), EVLOG_E_REASON_NO_HEADER);
    EXPECT_EQ(read(""), EVLOG_E_REASON_NO_HEADER);
}

TEST(ReadRecord, DummyHasNoBody) {
    test::LogImage log;
    log.dummy(5000);
    EvlogRecord_t record;
    ASSERT_EQ(read(log.bytes, &record), EVLOG_E_REASON_NONE);
    EXPECT_EQ(record.role, EVLOG_E_ROLE_DUMMY);
    EXPECT_TRUE(record.body.empty());
}
