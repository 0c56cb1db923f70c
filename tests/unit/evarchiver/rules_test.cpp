#include "rules.h"

#include "link_messages.h"

#include <gtest/gtest.h>

using namespace evarchive;

namespace {

class FateTest : public testing::Test {
  protected:
    static Place held(const Bytes& image, bool isDoubtful = false) {
        return {View(image), isDoubtful, std::nullopt};
    }

    Bytes event_ = support::eventBody({.id = 4});
    Bytes other_ = support::eventBody({.id = 4, .time = 2000});
};

} // namespace

TEST_F(FateTest, FreePlaceIsTaken) {
    EXPECT_EQ(fateOf({event_}, {}), Fate::STORE);
    EXPECT_EQ(fateOf({event_, Certainty::SILENT}, {}), Fate::STORE);
}

TEST_F(FateTest, SameBytesAreADuplicateOnceTheyAreCertain) {
    EXPECT_EQ(fateOf({event_}, held(event_)), Fate::DUPLICATE);
    EXPECT_EQ(fateOf({event_, Certainty::SILENT}, held(event_)), Fate::LEAVE);
    EXPECT_EQ(fateOf({event_, Certainty::ENDED}, held(event_, true)), Fate::LEAVE);
}

TEST_F(FateTest, SameBytesConfirmADoubtfulEvent) {
    EXPECT_EQ(fateOf({event_}, held(event_, true)), Fate::CONFIRM);
}

TEST_F(FateTest, DoubtfulEventMakesRoom) {
    for (const auto certainty : {Certainty::CERTAIN, Certainty::SILENT, Certainty::ENDED}) {
        EXPECT_EQ(fateOf({event_, certainty}, held(other_, true)), Fate::REPLACE);
    }
}

TEST_F(FateTest, OtherBytesOpenAGenerationOnlyForCertainAndOnlyWhereTheyMay) {
    EXPECT_EQ(fateOf({event_}, held(other_)), Fate::OPEN_GENERATION);
    EXPECT_EQ(fateOf({event_, Certainty::CERTAIN, false}, held(other_)), Fate::SET_ASIDE);
    EXPECT_EQ(fateOf({event_, Certainty::SILENT}, held(other_)), Fate::LEAVE);
    EXPECT_EQ(fateOf({event_, Certainty::ENDED}, held(other_)), Fate::SET_ASIDE);
}

TEST_F(FateTest, SupersededLinkFilesNothing) {
    EXPECT_EQ(fateOf({event_, Certainty::CERTAIN, true, true}, {}), Fate::SET_ASIDE);
    EXPECT_EQ(fateOf({event_, Certainty::SILENT, true, true}, {}), Fate::LEAVE);
    EXPECT_EQ(fateOf({event_, Certainty::CERTAIN, true, true}, held(other_)), Fate::SET_ASIDE);
    EXPECT_EQ(fateOf({event_, Certainty::CERTAIN, true, true}, held(event_)), Fate::DUPLICATE);
}

TEST_F(FateTest, ExpiredPlaceIsToldByTheTime) {
    const auto expired = [](U32_t time) { return Place{std::nullopt, false, time}; };
    EXPECT_EQ(fateOf({event_}, expired(1000)), Fate::DUPLICATE);
    EXPECT_EQ(fateOf({event_}, expired(999)), Fate::OPEN_GENERATION);
}

TEST_F(FateTest, EventOfAnotherLogIsNotFiledInThatOfTheArchive) {
    const auto fateIn = [this](Certainty certainty, const Place& place) {
        return fateOf({event_, certainty, true, false, true}, place);
    };
    const Place expired{std::nullopt, false, 1000};
    for (const Place& place : {Place{}, held(other_), held(other_, true), expired}) {
        EXPECT_EQ(fateIn(Certainty::CERTAIN, place), Fate::OPEN_GENERATION);
        EXPECT_EQ(fateIn(Certainty::SILENT, place), Fate::LEAVE);
        EXPECT_EQ(fateIn(Certainty::ENDED, place), Fate::SET_ASIDE);
    }
    EXPECT_EQ(fateIn(Certainty::CERTAIN, held(event_)), Fate::DUPLICATE);
}

TEST(AnotherLog, BeginsBelowTheOldestIdThatTheLogHad) {
    EXPECT_TRUE(isAnotherLog(99, 100, false));
    EXPECT_FALSE(isAnotherLog(100, 100, false));
    EXPECT_FALSE(isAnotherLog(99, 100, true));
    EXPECT_FALSE(isAnotherLog(0, std::nullopt, false));
}

TEST(Gap, IsWhatLiesBetween) {
    EXPECT_EQ(gapBefore(std::nullopt, 7), std::nullopt);
    EXPECT_EQ(gapBefore(6, 7), std::nullopt);
    EXPECT_EQ(gapBefore(9, 7), std::nullopt);
    EXPECT_EQ(gapBefore(4, 7), (IdRun{5, 6}));
    EXPECT_EQ(gapBefore(0xFFFFFFFF, 0), std::nullopt);
}

TEST(Claim, NamesTheEventBeforeTheLast) {
    EXPECT_EQ(claimOf({3, 9}), (StatusVerdict{8, 0}));
    EXPECT_EQ(claimOf({3, 4}), (StatusVerdict{3, 0}));
    EXPECT_EQ(claimOf({3, 3}), NOTHING_HELD);
    EXPECT_EQ(claimOf({0, 0xFFFFFFFF}), (StatusVerdict{0xFFFFFFFE, 0}));
}

TEST(Clearing, NamesTheLastOrTheOneBefore) {
    EXPECT_EQ(clearOf({3, 9}, Clear::NOTHING), std::nullopt);
    EXPECT_EQ(clearOf({3, 9}, Clear::ALL), (StatusVerdict{9, 2}));
    EXPECT_EQ(clearOf({3, 9}, Clear::ALL_BUT_NEWEST), (StatusVerdict{8, 2}));
    EXPECT_EQ(clearOf({9, 9}, Clear::ALL_BUT_NEWEST), std::nullopt);
}
