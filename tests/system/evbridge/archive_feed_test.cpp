/** What one look at an archive in a file gives. */
#include "evbridge/feed.h"
#include "link_messages.h"
#include "sqlite.h"
#include "sqlite_store.h"
#include "temp_directory.h"
#include "wait.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <sqlite3.h>

using namespace evarchive;
using support::eventBody;
using testing::ElementsAre;

namespace {

class ArchiveFeedTest : public testing::Test {
  protected:
    void file(const std::vector<U32_t>& ids) {
        store_->begin();
        for (const U32_t id : ids) {
            store_->addEvent(generation_, {id, eventBody({.id = id}), true, false, 0});
        }
        store_->commit();
    }

    std::unique_ptr<evbridge::Feed> feed(const std::string& position) const {
        return evbridge::archiveFeed(path_, position, [](Level, const std::string&) {});
    }

    static std::vector<U32_t> idsOf(const evbridge::Entries& entries) {
        std::vector<U32_t> ids;
        for (const evbridge::Entry& entry : entries) {
            ids.push_back(entry.event().header->evSequenceId);
        }
        return ids;
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("archive");
    std::unique_ptr<Store> store_ = archiveConnector(path_)();
    GenerationKey generation_ = [this] {
        store_->begin();
        const GenerationKey made{store_->addSeries({{"ENC-A", "BLADE-1", 1}, 1}), 1};
        store_->addGeneration(made, 0);
        store_->commit();
        return made;
    }();
};

TEST_F(ArchiveFeedTest, WhatComesLateIsHandedOnAlsoWhileNewComes) {
    file({10, 11});
    const auto first = feed("");
    EXPECT_THAT(idsOf(first->more(500)), ElementsAre(10, 11));
    first->taken();
    file({7, 12});
    EXPECT_THAT(idsOf(feed(first->position())->more(500)), ElementsAre(12, 7));
}

TEST_F(ArchiveFeedTest, AnIdThatDamageMadeTooLargeHandsNothingOnTwice) {
    file({10, 11, 12});
    sqlite3* archive = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &archive), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(archive, "UPDATE events SET id = (1 << 32) + 9 WHERE id = 12", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(archive);
    EXPECT_LE(feed("")->more(500).size(), 3U);
}

// Put in its place while the bridge reads: what is open shows the file of before for ever.
TEST_F(ArchiveFeedTest, FileThatIsReplacedIsOpenedAgainAfterAWhile) {
    constexpr std::chrono::milliseconds OPENING(300);
    file({10, 11});
    const auto open = evbridge::archiveFeed(
        path_, "", [](Level, const std::string&) {}, OPENING);
    EXPECT_THAT(idsOf(open->more(500)), ElementsAre(10, 11));
    open->taken();
    const std::string replacement = directory_.file("replacement");
    store_ = archiveConnector(replacement)();
    store_->begin();
    store_->addSeries({{"ENC-A", "BLADE-1", 1}, 1});
    store_->addGeneration(generation_, 0);
    store_->commit();
    file({10, 11, 12});
    store_.reset();
    for (const char* rest : {"-wal", "-shm"}) {
        std::filesystem::remove(path_ + rest);
    }
    std::filesystem::rename(replacement, path_);
    std::vector<U32_t> came;
    EXPECT_TRUE(support::waitUntil([&] {
        came = idsOf(open->more(500));
        return !came.empty();
    }));
    EXPECT_THAT(came, ElementsAre(12));
}

TEST_F(ArchiveFeedTest, WhatWasNotTakenIsGivenAgain) {
    file({10, 11, 12});
    const auto open = feed("");
    EXPECT_THAT(idsOf(open->more(2)), ElementsAre(10, 11));
    EXPECT_THAT(idsOf(open->more(2)), ElementsAre(10, 11));
    EXPECT_EQ(open->position(), "");
    open->taken();
    EXPECT_THAT(idsOf(open->more(2)), ElementsAre(12));
}

TEST_F(ArchiveFeedTest, WhatComesLateIsGivenInPartsAndThenLookedForOnceAMinute) {
    file({10});
    const auto first = feed("");
    EXPECT_THAT(idsOf(first->more(500)), ElementsAre(10));
    first->taken();
    file({1, 2, 3, 4, 5});
    const auto next = feed(first->position());
    for (const std::vector<U32_t>& part : std::vector<std::vector<U32_t>>{{1, 2}, {3, 4}, {5}}) {
        EXPECT_EQ(idsOf(next->more(2)), part);
        next->taken();
    }
    file({0, 11});
    EXPECT_THAT(idsOf(next->more(500)), ElementsAre(11)) << "the minute is not over";
}

TEST_F(ArchiveFeedTest, WhatIsDoubtfulWaitsAndWhatIsAnotherLogsIsLeftToThatOne) {
    store_->begin();
    store_->addEvent(generation_, {10, eventBody({.id = 10}), true, true, 0});
    store_->addEvent(generation_, {11, eventBody({.id = 11}), true, false, 0});
    store_->addEvent(generation_, {12, eventBody({.id = 12}), false, false, 0});
    store_->commit();
    const auto open = feed("");
    EXPECT_THAT(idsOf(open->more(500)), ElementsAre(11));
    open->taken();
    EXPECT_EQ(open->position(), "11-12 ENC-A/BLADE-1/1/1/1\n");
}

TEST_F(ArchiveFeedTest, OfADamagedEventIsToldOnce) {
    file({10});
    SqliteDatabase(path_, SQLITE_OPEN_READWRITE, path_)
        .execute("UPDATE events SET image = substr(image, 1, 100)");
    std::vector<std::string> said;
    const auto open = evbridge::archiveFeed(
        path_, "", [&said](Level, const std::string& line) { said.push_back(line); });
    for (int time = 0; time < 3; ++time) {
        EXPECT_TRUE(open->more(500).empty());
        open->taken();
    }
    EXPECT_THAT(said, ElementsAre("ENC-A/BLADE-1/1/1/1: event 10 is damaged, left out"));
}

} // namespace
