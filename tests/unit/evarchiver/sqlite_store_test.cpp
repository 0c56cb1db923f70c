#include "sqlite_store.h"

#include "link_messages.h"
#include "temp_directory.h"

#include <fstream>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace evarchive;
using support::TempDirectory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class SqliteStoreTest : public testing::Test {
  protected:
    static void add(Store& store, const GenerationKey& generation, U32_t id, bool own = true,
                    bool doubtful = false, S64_t received = 1'700'000'000) {
        const Bytes image = support::eventBody({.id = id});
        store.addEvent(generation, {id, image, own, doubtful, received});
    }

    // One generation with these events, committed.
    GenerationKey fill(Store& store, const std::vector<U32_t>& ids) {
        store.begin();
        const GenerationKey generation{store.addSeries(key_), 1};
        store.addGeneration(generation, 1'700'000'000);
        for (const U32_t id : ids) {
            add(store, generation, id);
        }
        store.commit();
        return generation;
    }

    static void executeOn(const std::string& path, const char* sql) {
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
    }

    TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
    SeriesKey key_{{"E", "B", 3}, 1};
};

} // namespace

TEST_F(SqliteStoreTest, EventsAreThereAfterAReopening) {
    fill(*openArchive(path_), {0, 1, 5});
    const auto store = openArchive(path_);
    const auto series = store->findSeries(key_);
    ASSERT_TRUE(series);
    const GenerationKey generation{*series, store->newestGeneration(*series)->number.generation};
    EXPECT_EQ(generation.generation, 1U);
    EXPECT_EQ(store->highestId(generation), 5U);
    EXPECT_EQ(store->endOfRun(generation, 0), 1U);
    EXPECT_EQ(store->rowCount(), 3U);
    EXPECT_EQ(store->heldEvent(generation, 5)->image, support::eventBody({.id = 5}));
}

TEST_F(SqliteStoreTest, UncommittedEventsAreNotThereAfterAReopening) {
    {
        const auto store = openArchive(path_);
        const GenerationKey generation = fill(*store, {0});
        store->begin();
        add(*store, generation, 1);
    }
    EXPECT_EQ(openArchive(path_)->rowCount(), 1U);
}

TEST_F(SqliteStoreTest, RunsAreSeparatedByHoles) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {0, 1, 5, 0xFFFFFFFE, 0xFFFFFFFF});
    std::vector<IdRun> runs;
    store->forEachRun(generation, 0, [&](const IdRun& run) { runs.push_back(run); });
    EXPECT_THAT(runs, ElementsAre(IdRun{0, 1}, IdRun{5, 5}, IdRun{0xFFFFFFFE, 0xFFFFFFFF}));
}

TEST_F(SqliteStoreTest, EmptyGenerationHasNoRunAndNoHighestId) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {});
    EXPECT_EQ(store->highestId(generation), std::nullopt);
    store->forEachRun(generation, 0, [](const IdRun&) { FAIL(); });
    EXPECT_EQ(store->heldEvent(generation, 0), std::nullopt);
}

TEST_F(SqliteStoreTest, EventsOfAnotherIdentityHoldIdsButAreNotFound) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {1});
    store->begin();
    add(*store, generation, 2, false);
    store->commit();
    EXPECT_TRUE(store->heldEvent(generation, 2));
    EXPECT_EQ(store->endOfRun(generation, 1), 2U);
    EXPECT_FALSE(store->findEvent(generation, EMP_E_INQUIRY_TYPE_EXACT, 2));
    EXPECT_EQ(store->findEvent(generation, EMP_E_INQUIRY_TYPE_LAST, 0)->sequenceId, 1U);
}

TEST_F(SqliteStoreTest, SecondEventUnderAnIdIsRefused) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {1});
    store->begin();
    EXPECT_THROW(add(*store, generation, 1), StoreError);
}

TEST_F(SqliteStoreTest, ColumnsCanBeReadByAnySqliteClient) {
    fill(*openArchive(path_), {7});
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
    sqlite3_stmt* row = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database,
                                 "SELECT id, time, source, events.type, category, event, enclosure "
                                 "FROM events JOIN series USING (series)",
                                 -1, &row, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(row), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(row, 0), 7);
    EXPECT_EQ(sqlite3_column_int(row, 1), 1000);
    EXPECT_EQ(sqlite3_column_int(row, 2), 27);
    EXPECT_EQ(sqlite3_column_int(row, 3), 1);
    EXPECT_EQ(sqlite3_column_int(row, 4), 2);
    EXPECT_EQ(sqlite3_column_int(row, 5), 3);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(row, 6)), "E");
    sqlite3_finalize(row);
    sqlite3_close(database);
}

TEST_F(SqliteStoreTest, SecondArchiverIsKeptOut) {
    const auto store = openArchive(path_);
    EXPECT_THAT([this] { openArchive(path_); },
                ThrowsMessage<StoreError>(HasSubstr("another archiver has this archive open")));
}

TEST_F(SqliteStoreTest, LockIsOnTheFileNotOnItsName) {
    const auto store = openArchive(path_);
    const std::string other = directory_.file("other.db");
    ASSERT_EQ(link(path_.c_str(), other.c_str()), 0);
    EXPECT_THAT([&other] { openArchive(other); },
                ThrowsMessage<StoreError>(HasSubstr("another archiver has this archive open")));
}

TEST_F(SqliteStoreTest, NamesThatKeepNothingAreRefused) {
    for (const char* name : {"", ":memory:", "file:x.db", "file::memory:?cache=shared"}) {
        EXPECT_THROW(openArchive(name), StoreError) << name;
    }
}

TEST_F(SqliteStoreTest, NewArchiveIsForItsOwnerOnly) {
    const mode_t mask = umask(0);
    const auto store = openArchive(path_);
    fill(*store, {0});
    umask(mask);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat state {};
        ASSERT_EQ(stat((path_ + suffix).c_str(), &state), 0) << suffix;
        EXPECT_EQ(state.st_mode & 0777U, 0600U) << suffix;
    }
}

TEST_F(SqliteStoreTest, EmptyFileBecomesAnArchiveOfItsMode) {
    support::writeFile(path_, "");
    ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
    const auto store = openArchive(path_);
    fill(*store, {0});
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat state {};
        ASSERT_EQ(stat((path_ + suffix).c_str(), &state), 0) << suffix;
        EXPECT_EQ(state.st_mode & 0777U, 0640U) << suffix;
    }
}

TEST_F(SqliteStoreTest, FailedOpeningLeavesNoFileBehind) {
    support::writeFile(path_ + "-wal", std::string(10, 'x'));
    ASSERT_EQ(mkdir((path_ + "-journal").c_str(), 0700), 0); // the layout cannot be written
    EXPECT_THROW(openArchive(path_), StoreError);
    EXPECT_FALSE(std::ifstream(path_).good());
}

TEST_F(SqliteStoreTest, DeletedFileIsNoticedAtTheNextCommit) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {0});
    ASSERT_EQ(unlink(path_.c_str()), 0);
    store->begin();
    add(*store, generation, 1);
    EXPECT_THAT([&store] { store->commit(); },
                ThrowsMessage<StoreError>(HasSubstr("was deleted or replaced")));
}

TEST_F(SqliteStoreTest, ReplacedFileIsNoticedAtTheNextCommit) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {0});
    support::writeFile(directory_.file("new"), "x");
    ASSERT_EQ(rename(directory_.file("new").c_str(), path_.c_str()), 0);
    store->begin();
    add(*store, generation, 1);
    EXPECT_THROW(store->commit(), StoreError);
}

TEST_F(SqliteStoreTest, LockOfAnotherProgramIsPassing) {
    const auto store = openArchive(path_);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    try {
        store->begin();
        ADD_FAILURE() << "the file is locked";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isPassing());
    }
    sqlite3_close(other);
    EXPECT_NO_THROW(store->begin());
}

TEST_F(SqliteStoreTest, OldestGoButNeverTheNewest) {
    const auto store = openArchive(path_);
    const GenerationKey generation = fill(*store, {0, 1, 2, 3});
    store->begin();
    EXPECT_EQ(store->removeOldest(generation, 1'700'000'000, 10), 0U); // they are as old as that
    EXPECT_EQ(store->removeOldest(generation, 1'700'000'001, 2), 2U);
    EXPECT_EQ(store->removeOldest(generation, 1'700'000'001, 10), 1U);
    store->commit();
    EXPECT_EQ(store->oldestEvent(generation)->sequenceId, 3U);
}

TEST_F(SqliteStoreTest, ArchiveOfTheFirstLayoutIsBroughtUpToDate) {
    fill(*openArchive(path_), {0, 1});
    executeOn(path_, "ALTER TABLE events DROP COLUMN received;"
                     "ALTER TABLE events DROP COLUMN doubtful;"
                     "ALTER TABLE generations DROP COLUMN proven_first;"
                     "ALTER TABLE generations DROP COLUMN proven_last;"
                     "ALTER TABLE generations DROP COLUMN oldest;"
                     "DROP TABLE set_aside; PRAGMA user_version = 1");
    EXPECT_THAT([this] { openArchiveForReading(path_); },
                ThrowsMessage<StoreError>(HasSubstr("brings it up to date")));
    const auto store = openArchive(path_);
    const auto newest = store->newestGeneration(*store->findSeries(key_));
    EXPECT_EQ(store->heldEvent(newest->number, 1)->image, support::eventBody({.id = 1}));
    EXPECT_GT(store->heldEvent(newest->number, 1)->received, 1'700'000'000);
    EXPECT_EQ(newest->proven, std::nullopt);
}

TEST_F(SqliteStoreTest, ArchiveOfTheSecondLayoutIsBroughtUpToDate) {
    fill(*openArchive(path_), {0, 1});
    executeOn(path_, "ALTER TABLE generations DROP COLUMN oldest; PRAGMA user_version = 2");
    EXPECT_THAT([this] { openArchiveForReading(path_); },
                ThrowsMessage<StoreError>(HasSubstr("brings it up to date")));
    const auto store = openArchive(path_);
    const auto newest = store->newestGeneration(*store->findSeries(key_));
    EXPECT_EQ(newest->oldest, std::nullopt);
    EXPECT_EQ(store->highestId(newest->number), 1U);
    store->begin();
    store->noteOldest(newest->number, 1);
    store->commit();
    EXPECT_EQ(openArchiveForReading(path_)->listGenerations().front().oldest, 1U);
}

TEST_F(SqliteStoreTest, FileThatIsNoDatabaseIsLeftAlone) {
    support::writeFile(path_, std::string(4096, 'x'));
    EXPECT_THROW(openArchive(path_), StoreError);
    EXPECT_EQ(support::readFile(path_), std::string(4096, 'x'));
}

TEST_F(SqliteStoreTest, DatabaseOfAnotherProgramIsLeftAlone) {
    executeOn(path_, "CREATE TABLE t (a)");
    const std::string before = support::readFile(path_);
    EXPECT_THAT([this] { openArchive(path_); },
                ThrowsMessage<StoreError>(HasSubstr("not an event archive")));
    EXPECT_EQ(support::readFile(path_), before);
}

TEST_F(SqliteStoreTest, LaterLayoutIsRefused) {
    fill(*openArchive(path_), {});
    executeOn(path_, "PRAGMA user_version = 4");
    EXPECT_THAT([this] { openArchive(path_); },
                ThrowsMessage<StoreError>(HasSubstr("version 4 of the archive's layout")));
}

// What is in such a file is worked out when it is read, and may have no end.
TEST_F(SqliteStoreTest, WhatIsNoStoredTableIsRefused) {
    const std::string endless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
                                "SELECT i AS series, i AS generation FROM n";
    for (const std::string& change :
         {"DROP TABLE generations; CREATE VIEW generations AS " + endless,
          std::string("DROP TABLE set_aside"),
          std::string("DROP TABLE series; CREATE VIRTUAL TABLE series USING fts5(enclosure)"),
          std::string("ALTER TABLE events ADD COLUMN more AS (zeroblob(1000000000))")}) {
        SCOPED_TRACE(change);
        std::remove(path_.c_str());
        fill(*openArchive(path_), {0});
        executeOn(path_, change.c_str());
        for (void (*open)(const std::string&) :
             {+[](const std::string& path) { openArchiveForReading(path); },
              +[](const std::string& path) { openArchive(path); }}) {
            EXPECT_THAT([&] { open(path_); },
                        ThrowsMessage<StoreError>(HasSubstr("an event archive with other tables")));
        }
    }
}

TEST_F(SqliteStoreTest, DirectoryThatDoesNotExistIsAnError) {
    EXPECT_THROW(openArchive(directory_.file("none/events.db")), StoreError);
}

TEST_F(SqliteStoreTest, ReaderMakesNoArchive) {
    EXPECT_THROW(openArchiveForReading(path_), StoreError);
    EXPECT_FALSE(std::ifstream(path_).good());
}

TEST_F(SqliteStoreTest, ReaderSeesWhatTheWriterCommitted) {
    const auto writer = openArchive(path_);
    fill(*writer, {0, 1, 2});
    EXPECT_EQ(openArchiveForReading(path_)->rowCount(), 3U);
}

TEST_F(SqliteStoreTest, ReaderLeavesBytesAndTimesAsTheyAre) {
    fill(*openArchive(path_), {0, 1, 2});
    const std::string bytes = support::readFile(path_);
    struct stat before {};
    ASSERT_EQ(stat(path_.c_str(), &before), 0);
    openArchiveForReading(path_)->rowCount();
    struct stat after {};
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    EXPECT_EQ(support::readFile(path_), bytes);
    EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
}

TEST_F(SqliteStoreTest, ReaderCannotWrite) {
    fill(*openArchive(path_), {0});
    const auto reader = openArchiveForReading(path_);
    auto* writer = dynamic_cast<Store*>(reader.get());
    ASSERT_NE(writer, nullptr);
    EXPECT_THROW(writer->addSeries({{"X", "Y", 1}, 1}), StoreError);
}
