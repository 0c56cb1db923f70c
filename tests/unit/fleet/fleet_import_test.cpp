/** From an archive in a file to a shared one. */
#include "cutting_proxy.h"
#include "fleet_server.h"
#include "postgres/fleet_import.h"
#include "postgres/pg_connection.h"
#include "program.h"
#include "sqlite_store.h"

#include <numeric>
#include <thread>

using namespace evarchive;
using fleet::NOW;
using support::eventBody;
using testing::HasSubstr;

namespace {

using Events = std::map<std::pair<SeriesKey, U32_t>, std::vector<StoredEvent>>;

/** An archive to take over. */
class ImportedArchive {
  protected:
    void add(const SeriesKey& key, U32_t number, const std::vector<U32_t>& ids) {
        from_->begin();
        const auto known = from_->findSeries(key);
        const GenerationKey generation{known ? *known : from_->addSeries(key), number};
        from_->addGeneration(generation, NOW + number);
        for (const U32_t id : ids) {
            const Bytes image = eventBody({.id = id, .time = 1000 + number});
            from_->addEvent(generation, {id, image, id % 2 == 0, id % 5 == 4, NOW + id});
        }
        from_->noteProven(generation, {ids.front(), ids.front()});
        if (number > 1) {
            from_->noteOldest(generation, number);
        }
        from_->countDuplicates(generation, number);
        from_->commit();
    }

    static Events eventsOf(StoreReader& store) {
        Events events;
        for (const GenerationInfo& info : store.listGenerations()) {
            auto& list = events[{info.key, info.number.generation}];
            store.forEachEvent(info.number,
                               [&](const StoredEvent& event) { list.push_back(event); });
        }
        return events;
    }

    std::unique_ptr<Store> from_ = openArchiveInMemory();
    std::ostringstream out_;
};

class FleetImportTest : public ImportedArchive, public testing::TestWithParam<std::string (*)()> {
  protected:
    std::string place_ = GetParam()();
};

class ImportInTrouble : public ImportedArchive, public testing::Test {
  protected:
    static std::string sql(const std::string& statements) {
        return fleet::server().sql(statements, "contract");
    }

    std::string place_ = fleet::emptyArchive();
};

bool isSame(const StoredEvent& left, const StoredEvent& right) {
    return left.sequenceId == right.sequenceId && left.own == right.own &&
           left.image == right.image && left.doubtful == right.doubtful &&
           left.received == right.received;
}

} // namespace

TEST_P(FleetImportTest, EveryLogIsTakenOverWithAllItsGenerations) {
    std::vector<U32_t> many(2500);
    std::iota(many.begin(), many.end(), 3U);
    for (U32_t slot = 0; slot < 6; ++slot) {
        add({{"ENC-A", "BLADE-1", slot}, 1}, 1, {0, 1, 2, 9});
    }
    add({{"ENC-A", "BLADE-1", 0}, 1}, 2, {0, 4});
    add({{"ENC-B", "BLADE-2", 0}, 1}, 1, many);
    from_->begin();
    from_->setAside({{"ENC-A", "BLADE-1", 3}, 1}, Aside::SUPERSEDED,
                    {7, eventBody({.id = 7}), true, true, NOW});
    from_->commit();

    const Imported imported = importArchive(*from_, place_, out_);
    EXPECT_EQ(imported.logs, 7U);
    EXPECT_EQ(imported.events, 6 * 4 + 2 + 2500U);
    EXPECT_EQ(imported.setAside, 1U);
    EXPECT_EQ(out_.str(), "");
    const auto archive = openPgArchiveForReading(place_);
    const Events expected = eventsOf(*from_);
    const Events got = eventsOf(*archive);
    ASSERT_EQ(got.size(), expected.size());
    for (const auto& [generation, events] : expected) {
        EXPECT_TRUE(std::ranges::equal(got.at(generation), events, isSame));
    }
    const auto before = from_->listGenerations();
    const auto after = archive->listGenerations();
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].opened, before[i].opened);
        EXPECT_EQ(after[i].duplicates, before[i].duplicates);
        EXPECT_EQ(after[i].oldest, before[i].oldest);
        ASSERT_TRUE(after[i].proven); // the events themselves may have told of more
        EXPECT_TRUE(!before[i].proven || (after[i].proven->first <= before[i].proven->first &&
                                          after[i].proven->last >= before[i].proven->last));
    }
    std::vector<Bytes> aside;
    archive->forEachAside([&](const AsideEvent& event) { aside.push_back(event.image); });
    EXPECT_THAT(aside, testing::ElementsAre(eventBody({.id = 7})));
}

TEST_P(FleetImportTest, LogThatIsThereAlreadyStaysAsItIs) {
    add({{"ENC-A", "BLADE-1", 0}, 1}, 1, {0, 1});
    importArchive(*from_, place_, out_);
    add({{"ENC-A", "BLADE-1", 1}, 1}, 1, {0});
    const Imported again = importArchive(*from_, place_, out_);
    EXPECT_EQ(again.logs, 1U);
    EXPECT_EQ(again.events, 1U);
    EXPECT_EQ(again.there, 1U);
    EXPECT_EQ(again.leftOut, 0U);
    EXPECT_EQ(out_.str(), "");
    if (GetParam() == fleet::emptyArchive) { // no blade was taken from its archiver
        EXPECT_EQ(fleet::server().sql("SELECT max(epoch) FROM logs", "contract"), "1\n");
    }
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 3U);
}

TEST_P(FleetImportTest, LogThatIsThereWithoutSomeOfItsEventsIsLeftOutWithALine) {
    const SeriesKey key{{"ENC-A", "BLADE-1", 0}, 1};
    add(key, 1, {0, 1});
    importArchive(*from_, place_, out_);
    add(key, 2, {0, 1, 2});
    const Imported again = importArchive(*from_, place_, out_);
    EXPECT_EQ(again.leftOut, 1U);
    EXPECT_EQ(again.there, 0U);
    EXPECT_THAT(out_.str(), HasSubstr("slot 0 instance 1: left out, the shared archive has it "
                                      "already, without 3 of its events\n"));
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 2U);
}

TEST_F(ImportInTrouble, CommitWhoseAnswerIsCutOffIsNotDoneTwice) {
    fleet::CuttingProxy proxy(fleet::server().socketDirectory());
    for (U32_t slot = 0; slot < 3; ++slot) {
        add({{"ENC-A", "BLADE-1", slot}, 1}, 1, {0, 1});
    }
    proxy.cutAtCommit();
    const Imported imported = importArchive(*from_, proxy.through(place_), out_);
    EXPECT_TRUE(proxy.hasCut());
    EXPECT_EQ(imported.logs, 3U);
    EXPECT_EQ(imported.events, 6U);
    EXPECT_EQ(imported.there, 0U);
    EXPECT_THAT(out_.str(), HasSubstr("; tried again\n"));
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 6U);
    EXPECT_EQ(sql("SELECT min(epoch), max(epoch) FROM logs"), "1|1\n");
}

TEST_F(ImportInTrouble, ConnectionThatIsCutInTheMiddleIsMadeAnew) {
    const SeriesKey key{{"ENC-A", "BLADE-1", 1}, 1};
    add(key, 1, {0, 1});
    openPgArchive(place_)->claim(key, 0); // so there is a row that can be locked
    PgConnection other(place_, PgPatience::endless());
    other.execute("BEGIN; UPDATE logs SET seen = now()");
    Imported imported;
    std::thread importing([&] { imported = importArchive(*from_, place_, out_); });
    other.execute("DO $$ DECLARE waiting int; BEGIN LOOP SELECT max(pid) INTO waiting FROM "
                  "pg_locks WHERE NOT granted; EXIT WHEN waiting IS NOT NULL OR "
                  "clock_timestamp() > now() + interval '30 s'; "
                  "PERFORM pg_sleep(0.001); END LOOP; PERFORM pg_terminate_backend(waiting); END "
                  "$$; COMMIT");
    importing.join();
    EXPECT_EQ(imported.logs, 1U);
    EXPECT_THAT(out_.str(), HasSubstr("; tried again\n"));
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 2U);
}

TEST_F(ImportInTrouble, BladeThatSpeaksToAnArchiverMeanwhileIsTakenFromIt) {
    const SeriesKey key{{"ENC-A", "BLADE-1", 1}, 1};
    add(key, 1, {0, 1});
    const auto archiver = openPgArchive(place_);
    const SeriesNumber log = archiver->claim(key, 0).series;
    EXPECT_EQ(importArchive(*from_, place_, out_).logs, 1U);
    const auto file = [&] {
        archiver->begin();
        archiver->addGeneration({log, 1}, NOW);
        archiver->addEvent({log, 1}, {0, eventBody({.id = 0}), true, false, NOW});
        archiver->commit();
    };
    EXPECT_THROW(file(), StoreConflict);
    archiver->rollback();
    EXPECT_EQ(sql("SELECT generation, highest FROM logs"), "1|1\n");
}

TEST_F(ImportInTrouble, WhatTheServerRefusesIsSetAsideAndTheRestOfItsGroupTaken) {
    for (U32_t slot = 0; slot < 4; ++slot) {
        add({{"ENC-A", "BLADE-1", slot}, 1}, 1, {0, 1, 2 + slot});
    }
    sql("ALTER TABLE events ADD CONSTRAINT no_five CHECK (id <> 5)");
    const Imported imported = importArchive(*from_, place_, out_);
    sql("ALTER TABLE events DROP CONSTRAINT no_five");
    EXPECT_EQ(imported.logs, 4U);
    EXPECT_EQ(imported.refused, 1U);
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 11U);
    EXPECT_EQ(sql("SELECT id, reason FROM set_aside"), "5|6\n");
}

TEST_F(ImportInTrouble, ServerThatStaysAwayIsAPassingTrouble) {
    add({{"ENC-A", "BLADE-1", 1}, 1}, 1, {0});
    try {
        importArchive(*from_, "postgresql://postgres@%2Ftmp%2Fnowhere/x", out_,
                      std::chrono::milliseconds(1));
        FAIL() << "nobody is there";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isPassing());
    }
}

TEST_F(ImportInTrouble, StatusTellsWhatBecameOfIt) {
    const support::TempDirectory directory;
    const std::string file = directory.file("from.db");
    const SeriesKey key{{"ENC-A", "BLADE-1", 1}, 1};
    const auto import = [&](const std::string& place) {
        support::Process process(
            support::commandOf("evarchiver",
                               {"db", "import", "--from", file, "--db", place, "--patience", "1"}),
            directory.file("import"));
        return process.wait().status;
    };
    {
        from_ = archiveConnector(file)();
        add(key, 1, {0, 1});
    }
    EXPECT_EQ(import(place_), 0);
    EXPECT_EQ(import(place_), 0) << "all of it is there";
    add(key, 2, {0});
    EXPECT_EQ(import(place_), 1);
    EXPECT_EQ(import(fleet::server().place()), 2) << "no archive";
    EXPECT_EQ(import("postgresql://postgres@%2Ftmp%2Fnowhere/x"), 3);
}

INSTANTIATE_TEST_SUITE_P(Places, FleetImportTest,
                         testing::Values(&fleet::emptyArchive, &fleet::emptyHub));
