/** What an archive keeps at most, and what an operator does with one. */
#include "archive_fixture.h"
#include "archive_upkeep.h"
#include "temp_directory.h"

using namespace evarchive;
using namespace support;

namespace {

constexpr S64_t DAY = 86'400;
constexpr S64_t NOW = 1'000 * DAY;

class RetentionTest : public ArchiveTest {
  protected:
    U64_t keep(const RetentionSettings& settings) {
        archive_.commit();
        Retention retention(*store_, settings);
        retention.beginRound(NOW);
        while (retention.isInRound()) {
            retention.step();
        }
        return retention.removed();
    }

    std::vector<U32_t> held(const LogName& log = {}) {
        std::vector<U32_t> ids;
        const auto series =
            store_->findSeries({{log.enclosure, log.blade, log.slot}, log.instance});
        store_->forEachEvent(store_->newestGeneration(*series)->number,
                             [&](const StoredEvent& one) { ids.push_back(one.sequenceId); });
        return ids;
    }
};

const LogName OTHER{"ENC-A", "BLADE-2", 2, 1};

class UpkeepTest : public testing::Test {
  protected:
    void fill(Store& store, U32_t events) {
        Archive archive(store, {}, [](Level, const std::string&) {});
        archive.setTime(time(nullptr));
        for (U32_t id = 0; id < events; ++id) {
            archive.fileEvent(1, eventBody({.id = id, .data = Bytes(1000, 7)}));
        }
        archive.commit();
    }

    static std::vector<Bytes> eventsOf(const std::string& path) {
        const auto store = openArchiveForReading(path);
        std::vector<Bytes> all;
        for (const GenerationInfo& generation : store->listGenerations()) {
            store->forEachEvent(generation.number,
                                [&](const StoredEvent& one) { all.push_back(one.image); });
        }
        return all;
    }

    TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
    std::string copy_ = directory_.file("copy.db");
};

} // namespace

TEST_F(RetentionTest, AgeTakesWhatIsOlderButNeverTheNewestOfALog) {
    archive_.setTime(NOW - 20 * DAY);
    fileRange(0, 9);
    fileRange(0, 4, OTHER);
    archive_.setTime(NOW - 5 * DAY);
    fileRange(10, 14);
    EXPECT_EQ(keep({.keepDays = 10}), 14U);
    EXPECT_EQ(held(), (std::vector<U32_t>{10, 11, 12, 13, 14}));
    EXPECT_EQ(held(OTHER), std::vector<U32_t>{4});
}

TEST_F(RetentionTest, ExactlyTheBoundIsKept) {
    archive_.setTime(NOW - 10 * DAY);
    fileRange(0, 4);
    archive_.setTime(NOW);
    fileRange(5, 5);
    EXPECT_EQ(keep({.keepDays = 10}), 0U);
}

TEST_F(RetentionTest, QuotaIsOfEachLog) {
    fileRange(0, 9);
    fileRange(0, 2, OTHER);
    EXPECT_EQ(keep({.bladeQuota = 4}), 6U);
    EXPECT_EQ(held(), (std::vector<U32_t>{6, 7, 8, 9}));
    EXPECT_EQ(held(OTHER).size(), 3U);
}

TEST_F(RetentionTest, BytesTakeTheOldestOfAllLogsFirst) {
    archive_.setTime(NOW - 9);
    fileRange(0, 2999, OTHER);
    archive_.setTime(NOW);
    fileRange(0, 2999);
    archive_.commit();
    const U64_t bound = store_->bytesUsed() * 3 / 4;
    EXPECT_GT(keep({.maxBytes = bound}), 0U);
    EXPECT_LE(store_->bytesUsed(), bound);
    EXPECT_EQ(held().size(), 3000U);
    EXPECT_LT(held(OTHER).size(), 3000U);
    EXPECT_EQ(held(OTHER).back(), 2999U);
}

TEST_F(RetentionTest, BoundThatTheNewestEventsExceedEnds) {
    fileRange(0, 9);
    fileRange(0, 9, OTHER);
    keep({.maxBytes = 1});
    EXPECT_EQ(held().size() + held(OTHER).size(), 2U);
}

TEST_F(RetentionTest, WhatWasTakenIsStillClaimed) {
    archive_.setTime(NOW - 20 * DAY);
    fileRange(0, 9);
    archive_.setTime(NOW);
    fileRange(10, 19);
    keep({.keepDays = 10});
    Archive restarted = make();
    EXPECT_EQ(status(restarted, event(3)), heldTo(19));
    restarted.fileEvent(LINK, eventBody(event(5))); // comes again all the same
    restarted.commit();
    EXPECT_EQ(restarted.counts().duplicates, 1U);
}

TEST_F(RetentionTest, WhatIsSetAsideGoesByAge) {
    archive_.setTime(NOW - 20 * DAY);
    fileRange(0, 2);
    archive_.fileEvent(LINK, eventBody({.id = 1, .time = 7}), Certainty::ENDED);
    archive_.setTime(NOW);
    archive_.fileEvent(LINK, eventBody({.id = 2, .time = 7}), Certainty::ENDED);
    keep({.keepDays = 10});
    std::vector<U32_t> ids;
    store_->forEachAside([&](const AsideEvent& one) { ids.push_back(one.sequenceId); });
    EXPECT_EQ(ids, std::vector<U32_t>{2});
}

TEST_F(UpkeepTest, BackupIsOfOneMomentWhileTheArchiveIsInUse) {
    const auto store = openArchive(path_);
    fill(*store, 50);
    Archive archive(*store, {}, [](Level, const std::string&) {});
    archive.fileEvent(1, eventBody({.id = 50})); // not committed
    backupArchive(path_, copy_);
    archive.commit();
    EXPECT_EQ(eventsOf(copy_).size(), 50U);
    EXPECT_EQ(eventsOf(path_).size(), 51U);
    fill(*openArchive(copy_), 52); // a good archive
}

TEST_F(UpkeepTest, BackupOverwritesNothing) {
    fill(*openArchive(path_), 1);
    writeFile(copy_, "mine");
    EXPECT_THROW(backupArchive(path_, copy_), StoreError);
    EXPECT_EQ(readFile(copy_), "mine");
}

TEST_F(UpkeepTest, BackupOfNoArchiveLeavesNothing) {
    writeFile(path_, "no archive");
    EXPECT_THROW(backupArchive(path_, copy_), StoreError);
    EXPECT_NE(access(copy_.c_str(), F_OK), 0);
}

TEST_F(UpkeepTest, PruneAndVacuumGiveRoomBackWhileTheArchiveIsInUse) {
    const auto store = openArchive(path_);
    fill(*store, 2000);
    EXPECT_EQ(pruneArchive(path_, {.bladeQuota = 100}), 1900U);
    EXPECT_GT(vacuumArchive(path_), 1'500'000U);
    EXPECT_EQ(eventsOf(path_).size(), 100U);
    fill(*store, 2001); // it goes on; what was taken is known to have been there
    EXPECT_EQ(eventsOf(path_).size(), 101U);
}
