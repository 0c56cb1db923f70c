/** A log that was rebuilt counts from the start, below the ids that the archive has of the one
 * before: it is not filed among them. */
#include "archive_fixture.h"
#include "memory_store.h"

using namespace evarchive;
using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RebuiltLogTest : public testing::TestWithParam<bool> {
  protected:
    // Two logs of the blade, of the same data: only their times tell one from the other.
    static constexpr U32_t BEFORE = 1000;
    static constexpr U32_t REBUILT = 5000;

    static EventFields event(U32_t clock, U32_t id) {
        return {.id = id, .data = {1, 2, 3}, .time = clock + id};
    }

    void restart() {
        archive_ = std::make_unique<Archive>(
            *store_, ArchiveSettings{}, [this](Level, const auto& line) { said_.push_back(line); });
    }

    StatusVerdict connect(U32_t oldest) {
        archive_->endLink(link_);
        archive_->commit();
        const EventFields first = event(0, oldest);
        const auto verdict = archive_->answerStatus(
            ++link_, imageOf<EmpGetEvArchiverStatusMsg_t>(statusBody({}, first.id, first.data)));
        archive_->commit();
        return verdict;
    }

    Filed send(U32_t clock, U32_t first, U32_t last) {
        Filed filed{};
        for (U32_t id = first; id <= last; ++id) {
            filed = archive_->fileEvent(link_, eventBody(event(clock, id)));
        }
        return filed;
    }
    Filed send(U32_t clock, U32_t id) { return send(clock, id, id); }

    std::vector<std::string> held() {
        archive_->commit();
        std::vector<std::string> generations;
        for (const GenerationInfo& info : store_->listGenerations()) {
            std::string runs;
            const auto clockOf = [&](U32_t id) {
                const auto image = store_->heldEvent(info.number, id)->image;
                return imageOf<EmpEvLogHeader_t>(image).evTime - id;
            };
            store_->forEachRun(info.number, 0, [&](const IdRun& run) {
                runs += (runs.empty() ? "" : " ") + std::to_string(run.first) + "-" +
                        std::to_string(run.last);
            });
            const U32_t clock = clockOf(*store_->highestId(info.number));
            store_->forEachEvent(info.number, [&](const StoredEvent& stored) {
                EXPECT_EQ(clockOf(stored.sequenceId), clock) << "of two logs in " << runs;
            });
            generations.push_back(std::to_string(clock) + ": " + runs);
        }
        return generations;
    }

    MemoryDatabase database_;
    std::unique_ptr<Store> store_ =
        GetParam() ? std::make_unique<MemoryStore>(database_, true) : openArchiveInMemory();
    std::unique_ptr<Archive> archive_;
    std::vector<std::string> said_;
    LinkNumber link_ = 0;

    void SetUp() override { restart(); }
};

} // namespace

TEST_P(RebuiltLogTest, ShortOneStandsByItself) {
    EXPECT_EQ(connect(100), NO_DATA);
    send(BEFORE, 100, 110);
    EXPECT_EQ(connect(1), NO_DATA);
    EXPECT_EQ(send(REBUILT, 1), Filed::NEW_GENERATION);
    send(REBUILT, 2, 50);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110", "5000: 1-50"));
    EXPECT_EQ(connect(1), heldTo(50));
    EXPECT_EQ(archive_->countGaps(), 0U);
    EXPECT_THAT(said_, testing::Contains("enclosure ENC-A blade BLADE-1 slot 1 instance 1: begins "
                                         "anew, with id 1, generation 2 opened"));
}

TEST_P(RebuiltLogTest, WhatWasKnownOfTheOneBeforeIsForgotten) {
    connect(100);
    send(BEFORE, 100, 110);
    connect(1);
    send(REBUILT, 1, 50);
    connect(60);
    send(REBUILT, 60, 61);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110", "5000: 1-50 60-61"));
}

TEST_P(RebuiltLogTest, OldestIdOfOneLogSaysNothingOfAnother) {
    const LogName other{.blade = "BLADE-2"};
    connect(100);
    send(BEFORE, 100, 110);
    archive_->fileEvent(link_, eventBody({.log = other, .id = 300})); // an alternate one, say
    archive_->commit();
    const auto generations = store_->listGenerations();
    ASSERT_THAT(generations, testing::SizeIs(2));
    EXPECT_EQ(generations[0].oldest, 100U);
    EXPECT_EQ(generations[1].oldest, std::nullopt);
}

TEST_P(RebuiltLogTest, NothingOfALongOneComesTwice) {
    connect(100);
    send(BEFORE, 100, 110);
    connect(1);
    send(REBUILT, 1, 120);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110", "5000: 1-120"));
    EXPECT_EQ(archive_->counts().duplicates, 0U);
}

TEST_P(RebuiltLogTest, NothingIsClaimedThatOnlyTheOneBeforeHad) {
    connect(100);
    send(BEFORE, 100, 110);
    connect(1);
    send(REBUILT, 1, 99);
    EXPECT_EQ(connect(1), heldTo(99));
}

TEST_P(RebuiltLogTest, AnotherArchiverKnowsIt) {
    connect(100);
    send(BEFORE, 100, 110);
    archive_->commit();
    restart();
    EXPECT_EQ(connect(1), NO_DATA);
    send(REBUILT, 1, 50);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110", "5000: 1-50"));
}

TEST_P(RebuiltLogTest, ALinkThatEndsBeforeItsFirstEventChangesNothing) {
    connect(100);
    send(BEFORE, 100, 110);
    connect(1);
    connect(1);
    connect(100);
    EXPECT_EQ(send(BEFORE, 110, 111), Filed::STORED);
    connect(1);
    send(REBUILT, 1, 50);
    EXPECT_THAT(held(), ElementsAre("1000: 100-111", "5000: 1-50"));
}

TEST_P(RebuiltLogTest, ADoubtfulEventOfItIsNotFiledAmongTheOthers) {
    connect(100);
    send(BEFORE, 100, 110);
    connect(1);
    const Bytes first = eventBody(event(REBUILT, 1));
    EXPECT_EQ(archive_->fileEvent(link_, first, Certainty::SILENT), Filed::LEFT);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110"));
    EXPECT_EQ(archive_->fileEvent(link_, first, Certainty::ENDED), Filed::SET_ASIDE);
    EXPECT_THAT(held(), ElementsAre("1000: 100-110"));
    connect(1);
    EXPECT_EQ(archive_->fileEvent(link_, first), Filed::NEW_GENERATION);
}

TEST_P(RebuiltLogTest, AnEventThatComesBeforeTheOthersBeginsItToo) {
    connect(1);
    send(BEFORE, 1, 60);
    connect(1);
    EXPECT_EQ(send(REBUILT, 40), Filed::NEW_GENERATION); // the rest is asked for
    send(REBUILT, 1, 45);
    EXPECT_THAT(held(), ElementsAre("1000: 1-60", "5000: 1-45"));
}

TEST_P(RebuiltLogTest, OldestIdGrowsWithTheLog) {
    connect(1);
    send(BEFORE, 1, 10);
    connect(8); // its ring has gone round, but nothing was missed
    send(BEFORE, 11);
    send(BEFORE, 60, 70); // now it was, while the link stood
    connect(60);
    send(BEFORE, 71);
    connect(20); // within the hole: the log of now has never had less than 60
    send(REBUILT, 20, 30);
    EXPECT_THAT(held(), ElementsAre("1000: 1-11 60-71", "5000: 20-30"));
}

TEST_P(RebuiltLogTest, AHoleIsNotFilledByALogThatBeginsInIt) {
    connect(1);
    send(BEFORE, 1, 10);
    EXPECT_EQ(connect(60), NO_DATA);
    send(BEFORE, 60, 70);
    EXPECT_EQ(connect(20), NO_DATA);
    send(REBUILT, 20, 65);
    EXPECT_THAT(held(), ElementsAre("1000: 1-10 60-70", "5000: 20-65"));
}

TEST_P(RebuiltLogTest, ARequestThatNamesTooHighAnIdIsCorrectedByTheFirstEvent) {
    connect(0xFFFFFF00);
    send(BEFORE, 5, 10);
    connect(20);
    send(BEFORE, 20, 21);
    EXPECT_THAT(held(), ElementsAre("1000: 5-10 20-21"));
}

TEST_P(RebuiltLogTest, ALinkThatSaysNothingOfItselfKnowsNoOldestId) {
    link_ = 7;
    EXPECT_NE(send(BEFORE, 100, 110), Filed::NEW_GENERATION);
    EXPECT_EQ(store_->listGenerations().front().oldest, std::nullopt);
}

// What a blade has dropped because it was asked to is in its file all the same, and comes back when
// its event manager starts again.
TEST_P(RebuiltLogTest, WhatWasDroppedAndComesBackIsTheSameLog) {
    connect(1);
    send(BEFORE, 1, 10);
    connect(9);
    send(BEFORE, 11);
    EXPECT_EQ(connect(1), heldTo(11));
    send(BEFORE, 11, 12);
    EXPECT_THAT(held(), ElementsAre("1000: 1-12"));
}

TEST_P(RebuiltLogTest, TheOldestIdIsWrittenWithTheEventsAndForgottenWithThem) {
    connect(100);
    send(BEFORE, 100);
    archive_->abandon();
    EXPECT_THAT(store_->listGenerations(), IsEmpty());
    connect(1);
    send(BEFORE, 1, 3);
    EXPECT_THAT(held(), ElementsAre("1000: 1-3"));
    EXPECT_EQ(store_->listGenerations().front().oldest, 1U);
}

INSTANTIATE_TEST_SUITE_P(Storages, RebuiltLogTest, testing::Values(false, true),
                         [](const auto& isShared) { return isShared.param ? "Shared" : "Owned"; });
