#include "archive_fixture.h"

using namespace evarchive;
using namespace support;

class InquiryTest : public ArchiveTest {
  protected:
    void SetUp() override {
        fileRange(10, 12);
        fileRange(20, 21);
    }
};

TEST_F(InquiryTest, FirstIsTheLowestWhateverTheId) {
    EXPECT_EQ(ask(FIRST, {}, 0), 10U);
    EXPECT_EQ(ask(FIRST, {}, 20), 10U);
}

TEST_F(InquiryTest, LastIsTheHighestWhateverTheId) {
    EXPECT_EQ(ask(LAST, {}, 0), 21U);
    EXPECT_EQ(ask(LAST, {}, 0xFFFFFFFF), 21U);
}

TEST_F(InquiryTest, NextIsTheFirstAbove) {
    EXPECT_EQ(ask(NEXT, {}, 0), 10U);
    EXPECT_EQ(ask(NEXT, {}, 10), 11U);
    EXPECT_EQ(ask(NEXT, {}, 12), 20U); // over the hole
    EXPECT_EQ(ask(NEXT, {}, 15), 20U);
    EXPECT_EQ(ask(NEXT, {}, 21), std::nullopt);
    EXPECT_EQ(ask(NEXT, {}, 0xFFFFFFFF), std::nullopt);
}

TEST_F(InquiryTest, PreviousIsTheFirstBelow) {
    EXPECT_EQ(ask(PREVIOUS, {}, 0xFFFFFFFF), 21U);
    EXPECT_EQ(ask(PREVIOUS, {}, 21), 20U);
    EXPECT_EQ(ask(PREVIOUS, {}, 20), 12U);
    EXPECT_EQ(ask(PREVIOUS, {}, 10), std::nullopt);
    EXPECT_EQ(ask(PREVIOUS, {}, 0), std::nullopt);
}

TEST_F(InquiryTest, ExactIsThatIdOnly) {
    EXPECT_EQ(ask(EXACT, {}, 12), 12U);
    EXPECT_EQ(ask(EXACT, {}, 13), std::nullopt);
}

TEST_F(InquiryTest, IdsAboveTheSignedRangeAreOrderedUnsigned) {
    file(event(0x90000000));
    EXPECT_EQ(ask(LAST, {}, 0), 0x90000000);
    EXPECT_EQ(ask(NEXT, {}, 21), 0x90000000);
    EXPECT_EQ(ask(PREVIOUS, {}, 0x90000000), 21U);
}

TEST_F(InquiryTest, OnlyTheAskedIdentityAnswers) {
    for (const U32_t type : {FIRST, NEXT, EXACT, PREVIOUS, LAST}) {
        EXPECT_TRUE(ask(type, {}, 11)) << type;
        EXPECT_FALSE(ask(type, {.enclosure = "ENC-B"}, 11)) << type;
        EXPECT_FALSE(ask(type, {.enclosure = ""}, 11)) << type;
        EXPECT_FALSE(ask(type, {.blade = "BLADE-2"}, 11)) << type;
        EXPECT_FALSE(ask(type, {.slot = 2}, 11)) << type;
        EXPECT_FALSE(ask(type, {.instance = 2}, 11)) << type;
    }
    EXPECT_EQ(counts().found, 5U);
    EXPECT_EQ(counts().notFound, 25U);
}

TEST_F(InquiryTest, NeighboursInTheStorageDoNotAnswer) {
    fileRange(0, 100, {.blade = "BLADE-0"});
    fileRange(0, 100, {.blade = "BLADE-2"});
    EXPECT_EQ(ask(FIRST, {}, 0), 10U);
    EXPECT_EQ(ask(LAST, {}, 0), 21U);
    EXPECT_EQ(ask(NEXT, {}, 21), std::nullopt);
    EXPECT_EQ(ask(PREVIOUS, {}, 10), std::nullopt);
}

TEST_F(InquiryTest, OnlyTheNewestGenerationAnswers) {
    auto again = event(11);
    again.time = 2000;
    file(again);
    EXPECT_EQ(ask(FIRST, {}, 0), 11U);
    EXPECT_EQ(ask(LAST, {}, 0), 11U);
    EXPECT_EQ(ask(NEXT, {}, 11), std::nullopt);
    EXPECT_EQ(ask(EXACT, {}, 10), std::nullopt);
    const auto found =
        archive_.answerInquiry(imageOf<EmpEvInquiryMsg_t>(inquiryBody(EXACT, {}, 11)));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->image, eventBody(again));
}

TEST_F(InquiryTest, AnswerHasTheBytesThatCame) {
    const EventFields fields = {.id = 22, .data = Bytes(3848, 0xC3), .time = 0xFEDCBA98};
    file(fields);
    const auto found = archive_.answerInquiry(imageOf<EmpEvInquiryMsg_t>(inquiryBody(LAST, {}, 0)));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->image, eventBody(fields));
}

TEST_F(InquiryTest, TextOfSixtyFourBytesIsAnIdentityOfItsOwn) {
    const LogName full{.enclosure = std::string(64, 'e')};
    const LogName shorter{.enclosure = std::string(63, 'e')};
    fileRange(5, 5, full);
    EXPECT_EQ(ask(FIRST, full, 0), 5U);
    EXPECT_EQ(ask(FIRST, shorter, 0), std::nullopt);
}
