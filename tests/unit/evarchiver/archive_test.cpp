#include "archive_fixture.h"
#include "temp_directory.h"

#include <sqlite3.h>

using namespace evarchive;
using support::LogName;
using testing::ElementsAre;
using testing::HasSubstr;

using StatusTest = ArchiveTest;
using FilingTest = ArchiveTest;
using ClearTest = ArchiveTest;

TEST_F(StatusTest, UnknownBladeHasNoData) {
    EXPECT_EQ(status(event(0)), NO_DATA);
}

TEST_F(StatusTest, LastIdOfTheUnbrokenRunIsClaimed) {
    fileRange(0, 9);
    EXPECT_EQ(status(event(0)), heldTo(9));
    EXPECT_EQ(status(event(5)), heldTo(9));
    EXPECT_EQ(status(event(8)), heldTo(9));
}

TEST_F(StatusTest, RunEndsAtTheFirstHole) {
    fileRange(3, 5);
    fileRange(7, 9);
    EXPECT_EQ(status(event(3)), heldTo(5));
    EXPECT_EQ(status(event(7)), heldTo(9));
}

TEST_F(StatusTest, FirstIdInAHoleIsNoData) {
    fileRange(3, 5);
    fileRange(7, 9);
    EXPECT_EQ(status(event(6)), NO_DATA);
    EXPECT_EQ(status(event(2)), NO_DATA);
    EXPECT_EQ(status(event(10)), NO_DATA);
}

TEST_F(StatusTest, AFilledHoleJoinsTheRuns) {
    fileRange(3, 5);
    fileRange(7, 9);
    file(event(6));
    EXPECT_EQ(status(event(3)), heldTo(9));
}

TEST_F(StatusTest, OtherFirstDataBytesAreAnotherLog) {
    fileRange(0, 9);
    auto oldest = event(0);
    oldest.data[0] = 'x';
    EXPECT_EQ(status(oldest), NO_DATA);
}

TEST_F(StatusTest, OtherLengthOfTheFirstEventIsAnotherLog) {
    fileRange(0, 9);
    auto oldest = event(0);
    oldest.data.push_back(0);
    EXPECT_EQ(status(oldest), NO_DATA);
    oldest.data.resize(4);
    EXPECT_EQ(status(oldest), NO_DATA);
}

TEST_F(StatusTest, OnlyTwentyFourDataBytesCanBeCompared) {
    support::EventFields oldest = {.data = Bytes(30, 'a')};
    file(oldest);
    file(event(1));
    oldest.data[24] = 'b';
    EXPECT_EQ(status(oldest), heldTo(1));
    oldest.data[23] = 'b';
    EXPECT_EQ(status(oldest), NO_DATA);
}

TEST_F(StatusTest, BytesBehindShortDataAreNotCompared) {
    file({.data = {7}});
    file(event(1));
    Bytes body = support::statusBody({}, 0, {7});
    body[145] = 0xEE; // second byte of evRandom
    EXPECT_EQ(archive_.answerStatus(2, imageOf<EmpGetEvArchiverStatusMsg_t>(body)), heldTo(1));
}

TEST_F(StatusTest, FirstEventWithoutDataIsHeld) {
    file({.data = {}});
    file(event(1));
    EXPECT_EQ(status({.data = {}}), heldTo(1));
}

TEST_F(StatusTest, EveryPartOfTheIdentityCounts) {
    fileRange(0, 9);
    EXPECT_EQ(status(event(0, {.enclosure = "ENC-B"})), NO_DATA);
    EXPECT_EQ(status(event(0, {.blade = "BLADE-2"})), NO_DATA);
    EXPECT_EQ(status(event(0, {.slot = 2})), NO_DATA);
    EXPECT_EQ(status(event(0, {.instance = 2})), NO_DATA);
}

TEST_F(StatusTest, RunReachesTheHighestIdOfAll) {
    fileRange(0xFFFFFFF0, 0xFFFFFFFF);
    EXPECT_EQ(status(event(0xFFFFFFF0)), heldTo(0xFFFFFFFF));
}

TEST_F(StatusTest, SingleEventIsAskedForAgain) {
    fileRange(9, 9);
    EXPECT_EQ(status(event(9)), NO_DATA);
}

TEST_F(StatusTest, DoubtfulEventEndsTheRun) {
    fileRange(0, 3);
    archive_.fileEvent(LINK, support::eventBody(event(4)), Certainty::SILENT);
    EXPECT_EQ(status(event(0)), heldTo(3));
    archive_.fileEvent(LINK, support::eventBody(event(4)));
    EXPECT_EQ(status(event(0)), heldTo(4));
}

TEST_F(StatusTest, DoubtfulOldestEventIsNoData) {
    archive_.fileEvent(LINK, support::eventBody(event(0)), Certainty::SILENT);
    fileRange(1, 3);
    EXPECT_EQ(status(event(0)), NO_DATA);
}

TEST_F(StatusTest, RunIsKnownAfterARestart) {
    fileRange(0, 5000);
    status(event(0)); // notes the run
    archive_.commit();
    const auto series = store_->findSeries({{"ENC-A", "BLADE-1", 1}, 1});
    EXPECT_EQ(store_->newestGeneration(*series)->proven, (IdRun{0, 5000}));
    fileRange(5001, 5010);
    archive_.commit();
    Archive restarted = make();
    EXPECT_EQ(status(restarted, event(7)), heldTo(5010));
}

TEST_F(StatusTest, EventsThatRetentionTookCountWithoutComparing) {
    fileRange(0, 5000);
    status(event(0));
    archive_.commit();
    const auto newest = store_->newestGeneration(*store_->findSeries({{"ENC-A", "BLADE-1", 1}, 1}));
    store_->begin();
    EXPECT_EQ(store_->removeOldest(newest->number, 1'000'000'000'000, 100), 100U);
    store_->commit();
    EXPECT_EQ(status(event(50)), heldTo(5000));
    Archive restarted = make();
    EXPECT_EQ(status(restarted, event(50)), heldTo(5000));
    // The blade sends one of them all the same: it is not stored again.
    EXPECT_EQ(file(event(50)), Filed::DUPLICATE);
    // One that is younger than what came behind it is of another log.
    support::EventFields younger = event(50);
    younger.time = 2000;
    EXPECT_EQ(file(younger), Filed::NEW_GENERATION);
}

TEST_F(FilingTest, SameBytesAreDroppedAndCounted) {
    EXPECT_EQ(file(event(4)), Filed::STORED);
    EXPECT_EQ(file(event(4)), Filed::DUPLICATE);
    EXPECT_EQ(counts().stored, 1U);
    EXPECT_EQ(counts().duplicates, 1U);
    archive_.commit();
    ASSERT_EQ(store_->listGenerations().size(), 1U);
    EXPECT_EQ(store_->listGenerations()[0].duplicates, 1U);
    EXPECT_EQ(store_->rowCount(), 1U);
}

TEST_F(FilingTest, OneOtherByteAnywhereInTheEventOpensAGeneration) {
    const Bytes body = support::eventBody(event(4));
    archive_.fileEvent(LINK, body);
    // Time, source, type, category, version, event id, data: everything behind the key but the
    // length.
    for (const size_t offset : {140U, 143U, 146U, 147U, 148U, 149U, 151U, 152U, 156U}) {
        Bytes changed = body;
        changed[offset] ^= 1;
        EXPECT_EQ(archive_.fileEvent(LINK, changed), Filed::NEW_GENERATION) << offset;
        EXPECT_EQ(archive_.fileEvent(LINK, body), Filed::NEW_GENERATION) << offset;
    }
    EXPECT_EQ(counts().generations, 18U);
}

TEST_F(FilingTest, RebuiltLogOpensAGenerationAndKeepsTheOld) {
    fileRange(0, 9);
    support::EventFields again = event(0);
    again.time = 2000;
    EXPECT_EQ(file(again), Filed::NEW_GENERATION);
    EXPECT_THAT(said(), ElementsAre("enclosure ENC-A blade BLADE-1 slot 1 instance 1: other bytes "
                                    "under id 0, generation 2 opened"));
    archive_.commit();
    const auto generations = store_->listGenerations();
    ASSERT_EQ(generations.size(), 2U);
    EXPECT_EQ(store_->highestId(generations[0].number), 9U);
    EXPECT_EQ(store_->highestId(generations[1].number), 0U);
}

TEST_F(FilingTest, NewGenerationIsFilledFromItsOwnBeginning) {
    fileRange(0, 9);
    support::EventFields again = event(0);
    again.time = 2000;
    file(again);
    // The same bytes as in the old generation: this one does not hold them yet.
    EXPECT_EQ(file(event(1)), Filed::STORED);
    EXPECT_EQ(status(again), heldTo(1));
}

TEST_F(FilingTest, NewestGenerationIsKnownAfterARestart) {
    fileRange(0, 9);
    support::EventFields again = event(0);
    again.time = 2000;
    file(again);
    archive_.commit();
    Archive restarted = make();
    EXPECT_EQ(restarted.fileEvent(LINK, support::eventBody(again)), Filed::DUPLICATE);
    restarted.fileEvent(LINK, support::eventBody(event(1)));
    EXPECT_EQ(status(restarted, again), heldTo(1));
}

TEST_F(FilingTest, SameIdOfAnotherInstanceIsAnotherEvent) {
    fileRange(0, 3);
    EXPECT_EQ(file({.log = {.instance = 2}, .id = 0}), Filed::STORED);
    EXPECT_EQ(counts().generations, 0U);
}

TEST_F(FilingTest, GapIsSaidWithItsIds) {
    fileRange(0, 3);
    file(event(6));
    EXPECT_THAT(said(), ElementsAre("enclosure ENC-A blade BLADE-1 slot 1 instance 1: gap, ids 4 "
                                    "to 5 are missing"));
    EXPECT_EQ(counts().gaps, 1U);
    EXPECT_EQ(archive_.countGaps(), 1U);
}

TEST_F(FilingTest, FilledGapIsCountedNoMore) {
    fileRange(0, 3);
    file(event(6));
    file(event(4));
    EXPECT_EQ(archive_.countGaps(), 1U);
    file(event(5));
    EXPECT_EQ(archive_.countGaps(), 0U);
    EXPECT_EQ(said().size(), 1U);
}

TEST_F(FilingTest, LogMayBeginAtAnyId) {
    file(event(5000));
    EXPECT_TRUE(said().empty());
    EXPECT_EQ(archive_.countGaps(), 0U);
}

TEST_F(FilingTest, IdsWrapIntoTheNextInstanceWithoutAGap) {
    fileRange(0xFFFFFFFE, 0xFFFFFFFF);
    fileRange(0, 1, {.instance = 2});
    EXPECT_TRUE(said().empty());
    EXPECT_EQ(archive_.countGaps(), 0U);
    EXPECT_EQ(ask(support::LAST, {}, 0), 0xFFFFFFFF);
    EXPECT_EQ(ask(support::LAST, {.instance = 2}, 0), 1U);
}

TEST_F(FilingTest, FullArchiveRefusesNewEventsButKnowsDuplicates) {
    Archive archive = make({.rowLimit = 2});
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(0))), Filed::STORED);
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(1))), Filed::STORED);
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(2))), Filed::REFUSED);
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(3))), Filed::REFUSED);
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(1))), Filed::DUPLICATE);
    archive.commit();
    EXPECT_EQ(archive.counts().refused, 2U);
    EXPECT_THAT(said_, ElementsAre(HasSubstr("the archive is full: 2 events")));
    EXPECT_EQ(status(archive, event(0)), heldTo(1));
}

TEST_F(FilingTest, FullArchiveOpensNoGeneration) {
    Archive archive = make({.rowLimit = 1});
    archive.fileEvent(LINK, support::eventBody(event(0)));
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody({.id = 0})), Filed::REFUSED);
    archive.commit();
    EXPECT_EQ(store_->listGenerations().size(), 1U);
}

TEST_F(FilingTest, RowsOfBeforeTheStartCount) {
    fileRange(0, 4);
    archive_.commit();
    Archive restarted = make({.rowLimit = 5});
    EXPECT_EQ(restarted.fileEvent(LINK, support::eventBody(event(5))), Filed::REFUSED);
}

TEST_F(FilingTest, AbandonedEventsAreForgottenAndCanComeAgain) {
    fileRange(0, 3);
    archive_.commit();
    fileRange(6, 9);
    archive_.abandon();
    EXPECT_TRUE(said().empty()); // the gap was not said
    EXPECT_EQ(counts().stored, 4U);
    EXPECT_EQ(file(event(4)), Filed::STORED);
    EXPECT_EQ(status(event(0)), heldTo(4));
}

TEST_F(FilingTest, DoubtfulEventIsAnsweredButMakesRoomForTheTrueOne) {
    support::EventFields damaged = event(4);
    damaged.data[0] = 'x';
    EXPECT_EQ(archive_.fileEvent(LINK, support::eventBody(damaged), Certainty::SILENT),
              Filed::STORED);
    EXPECT_EQ(ask(support::EXACT, {}, 4), 4U);
    EXPECT_EQ(file(event(4)), Filed::STORED);
    EXPECT_EQ(counts().generations, 0U);
    EXPECT_EQ(store_->heldEvent(store_->listGenerations().at(0).number, 4)->image,
              support::eventBody(event(4)));
    std::vector<AsideEvent> aside;
    store_->forEachAside([&aside](const AsideEvent& event) { aside.push_back(event); });
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_EQ(aside[0].reason, Aside::REPLACED);
    EXPECT_EQ(aside[0].image, support::eventBody(damaged));
}

TEST_F(FilingTest, DoubtfulEventOpensNoGeneration) {
    file(event(4));
    support::EventFields other = event(4);
    other.time = 2000;
    EXPECT_EQ(archive_.fileEvent(LINK, support::eventBody(other), Certainty::SILENT), Filed::LEFT);
    EXPECT_EQ(archive_.fileEvent(LINK, support::eventBody(other), Certainty::ENDED),
              Filed::SET_ASIDE);
    EXPECT_EQ(file(other), Filed::NEW_GENERATION);
}

TEST_F(FilingTest, EventThatIsTakenBackLeavesItsPlaceFree) {
    fileRange(0, 3);
    archive_.fileEvent(LINK, support::eventBody(event(4)), Certainty::SILENT);
    archive_.takeBack(LINK, support::eventBody(event(4)));
    EXPECT_EQ(ask(support::EXACT, {}, 4), std::nullopt);
    EXPECT_EQ(counts().setAside, 1U);
    EXPECT_EQ(status(event(0)), heldTo(3));
    EXPECT_EQ(file(event(4)), Filed::STORED);
}

TEST_F(FilingTest, CertainEventCanBeTakenBackToo) {
    fileRange(0, 4);
    EXPECT_EQ(status(event(0)), heldTo(4));
    archive_.takeBack(LINK, support::eventBody(event(4)));
    EXPECT_EQ(status(event(0)), heldTo(3));
    archive_.commit();
    Archive restarted = make();
    EXPECT_EQ(status(restarted, event(0)), heldTo(3));
}

TEST_F(FilingTest, EventOfALinkThatItsBladeHasLeftIsSetAsideUnlessHeld) {
    const auto request = imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, 0, {}));
    archive_.answerStatus(7, request);
    archive_.fileEvent(7, support::eventBody(event(0)));
    archive_.answerStatus(8, request);
    EXPECT_EQ(archive_.fileEvent(7, support::eventBody(event(0))), Filed::DUPLICATE);
    EXPECT_EQ(archive_.fileEvent(7, support::eventBody(event(1))), Filed::SET_ASIDE);
    EXPECT_EQ(archive_.fileEvent(8, support::eventBody(event(1))), Filed::STORED);
    EXPECT_EQ(counts().setAside, 1U);
}

TEST_F(FilingTest, EventOfAnotherIdentityOpensNoGenerationThere) {
    const LogName other{.slot = 2};
    file(event(1, other));
    archive_.answerStatus(7, imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, 0, {})));
    support::EventFields foreign = event(1, other);
    foreign.time = 2000;
    EXPECT_EQ(archive_.fileEvent(7, support::eventBody(foreign)), Filed::STORED); // its own copy
    EXPECT_EQ(counts().generations, 0U);
    EXPECT_EQ(counts().setAside, 1U);
}

TEST_F(FilingTest, EventOfAnotherIdentityHoldsItsIdInTheSpeakersLog) {
    const auto request = imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, 0, {}));
    archive_.answerStatus(7, request);
    const auto fileFrom = [&](const support::EventFields& fields) {
        return archive_.fileEvent(7, support::eventBody(fields));
    };
    fileFrom(event(0));
    // Replayed from a file that was written while the blade was in another slot.
    EXPECT_EQ(fileFrom(event(1, {.slot = 2})), Filed::STORED);
    fileFrom(event(2));
    EXPECT_EQ(status(event(0)), heldTo(2));
    EXPECT_EQ(counts().gaps, 0U);
    EXPECT_EQ(counts().strangers, 1U);
    // It answers for its own identity only.
    EXPECT_EQ(ask(support::NEXT, {}, 0), 2U);
    EXPECT_EQ(ask(support::EXACT, {}, 1), std::nullopt);
    EXPECT_EQ(ask(support::EXACT, {.slot = 2}, 1), 1U);
}

TEST_F(FilingTest, NamesAreSaidInPrintableLetters) {
    EXPECT_EQ(nameOf(BladeKey{"a\x1B[2J\xFF", "", 3}), "enclosure a?[2J? blade \"\" slot 3");
}

TEST_F(ClearTest, NothingIsClearedUnlessAsked) {
    fileRange(0, 9);
    EXPECT_EQ(status(event(0)).controlFlag, 0U);
}

TEST_F(ClearTest, AllNamesTheLastId) {
    Archive archive = make({.clear = Clear::ALL});
    fileRange(0, 9);
    archive_.commit();
    EXPECT_EQ(status(archive, event(4)), (StatusVerdict{9, 2}));
}

TEST_F(ClearTest, AllButNewestLeavesTheBladeOneEvent) {
    Archive archive = make({.clear = Clear::ALL_BUT_NEWEST});
    fileRange(0, 9);
    archive_.commit();
    EXPECT_EQ(status(archive, event(4)), (StatusVerdict{8, 2}));
}

TEST_F(ClearTest, EachLogIsClearedOnce) {
    Archive archive = make({.clear = Clear::ALL});
    fileRange(0, 9);
    fileRange(0, 3, {.slot = 2});
    archive_.commit();
    EXPECT_EQ(status(archive, event(0)), (StatusVerdict{9, 2}));
    EXPECT_EQ(status(archive, event(0)), heldTo(9));
    EXPECT_EQ(status(archive, event(0, {.slot = 2})), (StatusVerdict{3, 2}));
}

TEST_F(ClearTest, SingleEventIsNotCleared) {
    Archive archive = make({.clear = Clear::ALL_BUT_NEWEST});
    fileRange(7, 7);
    archive_.commit();
    EXPECT_EQ(status(archive, event(7)), NO_DATA);
}

TEST_F(ClearTest, WhatIsNotHeldIsNeverCleared) {
    Archive archive = make({.clear = Clear::ALL});
    fileRange(3, 9);
    archive_.commit();
    EXPECT_EQ(status(archive, event(2)), NO_DATA);
    // The hole keeps what lies behind it, too.
    fileRange(11, 12);
    archive_.commit();
    EXPECT_EQ(status(archive, event(3)), (StatusVerdict{9, 2}));
}

class DamagedArchiveTest : public ArchiveTest {
  protected:
    // An archive of three events, the first of which has been spoilt in the file.
    void SetUp() override {
        store_ = openArchive(path_);
        Archive archive = make();
        archive.fileEvent(LINK, support::eventBody(event(0)));
        archive.fileEvent(LINK, support::eventBody(event(1)));
        archive.fileEvent(LINK, support::eventBody(event(2)));
        archive.commit();
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(database, "UPDATE events SET image = x'0000' WHERE id = 0", nullptr,
                               nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(database);
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
};

TEST_F(DamagedArchiveTest, DamagedEventIsNotHeld) {
    Archive archive = make();
    EXPECT_EQ(status(archive, event(0)), NO_DATA);
    EXPECT_EQ(status(archive, event(1)), heldTo(2));
}

TEST_F(DamagedArchiveTest, DamagedEventIsNoAnswer) {
    Archive archive = make();
    const auto ask = [&](U32_t type) {
        return archive.answerInquiry(imageOf<EmpEvInquiryMsg_t>(support::inquiryBody(type, {}, 0)));
    };
    EXPECT_FALSE(ask(support::EXACT));
    EXPECT_TRUE(ask(support::NEXT));
    archive.commit();
    EXPECT_THAT(said_, ElementsAre(HasSubstr("event 0 is damaged")));
}

TEST_F(DamagedArchiveTest, DamagedEventThatComesAgainIsKept) {
    Archive archive = make();
    EXPECT_EQ(archive.fileEvent(LINK, support::eventBody(event(0))), Filed::NEW_GENERATION);
    archive.fileEvent(LINK, support::eventBody(event(1)));
    EXPECT_EQ(status(archive, event(0)), heldTo(1));
}
