/** Single records, of a log and of an alternate event log file. */
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

EVLOG_REASON_e readAlternate(const std::string& bytes, EvlogRecord_t* record) {
    return evlogReadAlternate({reinterpret_cast<const U8_t*>(bytes.data()), bytes.size()}, record);
}

EVLOG_REASON_e readAlternate(const std::string& bytes) {
    EvlogRecord_t record;
    return readAlternate(bytes, &record);
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

TEST(ReadAlternate, OfAnyVersionIsARecord) {
    std::string bytes = test::record({.version = 9, .id = 1}, "body") + "more";
    EvlogRecord_t record;
    ASSERT_EQ(readAlternate(bytes, &record), EVLOG_E_REASON_NONE);
    EXPECT_EQ(std::string(record.body.begin(), record.body.end()), "body");
}

TEST(ReadAlternate, LongerThanAMessageIsNoneWhateverItsId) {
    for (uint8_t source : {uint8_t{18}, uint8_t{27}}) {
        for (uint16_t id : {uint16_t{1}, uint16_t{2}}) {
            EXPECT_EQ(readAlternate(
                          test::record({.source = source, .eventId = id}, std::string(3849, 'x'))),
                      EVLOG_E_REASON_LENGTH);
            EXPECT_EQ(readAlternate(
                          test::record({.source = source, .eventId = id}, std::string(3848, 'x'))),
                      EVLOG_E_REASON_NONE);
        }
    }
}

TEST(ReadAlternate, ChecksumCoversAlsoTheDataOfWhatWouldBeADummyInALog) {
    test::RecordFields dummy = {.source = 27, .eventId = 1};
    EvlogRecord_t record;
    std::string bytes = test::record(dummy, "data");
    ASSERT_EQ(readAlternate(bytes, &record), EVLOG_E_REASON_NONE);
    EXPECT_EQ(record.role, EVLOG_E_ROLE_DUMMY);
    EXPECT_EQ(record.body.size(), 4U);
    dummy.headerCrc = true;
    EXPECT_EQ(readAlternate(test::record(dummy, "data")), EVLOG_E_REASON_CHECKSUM);
}

TEST(ReadAlternate, WhatTheNextStartDeletesIsNamed) {
    std::string good = test::record({.id = 1}, "body");
    EXPECT_EQ(readAlternate(""), EVLOG_E_REASON_NO_HEADER);
    EXPECT_EQ(readAlternate(good.substr(0, 159)), EVLOG_E_REASON_NO_HEADER);
    EXPECT_EQ(readAlternate(good.substr(0, 163)), EVLOG_E_REASON_CUT);
    EXPECT_EQ(readAlternate("x" + good.substr(1)), EVLOG_E_REASON_NO_HEADER);
    EXPECT_EQ(readAlternate(good.substr(0, 163) + "x"), EVLOG_E_REASON_CHECKSUM);
    EXPECT_EQ(readAlternate(test::record({.source = 35}, "body")), EVLOG_E_REASON_SOURCE);
}
