/** What the archive may rely on, of every engine alike. */
#include "fleet_server.h"
#include "sqlite_store.h"

#include <numeric>
#include <random>

using namespace evarchive;
using testing::ElementsAre;

namespace fleet {

/** An engine, and how an empty archive on it is opened. */
struct Engine {
    const char* name;
    std::unique_ptr<evarchive::Store> (*open)();
};

void PrintTo(const Engine& engine, std::ostream* stream) {
    *stream << engine.name;
}

} // namespace fleet

namespace {

constexpr S64_t RECEIVED = fleet::NOW;

class StoreContractTest : public testing::TestWithParam<fleet::Engine> {
  protected:
    void add(const GenerationKey& generation, U32_t id, bool own = true, bool doubtful = false,
             S64_t received = RECEIVED) {
        const Bytes image = support::eventBody({.id = id});
        store_->addEvent(generation, {id, image, own, doubtful, received});
    }

    /** A generation, in a transaction that is left open. */
    GenerationKey open(const SeriesKey& key, U32_t number = 1) {
        store_->begin();
        const auto known = store_->findSeries(key);
        const GenerationKey generation{known ? *known : store_->addSeries(key), number};
        store_->newestGeneration(generation.series);
        store_->addGeneration(generation, RECEIVED);
        return generation;
    }

    GenerationKey fill(const std::vector<U32_t>& ids) {
        const GenerationKey generation = open(key_);
        for (const U32_t id : ids) {
            add(generation, id);
        }
        store_->commit();
        return generation;
    }

    std::vector<IdRun> runsOf(const GenerationKey& generation, U32_t from = 0) {
        std::vector<IdRun> runs;
        store_->forEachRun(generation, from, [&](const IdRun& run) { runs.push_back(run); });
        return runs;
    }

    std::optional<U32_t> find(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type, U32_t id) {
        const auto found = store_->findEvent(generation, type, id);
        return found ? std::optional(found->sequenceId) : std::nullopt;
    }

    std::unique_ptr<Store> store_ = GetParam().open();
    SeriesKey key_{{"ENC-A", "BLADE-1", 1}, 1};
};

} // namespace

TEST_P(StoreContractTest, CommittedEventsAreHeld) {
    const GenerationKey generation = fill({0, 1, 5});
    EXPECT_EQ(store_->findSeries(key_), generation.series);
    EXPECT_EQ(store_->newestGeneration(generation.series)->number, generation);
    EXPECT_EQ(store_->newestGeneration(generation.series)->opened, RECEIVED);
    EXPECT_EQ(store_->highestId(generation), 5U);
    EXPECT_EQ(store_->oldestEvent(generation)->sequenceId, 0U);
    EXPECT_EQ(store_->endOfRun(generation, 0), 1U);
    EXPECT_EQ(store_->rowCount(), 3U);
    const auto held = store_->heldEvent(generation, 5);
    EXPECT_EQ(held->image, support::eventBody({.id = 5}));
    EXPECT_EQ(held->received, RECEIVED);
    EXPECT_TRUE(held->own);
    EXPECT_FALSE(held->doubtful);
}

TEST_P(StoreContractTest, ManySeriesAreFoundAsEachByItself) {
    std::vector<SeriesKey> keys;
    for (U32_t slot = 1; slot <= 8; ++slot) {
        keys.push_back({{"ENC-A", "BLADE-1", slot}, 1});
    }
    for (const U32_t at : {0U, 3U, 6U}) {
        add(open(keys[at]), 5 + at);
        store_->commit();
    }
    add(open(keys[3], 2), 1);
    store_->commit();
    store_->begin();
    store_->addSeries(keys[5]);
    store_->commit();
    const auto found = store_->findAll(keys);
    ASSERT_EQ(found.size(), keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const auto number = store_->findSeries(keys[i]);
        ASSERT_EQ(found[i].has_value(), number.has_value()) << i;
        const auto newest = number ? store_->newestGeneration(*number) : std::nullopt;
        ASSERT_EQ(found[i] && found[i]->newest, newest.has_value()) << i;
        if (newest) {
            EXPECT_EQ(found[i]->newest->number, newest->number);
            EXPECT_EQ(found[i]->newest->highest, newest->highest);
            EXPECT_EQ(found[i]->newest->opened, newest->opened);
        }
    }
    EXPECT_EQ(found[3]->newest->number.generation, 2U);
    EXPECT_TRUE(found[5]);
    EXPECT_FALSE(found[1]);
}

TEST_P(StoreContractTest, WhatIsRolledBackIsNotHeld) {
    const GenerationKey generation = fill({0});
    store_->begin();
    add(generation, 1);
    EXPECT_EQ(store_->highestId(generation), 1U);
    store_->rollback();
    EXPECT_EQ(store_->highestId(generation), 0U);
    store_->begin();
    add(generation, 2);
    store_->commit();
    EXPECT_THAT(runsOf(generation), ElementsAre(IdRun{0, 0}, IdRun{2, 2}));
}

TEST_P(StoreContractTest, TransactionSeesItsOwnChanges) {
    const GenerationKey generation = open(key_);
    add(generation, 3);
    EXPECT_EQ(store_->heldEvent(generation, 3)->image, support::eventBody({.id = 3}));
    add(generation, 4);
    EXPECT_EQ(store_->endOfRun(generation, 3), 4U);
    store_->removeEvent(generation, 3);
    EXPECT_EQ(store_->heldEvent(generation, 3), std::nullopt);
    store_->commit();
    EXPECT_THAT(runsOf(generation), ElementsAre(IdRun{4, 4}));
}

TEST_P(StoreContractTest, RunsAreSeparatedByHoles) {
    const GenerationKey generation = fill({0, 1, 5, 0xFFFFFFFE, 0xFFFFFFFF});
    EXPECT_THAT(runsOf(generation),
                ElementsAre(IdRun{0, 1}, IdRun{5, 5}, IdRun{0xFFFFFFFE, 0xFFFFFFFF}));
    EXPECT_THAT(runsOf(generation, 1),
                ElementsAre(IdRun{1, 1}, IdRun{5, 5}, IdRun{0xFFFFFFFE, 0xFFFFFFFF}));
    EXPECT_EQ(store_->endOfRun(generation, 0xFFFFFFFE), 0xFFFFFFFFU);
}

TEST_P(StoreContractTest, RunGoesOnFromPageToPage) {
    std::vector<U32_t> ids(4096 + 4096 + 10);
    std::iota(ids.begin(), ids.end(), 100U);
    ids.erase(ids.begin() + 8195);
    const GenerationKey generation = fill(ids);
    EXPECT_EQ(store_->endOfRun(generation, 100), 100U + 8194);
}

TEST_P(StoreContractTest, EmptyGenerationHasNothing) {
    const GenerationKey generation = fill({});
    EXPECT_EQ(store_->highestId(generation), std::nullopt);
    EXPECT_EQ(store_->heldEvent(generation, 0), std::nullopt);
    EXPECT_EQ(store_->oldestEvent(generation), std::nullopt);
    EXPECT_TRUE(runsOf(generation).empty());
}

TEST_P(StoreContractTest, DoubtfulEventEndsARunUntilItIsConfirmed) {
    const GenerationKey generation = fill({0, 1});
    store_->begin();
    add(generation, 2, true, true);
    store_->commit();
    EXPECT_EQ(store_->endOfRun(generation, 0), 1U);
    EXPECT_TRUE(store_->heldEvent(generation, 2)->doubtful);
    store_->begin();
    store_->confirmEvent(generation, eventBody({.id = 2}));
    store_->commit();
    EXPECT_EQ(store_->endOfRun(generation, 0), 2U);
}

TEST_P(StoreContractTest, InquiriesFindTheirEvents) {
    const GenerationKey generation = fill({2, 4, 6});
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_FIRST, 5), 2U);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_NEXT, 2), 4U);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_NEXT, 6), std::nullopt);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_EXACT, 4), 4U);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_EXACT, 5), std::nullopt);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_PREVIOUS, 6), 4U);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_PREVIOUS, 2), std::nullopt);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_LAST, 0), 6U);
}

TEST_P(StoreContractTest, EventsOfAnotherIdentityHoldIdsButAreNotFound) {
    const GenerationKey generation = fill({1});
    store_->begin();
    add(generation, 2, false);
    store_->commit();
    EXPECT_EQ(store_->endOfRun(generation, 1), 2U);
    EXPECT_FALSE(store_->heldEvent(generation, 2)->own);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_EXACT, 2), std::nullopt);
    EXPECT_EQ(find(generation, EMP_E_INQUIRY_TYPE_LAST, 0), 1U);
}

TEST_P(StoreContractTest, GenerationsAreApart) {
    const GenerationKey first = fill({0, 1});
    const GenerationKey second = open(key_, 2);
    add(second, 0);
    store_->countDuplicates(second, 3);
    store_->countDuplicates(second, 4);
    store_->noteProven(first, {0, 1});
    store_->commit();
    EXPECT_EQ(store_->newestGeneration(first.series)->number, second);
    EXPECT_EQ(store_->highestId(second), 0U);
    const auto list = store_->listGenerations();
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].key, key_);
    EXPECT_EQ(list[0].proven, (IdRun{0, 1}));
    EXPECT_EQ(list[1].duplicates, 7U);
    EXPECT_EQ(list[1].proven, std::nullopt);
}

TEST_P(StoreContractTest, ProvenRunIsForgottenByAnEmptyOne) {
    const GenerationKey generation = fill({0});
    store_->begin();
    store_->noteProven(generation, {0, 0});
    store_->noteProven(generation, {1, 0});
    store_->commit();
    EXPECT_EQ(store_->newestGeneration(generation.series)->proven, std::nullopt);
}

TEST_P(StoreContractTest, OldestIdOfALogIsOfOneGeneration) {
    const GenerationKey first = fill({7});
    EXPECT_EQ(store_->newestGeneration(first.series)->oldest, std::nullopt);
    store_->begin();
    store_->noteOldest(first, 3);
    EXPECT_EQ(store_->newestGeneration(first.series)->oldest, 3U);
    store_->noteOldest(first, 0xFFFFFFFF);
    store_->commit();
    EXPECT_EQ(store_->newestGeneration(first.series)->oldest, 0xFFFFFFFF);
    open(key_, 2);
    store_->commit();
    EXPECT_EQ(store_->newestGeneration(first.series)->oldest, std::nullopt);
    EXPECT_EQ(store_->listGenerations().front().oldest, 0xFFFFFFFF);
    EXPECT_EQ(store_->findAll({key_}).front()->newest->oldest, std::nullopt);
    store_->begin();
    store_->noteOldest({first.series, 2}, 0);
    store_->rollback();
    EXPECT_EQ(store_->newestGeneration(first.series)->oldest, std::nullopt);
}

TEST_P(StoreContractTest, OldestGoButNeverTheNewest) {
    const GenerationKey generation = fill({0, 1, 2, 3});
    store_->begin();
    EXPECT_EQ(store_->removeOldest(generation, RECEIVED, 10), 0U); // they are as old as that
    EXPECT_EQ(store_->removeOldest(generation, RECEIVED + 1, 2), 2U);
    EXPECT_EQ(store_->removeOldest(generation, RECEIVED + 1, 10), 1U);
    store_->commit();
    EXPECT_EQ(store_->oldestEvent(generation)->sequenceId, 3U);
}

TEST_P(StoreContractTest, EventIsSetAsideOnce) {
    const Bytes image = support::eventBody({.id = 9});
    store_->begin();
    for (int time = 0; time < 2; ++time) {
        store_->setAside(key_, Aside::SUPERSEDED, {9, image, true, false, RECEIVED});
    }
    store_->commit();
    std::vector<AsideEvent> aside;
    store_->forEachAside([&](const AsideEvent& event) { aside.push_back(event); });
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_EQ(aside[0].key, key_);
    EXPECT_EQ(aside[0].sequenceId, 9U);
    EXPECT_EQ(aside[0].reason, Aside::SUPERSEDED);
    EXPECT_EQ(aside[0].received, RECEIVED);
    EXPECT_EQ(aside[0].image, image);
    store_->begin();
    EXPECT_EQ(store_->removeAside(RECEIVED), 0U);
    EXPECT_EQ(store_->removeAside(RECEIVED + 1), 1U);
    store_->commit();
}

TEST_P(StoreContractTest, EveryImageComesBackByteForByte) {
    std::mt19937 random(3);
    const GenerationKey generation = open(key_);
    std::vector<Bytes> images;
    for (U32_t id = 0; id < 500; ++id) {
        const std::size_t size = id % 100 == 0 ? 3848 : random() % 200;
        Bytes image = support::eventBody({.id = id,
                                          .data = Bytes(size, static_cast<U8_t>(random())),
                                          .time = static_cast<U32_t>(random())});
        for (auto changes = random() % 4; changes > 0; --changes) {
            image[random() % 136] = static_cast<U8_t>(random()); // whatever the identity
            image[140 + random() % 4] = static_cast<U8_t>(random());
        }
        store_->addEvent(generation, {id, image, true, false, RECEIVED});
        images.push_back(std::move(image));
    }
    store_->commit();
    U32_t id = 0;
    store_->forEachEvent(generation, [&](const StoredEvent& event) {
        ASSERT_EQ(event.sequenceId, id);
        ASSERT_EQ(event.image, images.at(id)) << id;
        ++id;
    });
    EXPECT_EQ(id, images.size());
}

TEST_P(StoreContractTest, TextsThatAreNoTextsNameALog) {
    key_.blade = {"\xFF\x01'\\", "", 0xFFFFFFFF};
    key_.instance = 0xFFFFFFFF;
    const GenerationKey generation = fill({0});
    EXPECT_EQ(store_->findSeries(key_), generation.series);
    EXPECT_EQ(store_->listGenerations().at(0).key, key_);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, StoreContractTest,
    testing::Values(
        fleet::Engine{"sqlite", [] { return openArchiveInMemory(); }},
        fleet::Engine{"postgresql",
                      [] { return openPgArchive(fleet::emptyArchive(), Received::AS_TOLD); }},
        fleet::Engine{"hub", [] { return openPgArchive(fleet::emptyHub(), Received::AS_TOLD); }}),
    [](const testing::TestParamInfo<fleet::Engine>& engine) { return engine.param.name; });
