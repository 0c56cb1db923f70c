#include "big_endian.h"

#include <gtest/gtest.h>

#include <cstring>

template <typename Field>
static std::string bytesOf(const Field& field) {
    char bytes[sizeof(Field)];
    memcpy(bytes, &field, sizeof(bytes));
    return std::string(bytes, sizeof(bytes));
}

TEST(BigEndian, SixteenBitsLieMostSignificantByteFirst) {
    U16be_t field = 0xB68F;
    EXPECT_EQ(bytesOf(field), std::string("\xB6\x8F", 2));
    EXPECT_EQ(U16_t{field}, 0xB68F);
}

TEST(BigEndian, TwentyFourBitsLoseTheTopByte) {
    U24be_t field = 0xAB123456U;
    EXPECT_EQ(bytesOf(field), std::string("\x12\x34\x56", 3));
    EXPECT_EQ(U32_t{field}, 0x123456U);
}

TEST(BigEndian, ThirtyTwoBitsLieMostSignificantByteFirst) {
    U32be_t field = 0x80010203U;
    EXPECT_EQ(bytesOf(field), std::string("\x80\x01\x02\x03", 4));
    EXPECT_EQ(U32_t{field}, 0x80010203U);
}

TEST(BigEndian, ExtremesSurvive) {
    for (U32_t value : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        U32be_t field = value;
        EXPECT_EQ(U32_t{field}, value);
    }
    U16be_t field = 0xFFFF;
    EXPECT_EQ(U16_t{field}, 0xFFFF);
}
