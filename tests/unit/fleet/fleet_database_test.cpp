/** Making a shared archive, its partitions, its roles. */
#include "archive.h"
#include "archive_report.h"
#include "fleet_server.h"
#include "postgres/pg_connection.h"

#include <atomic>
#include <fstream>
#include <regex>
#include <thread>

using namespace evarchive;
using fleet::NOW;
using fleet::server;
using support::eventBody;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ThrowsMessage;

namespace {

constexpr S64_t DAY = 86'400;

class FleetDatabaseTest : public testing::Test {
  protected:
    ~FleetDatabaseTest() override { server().sql("DROP DATABASE " + name_ + " WITH (FORCE)"); }

    void file(const std::vector<std::pair<U32_t, S64_t>>& events, S64_t received) {
        const auto store = openPgArchive(place_, Received::AS_TOLD);
        const Claim claim = store->claim(key_, 0);
        const GenerationKey generation{claim.series, 1};
        store->begin();
        if (!claim.newest) {
            store->addGeneration(generation, NOW);
        }
        for (const auto& [id, time] : events) {
            store->addEvent(generation,
                            {id, eventBody({.id = id, .time = static_cast<U32_t>(time)}), true,
                             false, received});
        }
        store->commit();
    }

    /** What a blade is told whose log begins with this id. */
    static StatusVerdict handshake(Archive& archive, U32_t first) {
        const StatusVerdict verdict = archive.answerStatus(
            1, imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, first, {1, 2, 3})));
        archive.commit();
        return verdict;
    }

    static Bytes bodyOf(U32_t id, S64_t time) {
        return eventBody({.id = id, .time = static_cast<U32_t>(time)});
    }

    std::string sql(const std::string& statements) { return server().sql(statements, name_); }

    bool isSomebodyWaiting() {
        return sql("SELECT count(*) FROM pg_locks WHERE NOT granted") != "0\n";
    }

    /** A copy of an archive that is made once. */
    static std::string freshArchive(const std::string& name) {
        static const std::string original = [] {
            createFleet(server().makeDatabase("as_made"), 4, NOW);
            return "as_made";
        }();
        server().sql("CREATE DATABASE " + name + " TEMPLATE " + original);
        return server().place(name);
    }

    std::string name_ = "upkeep";
    std::string place_ = freshArchive(name_);
    SeriesKey key_{{"ENC-A", "BLADE-1", 1}, 1};
};

} // namespace

TEST_F(FleetDatabaseTest, PartitionsReachFromRetentionToTwoWidthsAhead) {
    // Four days, one a partition: four past ones, today, two to come, and the default one.
    EXPECT_EQ(sql("SELECT count(*) FROM pg_inherits WHERE inhparent = 'events'::regclass"), "8\n");
    file({{0, NOW - 4 * DAY}, {1, NOW}, {2, NOW + 2 * DAY}}, NOW);
    EXPECT_EQ(sql("SELECT count(*) FROM events_default"), "0\n");
    EXPECT_THAT(maintainFleet(place_, 0, NOW).made, IsEmpty());
}

TEST_F(FleetDatabaseTest, SecondCreationIsRefused) {
    EXPECT_THAT([this] { createFleet(place_, 4, NOW); },
                ThrowsMessage<StoreError>(HasSubstr("there is an archive already")));
}

TEST_F(FleetDatabaseTest, RowsInTheWayAreMovedIntoTheirPartition) {
    file({{0, NOW + 20 * DAY}, {1, 0}}, NOW + 20 * DAY);
    EXPECT_EQ(sql("SELECT count(*) FROM events_default"), "2\n");
    const FleetUpkeep upkeep = maintainFleet(place_, 0, NOW + 20 * DAY);
    EXPECT_EQ(upkeep.moved, 1U);
    EXPECT_EQ(sql("SELECT id FROM events_default"), "1\n");
    const auto store = openPgArchive(place_);
    EXPECT_EQ(store->endOfRun({*store->findSeries(key_), 1}, 0), 1U);
}

TEST_F(FleetDatabaseTest, PastPartitionsGoAndTheirRunsAreRemembered) {
    file({{3, NOW}, {5, NOW}, {6, NOW}, {7, NOW + DAY}}, NOW);
    const FleetUpkeep upkeep = maintainFleet(place_, 0, NOW + 30 * DAY);
    EXPECT_THAT(upkeep.dropped, testing::Not(IsEmpty()));
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "0\n");
    EXPECT_EQ(sql("SELECT run_first, run_last FROM generations"), "5|7\n");
}

TEST_F(FleetDatabaseTest, BladeIsNotAskedForWhatAllWent) {
    file({{5, NOW}, {6, NOW}, {7, NOW + DAY}}, NOW);
    maintainFleet(place_, 0, NOW + 30 * DAY);
    ASSERT_EQ(sql("SELECT count(*) FROM events"), "0\n");
    const auto store = openPgArchive(place_);
    std::vector<std::string> lines;
    Archive archive(*store, {}, [&](Level, const std::string& line) { lines.push_back(line); });
    EXPECT_EQ(handshake(archive, 5), (StatusVerdict{6, 0}));
    EXPECT_THAT(lines, testing::Contains(HasSubstr("has expired here and could not be compared")));
    EXPECT_EQ(archive.fileEvent(1, bodyOf(7, NOW + DAY)), Filed::DUPLICATE);
    EXPECT_EQ(archive.fileEvent(1, bodyOf(8, NOW + 30 * DAY)), Filed::STORED);
    archive.commit();
    EXPECT_EQ(handshake(archive, 5), (StatusVerdict{7, 0}));
}

TEST_F(FleetDatabaseTest, RebuiltLogOfABladeWhoseEventsAllWentIsANewGeneration) {
    file({{5, NOW}, {6, NOW}, {7, NOW}}, NOW);
    maintainFleet(place_, 0, NOW + 30 * DAY);
    const auto store = openPgArchive(place_);
    Archive archive(*store, {}, [](Level, const std::string&) {});
    handshake(archive, 5);
    EXPECT_EQ(archive.fileEvent(1, bodyOf(5, NOW + 29 * DAY)), Filed::NEW_GENERATION);
    EXPECT_EQ(archive.fileEvent(1, bodyOf(6, NOW + 29 * DAY)), Filed::STORED);
    archive.commit();
    EXPECT_EQ(handshake(archive, 5), (StatusVerdict{5, 0}));
    EXPECT_EQ(sql("SELECT generation FROM logs"), "2\n");
}

TEST_F(FleetDatabaseTest, RunGoesOnBehindWhatWent) {
    file({{5, NOW}, {6, NOW}, {7, NOW + 2 * DAY}, {8, NOW + 2 * DAY}}, NOW);
    // As a program of before has left it: the run is known from what went only.
    sql("UPDATE logs SET run_first = NULL, run_last = NULL");
    maintainFleet(place_, 0, NOW + 5 * DAY);
    ASSERT_EQ(sql("SELECT id FROM events ORDER BY id"), "7\n8\n");
    const auto store = openPgArchive(place_);
    Archive archive(*store, {}, [](Level, const std::string&) {});
    EXPECT_EQ(handshake(archive, 5), (StatusVerdict{7, 0}));
}

// Archivers file all the while: nothing that is younger is lost, and nobody is in a dead lock.
TEST_F(FleetDatabaseTest, UpkeepGoesOnWhileEventsAreFiled) {
    std::atomic<bool> isOver = false;
    std::atomic<U32_t> filed = 0;
    std::vector<std::thread> archivers;
    for (U32_t number = 0; number < 2; ++number) {
        archivers.emplace_back([&, number] {
            const auto store = openPgArchive(place_);
            Archive archive(*store, {}, [](Level, const std::string&) {});
            archive.setTime(NOW + 40 * DAY);
            for (U32_t id = 0; !isOver; ++id) {
                // Past retention, of today, and of a day that no partition is there for yet.
                const S64_t time = NOW + (S64_t{id % 3} * 20 - 4) * DAY;
                const Bytes body = eventBody(
                    {.log = {.slot = number}, .id = id, .time = static_cast<U32_t>(time)});
                for (bool isDone = false; !isDone;) {
                    try {
                        archive.fileEvent(number + 1, body);
                        archive.fileEvent(number + 1, body); // counted as a duplicate
                        archive.commit();
                        isDone = true;
                    } catch (const StoreConflict&) {
                        archive.abandon();
                    } catch (const StoreError& error) {
                        EXPECT_TRUE(error.isPassing()) << error.what();
                        archive.abandon();
                    }
                }
                ++filed;
            }
        });
    }
    for (const S64_t day : {1, 14, 27, 40}) {
        const U32_t before = filed;
        EXPECT_THAT(maintainFleet(place_, 0, NOW + day * DAY).failed, IsEmpty());
        EXPECT_TRUE(support::waitUntil([&] { return filed > before + 10; }));
    }
    isOver = true;
    for (std::thread& archiver : archivers) {
        archiver.join();
    }
    EXPECT_EQ(maintainFleet(place_, 0, NOW + 40 * DAY).dropped.size(), 0U);
    EXPECT_EQ(sql("SELECT count(*) - count(DISTINCT (log, id)) FROM events"), "0\n");
    // Each third one is of a day that is still kept.
    EXPECT_EQ(
        sql("SELECT bool_and(n = (highest + 1) / 3) FROM (SELECT log, count(*) AS n FROM events "
            "WHERE id % 3 = 2 GROUP BY log) e JOIN logs l ON l.log = e.log"),
        "t\n");
}

// Its time is one that a partition is about to be made for. It is committed by the server itself,
// in the moment in which it sees somebody wait for it: a wait is over after 300 ms.
TEST_F(FleetDatabaseTest, EventThatComesWhileItsPartitionIsMadeIsMovedToo) {
    file({{0, NOW + 20 * DAY}}, NOW);
    PgConnection writer(place_, PgPatience::endless());
    writer.execute("BEGIN; INSERT INTO events SELECT log, 1, time, received, generation, event, "
                   "source, type, category, idversion, own, doubtful, head, data FROM events");
    FleetUpkeep upkeep;
    std::thread owner([&] { upkeep = maintainFleet(place_, 0, NOW + 20 * DAY); });
    writer.execute("DO $$ BEGIN WHILE NOT EXISTS (SELECT 1 FROM pg_locks WHERE NOT granted AND "
                   "database = (SELECT oid FROM pg_database WHERE datname = current_database())) "
                   "LOOP PERFORM pg_sleep(0.001); EXIT WHEN clock_timestamp() > now() + "
                   "interval '30 s'; END LOOP; END $$; COMMIT");
    owner.join();
    EXPECT_THAT(upkeep.failed, IsEmpty());
    EXPECT_EQ(upkeep.moved, 2U);
    EXPECT_EQ(sql("SELECT count(*) FROM events_default"), "0\n");
}

TEST_F(FleetDatabaseTest, PastPartitionIsDroppedAroundAnArchiverAtWork) {
    file({{0, NOW}}, NOW);
    maintainFleet(place_, 9, NOW + 5 * DAY); // nothing is left to be made
    const auto archiver = openPgArchive(place_);
    const GenerationKey generation{archiver->claim(key_, 0).series, 1};
    const Bytes image = eventBody({.id = 1, .time = static_cast<U32_t>(NOW + 2 * DAY)});
    archiver->begin();
    archiver->addEvent(generation, {1, image, true, false, NOW});
    archiver->highestId(generation);
    FleetUpkeep upkeep;
    std::thread owner([&] { upkeep = maintainFleet(place_, 4, NOW + 5 * DAY); });
    EXPECT_TRUE(support::waitUntil([this] { return isSomebodyWaiting(); }));
    archiver->countDuplicates(generation, 1); // of a row that what goes is written into
    archiver->commit();
    owner.join();
    EXPECT_THAT(upkeep.failed, IsEmpty());
    EXPECT_THAT(upkeep.dropped, testing::Contains("events_20231114_1"));
    EXPECT_EQ(sql("SELECT run_first, run_last, duplicates FROM generations"), "0|0|1\n");
    EXPECT_EQ(sql("SELECT value FROM meta WHERE name = 'dropped_before'"), "1700006400\n");
}

TEST_F(FleetDatabaseTest, WhatCannotBeDoneLeavesTheRestToBeDone) {
    file({{0, NOW}}, NOW);
    sql("CREATE TABLE events_20231123_1 ()");
    const FleetUpkeep upkeep = maintainFleet(place_, 0, NOW + 8 * DAY);
    EXPECT_THAT(upkeep.failed,
                testing::ElementsAre(HasSubstr("events_20231123_1 could not be made")));
    EXPECT_THAT(upkeep.made, testing::Contains("events_20231124_1"));
    EXPECT_THAT(upkeep.dropped, testing::Contains("events_20231114_1"));
}

TEST_F(FleetDatabaseTest, StrayEventsGoByTheTimeOfTheirArrival) {
    file({{0, 0}, {1, 0xFFFFFFFF}}, NOW - 30 * DAY);
    file({{2, 5}}, NOW);
    EXPECT_EQ(maintainFleet(place_, 0, NOW).removed, 2U);
    EXPECT_EQ(sql("SELECT id FROM events"), "2\n");
}

TEST_F(FleetDatabaseTest, LongerRetentionIsFilledUpWithoutOverlap) {
    const FleetUpkeep upkeep = maintainFleet(place_, 60, NOW);
    EXPECT_THAT(upkeep.made, testing::Not(IsEmpty()));
    file({{0, NOW - 59 * DAY}, {1, NOW - 30 * DAY}, {2, NOW + 9 * DAY}}, NOW);
    EXPECT_EQ(sql("SELECT count(*) FROM events_default"), "0\n");
}

// What was made ahead for a retention that is none any more would keep events for as long.
TEST_F(FleetDatabaseTest, PartitionsAheadAreCutAnewWhenTheRetentionIsShortAgain) {
    maintainFleet(place_, 3650, NOW);
    maintainFleet(place_, 36'500, NOW);
    file({{0, NOW + DAY}, {1, NOW + 100 * DAY}}, NOW);
    const FleetUpkeep upkeep = maintainFleet(place_, 4, NOW);
    EXPECT_THAT(upkeep.failed, IsEmpty());
    EXPECT_THAT(upkeep.recut, testing::Not(IsEmpty()));
    EXPECT_EQ(sql("SELECT id, tableoid::regclass FROM events ORDER BY id"),
              "0|events_20231115_1\n1|events_default\n");
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW, out), 0U);
    EXPECT_THAT(out.str(), testing::Not(HasSubstr("its events stay longer")));
    EXPECT_THAT(maintainFleet(place_, 0, NOW).recut, IsEmpty());
}

TEST_F(FleetDatabaseTest, PartitionsOfAWrongClockNeitherStayNorHideThatTomorrowHasNone) {
    sql("CREATE TABLE events_20960101_4 PARTITION OF events FOR VALUES FROM "
        "('2096-01-01 00:00+00') TO ('2096-01-05 00:00+00')");
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW + 60 * DAY, out), 1U);
    EXPECT_THAT(out.str(), HasSubstr("no partition for tomorrow"));
    EXPECT_THAT(out.str(), HasSubstr("events_20960101_4 is 4 days wide"));
    EXPECT_THAT(maintainFleet(place_, 0, NOW).recut, testing::ElementsAre("events_20960101_4"));
}

TEST_F(FleetDatabaseTest, NothingIsDoneByAClockThatIsNotTheServers) {
    file({{0, NOW}}, NOW);
    const S64_t now = time(nullptr);
    for (const Clock clock : {Clock::COMPARED, Clock::RIGHT}) {
        EXPECT_THAT([&] { maintainFleet(place_, 0, now + 25'000 * DAY, clock); },
                    ThrowsMessage<StoreError>(HasSubstr(" days ahead of the server's")));
        EXPECT_THAT([&] { maintainFleet(place_, 0, now - 3600, clock); },
                    ThrowsMessage<StoreError>(HasSubstr("seconds behind the server's")));
    }
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "1\n");
    EXPECT_EQ(sql("SELECT count(*) FROM pg_inherits WHERE inhparent = 'events'::regclass"), "8\n");
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW, out, Clock::COMPARED), 1U);
    EXPECT_THAT(out.str(), HasSubstr("behind the server's"));
    const std::string other = server().makeDatabase("other_clock");
    EXPECT_THROW(createFleet(other, 4, now + DAY, Clock::COMPARED), StoreError);
    EXPECT_EQ(server().sql("SELECT to_regclass('logs') IS NULL", "other_clock"), "t\n");
    server().sql("DROP DATABASE other_clock WITH (FORCE)");
}

// As if host and server had one wrong clock: the last round was at NOW, years ago.
TEST_F(FleetDatabaseTest, ClockThatJumpedEverywhereTakesNothing) {
    file({{0, NOW}, {1, 0}}, NOW);
    const S64_t now = time(nullptr);
    const FleetUpkeep upkeep = maintainFleet(place_, 0, now, Clock::COMPARED);
    EXPECT_THAT(upkeep.failed, testing::ElementsAre(HasSubstr("ago: nothing is dropped")));
    EXPECT_THAT(upkeep.dropped, IsEmpty());
    EXPECT_THAT(upkeep.made, testing::Not(IsEmpty())) << "tomorrow has its partition all the same";
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "2\n");
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed, SizeIs(1)) << "once more";
    sql("UPDATE meta SET value = '' WHERE name = 'maintenance'");
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::RIGHT).dropped, testing::Not(IsEmpty()));
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "0\n");
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed, IsEmpty());
    sql("UPDATE meta SET value = value::bigint + 50000 WHERE name = 'maintenance'");
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed,
                testing::ElementsAre(HasSubstr("seconds ahead: nothing is dropped")));
}

TEST_F(FleetDatabaseTest, RoundThatNoneIsKnownBeforeGoesByThePartitionsThatAreThere) {
    file({{0, NOW}}, NOW);
    sql("UPDATE meta SET value = '' WHERE name = 'maintenance'");
    const S64_t now = time(nullptr);
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed,
                testing::ElementsAre(HasSubstr("no partition reaches to this day")));
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed, SizeIs(1))
        << "what was made ahead then is no proof";
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "1\n");
    maintainFleet(place_, 0, now - 3600, Clock::AS_TOLD);
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed, IsEmpty());
}

TEST_F(FleetDatabaseTest, RetentionThatIsNotWrittenDownIsSaidAndDropsNothing) {
    sql("DELETE FROM meta WHERE name = 'retention_days'");
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW, out), 1U);
    EXPECT_THAT(out.str(), HasSubstr("is not written down"));
    EXPECT_THROW(maintainFleet(place_, 0, NOW), StoreError);
    EXPECT_THAT(maintainFleet(place_, 4, NOW).failed, IsEmpty());
}

TEST_F(FleetDatabaseTest, ClosedPartitionIsFrozenOnce) {
    EXPECT_GT(maintainFleet(place_, 0, NOW + 6 * DAY).frozen, 0U);
    EXPECT_EQ(maintainFleet(place_, 0, NOW + 6 * DAY).frozen, 0U);
}

TEST_F(FleetDatabaseTest, ViewsShowWhatWasFiled) {
    file({{0, NOW}, {4, NOW}}, NOW);
    EXPECT_EQ(sql("SELECT enclosure, blade, slot, instance, first, last FROM gap_list"),
              "ENC-A|BLADE-1|1|1|1|3\n");
    EXPECT_EQ(sql("SELECT id, type_name, bytes, newest FROM event_list ORDER BY id"),
              "0|information|3|t\n4|information|3|t\n");
    EXPECT_EQ(sql("SELECT blade, generation FROM blade_list"), "BLADE-1|1\n");
    EXPECT_EQ(sql("SELECT count(*) FROM set_aside_list"), "0\n");
}

/** The columns that the tables of a document say views have: "view column type", line by line. */
std::string documentedColumns() {
    std::ifstream document(FLEET_FILE);
    const std::regex head("^\\| `(\\w+_list)` \\| Type .*");
    const std::regex column("^\\| `(\\w+)` \\| (\\w+) \\| .*");
    std::string columns;
    std::string view;
    std::smatch found;
    for (std::string line; std::getline(document, line);) {
        if (std::regex_match(line, found, head)) {
            view = found[1];
        } else if (!view.empty() && std::regex_match(line, found, column)) {
            columns += view + " " + found[1].str() + " " + found[2].str() + "\n";
        } else if (line.empty()) {
            view.clear();
        }
    }
    return columns;
}

// What dashboards rely on: a column may be added at the end, nothing else may change.
TEST_F(FleetDatabaseTest, ViewsHaveTheDocumentedColumns) {
    EXPECT_EQ(documentedColumns(),
              sql("SELECT table_name || ' ' || column_name || ' ' || "
                  "replace(data_type, 'timestamp with time zone', 'timestamptz') "
                  "FROM information_schema.columns WHERE table_name LIKE '%_list' "
                  "ORDER BY table_name <> 'blade_list', table_name, ordinal_position"));
}

// The queries that are documented for dashboards.
TEST_F(FleetDatabaseTest, DocumentedQueriesAreAnswered) {
    std::ifstream document(FLEET_FILE);
    const std::string text{std::istreambuf_iterator<char>(document), {}};
    const size_t begin = text.find("```sql\n", text.find("### The columns of the views"));
    ASSERT_NE(begin, std::string::npos);
    const std::string queries = text.substr(begin + 7, text.find("```", begin + 7) - begin - 7);
    EXPECT_THAT(queries, HasSubstr("FROM event_list"));
    file({{0, NOW}}, NOW);
    sql("UPDATE logs SET seen = NULL");
    std::string answers;
    std::istringstream each(queries);
    for (std::string query; std::getline(each, query, ';');) {
        answers += sql("SET ROLE ev_reader; " + query);
    }
    EXPECT_EQ(answers, "ENC-A|BLADE-1|1|\n");
}

TEST_F(FleetDatabaseTest, TimeRangeReadsOnlyThePartitionsOfItsDays) {
    const std::string plan = sql("EXPLAIN (COSTS OFF) SELECT id FROM event_list WHERE "
                                 "time >= '2023-11-13 00:00+00' AND time < '2023-11-14 00:00+00'");
    EXPECT_THAT(plan, HasSubstr("events_20231113_1"));
    EXPECT_THAT(plan, testing::Not(testing::AnyOf(HasSubstr("20231112"), HasSubstr("20231114"))));
}

TEST_F(FleetDatabaseTest, GapsOfOneLogAreFoundByItsIndex) {
    file({{0, NOW}, {4, NOW}}, NOW);
    EXPECT_THAT(sql("SET enable_seqscan = off; EXPLAIN (COSTS OFF) "
                    "SELECT * FROM gap_list WHERE log = 5"),
                testing::Not(HasSubstr("Seq Scan on events")));
}

TEST_F(FleetDatabaseTest, NumbersHaveNamesFromTheProgramAndTheCatalogue) {
    file({{0, NOW}}, NOW);
    sql("UPDATE events SET type = 7 WHERE false; UPDATE events SET event = 4, idversion = 2");
    EXPECT_EQ(sql("SELECT source_name, type_name, category_name, event_name FROM event_list"),
              "eventlog|information|management|lost_event\n");
    sql("UPDATE events SET idversion = 1");
    EXPECT_EQ(sql("SELECT event_name FROM event_list"), "corrupted_event_log_file\n");
    sql("UPDATE events SET event = 999, source = 200, type = 9, category = 99");
    EXPECT_EQ(sql("SELECT source_name, type_name, category_name, event_name FROM event_list"),
              "|9||\n");
}

TEST_F(FleetDatabaseTest, UpgradeTakesTheNamesOfTheCatalogueOfNow) {
    sql("UPDATE names SET name = 'x' WHERE what = 'type'; INSERT INTO names VALUES ('event', 27, 777, -1, 'gone')");
    upgradeFleet(place_);
    EXPECT_EQ(sql("SELECT count(*) FROM names WHERE name IN ('x', 'gone')"), "0\n");
}

// As the first program left it.
TEST_F(FleetDatabaseTest, ArchiveOfTheFirstLayoutIsUpgradedWithItsEvents) {
    file({{3, NOW}, {4, NOW}, {9, NOW - DAY}}, NOW);
    sql("DROP VIEW blade_list, event_list, gap_list, set_aside_list; DROP TABLE names; "
        "ALTER TABLE set_aside DROP COLUMN generation; ALTER TABLE logs DROP COLUMN ring_first, "
        "DROP COLUMN highest, DROP COLUMN run_first, DROP COLUMN run_last; "
        "ALTER TABLE logs RENAME COLUMN unclaimed TO visits; "
        "UPDATE generations SET run_first = 3, run_last = 4; UPDATE meta SET value = '1' WHERE name = 'layout'");
    EXPECT_THROW(openPgArchive(place_), StoreError);
    EXPECT_EQ(upgradeFleet(place_), 1);
    EXPECT_EQ(upgradeFleet(place_), PG_LAYOUT);
    EXPECT_EQ(sql("SELECT count(*) FROM event_list"), "3\n");
    const Claim claim = openPgArchive(place_)->claim(key_, 3);
    EXPECT_EQ(claim.newest->highest, 9U);
    EXPECT_EQ(claim.newest->proven, (IdRun{3, 4}));
    EXPECT_THAT([&] { sql("UPDATE logs SET visits = visits + 1"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("does not exist")));
}

TEST_F(FleetDatabaseTest, GapsOfABladeAreFoundByItsLog) {
    file({{0, NOW}, {4, NOW}}, NOW);
    EXPECT_THAT(sql("SET enable_seqscan = off; EXPLAIN (COSTS OFF) SELECT * FROM gap_list WHERE "
                    "log = (SELECT log FROM blade_list WHERE enclosure = 'ENC-A' AND blade = "
                    "'BLADE-1' AND slot = 1 AND instance = 1)"),
                testing::AllOf(HasSubstr("Index Cond: (log = $"),
                               testing::Not(HasSubstr("Seq Scan on events"))));
}

TEST_F(FleetDatabaseTest, UpgradeOfThePresentLayoutChangesNothing) {
    file({{0, NOW}}, NOW);
    EXPECT_EQ(upgradeFleet(place_), PG_LAYOUT);
    EXPECT_EQ(sql("SELECT count(*) FROM event_list"), "1\n");
    sql("UPDATE meta SET value = '99' WHERE name = 'layout'");
    EXPECT_THROW(upgradeFleet(place_), StoreError);
    EXPECT_THROW(maintainFleet(place_, 0, NOW), StoreError);
}

TEST_F(FleetDatabaseTest, ArchiverDoesItsWorkWithTheWritersRights) {
    sql("DROP ROLE IF EXISTS trial; CREATE ROLE trial LOGIN IN ROLE ev_writer");
    place_.replace(place_.find("postgres@"), 9, "trial@");
    file({{0, NOW}}, NOW);
    const auto store = openPgArchive(place_);
    const GenerationKey generation{*store->findSeries(key_), 1};
    store->begin();
    store->newestGeneration(generation.series);
    store->noteProven(generation, {0, 0});
    store->countDuplicates(generation, 1);
    store->addEvent(generation, {1, eventBody({.id = 1}), true, true, NOW});
    store->confirmEvent(generation, eventBody({.id = 1}));
    store->removeEvent(generation, 1);
    store->setAside(key_, Aside::REPLACED, {1, eventBody({.id = 1}), true, true, NOW});
    store->commit();
}

TEST_F(FleetDatabaseTest, RightThatIsTakenAwayIsARefusalUntilItIsGivenBack) {
    sql("DROP ROLE IF EXISTS trial; CREATE ROLE trial LOGIN IN ROLE ev_writer");
    place_.replace(place_.find("postgres@"), 9, "trial@");
    file({{0, NOW}}, NOW);
    const auto store = openPgArchive(place_);
    const GenerationKey generation{*store->findSeries(key_), 1};
    const auto add = [&] {
        store->begin();
        store->addEvent(generation, {1, eventBody({.id = 1}), true, true, NOW});
        store->commit();
    };
    sql("REVOKE INSERT ON events FROM ev_writer");
    try {
        add();
        ADD_FAILURE() << "it was committed";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isRefusal()) << error.what();
        store->rollback();
    }
    sql("GRANT INSERT ON events TO ev_writer");
    add();
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "2\n");
}

TEST_F(FleetDatabaseTest, EachForbiddenStatementOfAWriterIsRefused) {
    for (const char* statement : {"UPDATE events SET data = ''",
                                  "UPDATE events SET id = 1",
                                  "DELETE FROM set_aside",
                                  "DELETE FROM logs",
                                  "DELETE FROM generations",
                                  "UPDATE logs SET identity = ''",
                                  "UPDATE logs SET log = 1",
                                  "UPDATE logs SET enclosure = ''",
                                  "UPDATE generations SET opened = now()",
                                  "UPDATE events SET time = now()",
                                  "UPDATE events SET head = NULL",
                                  "UPDATE set_aside SET image = ''",
                                  "TRUNCATE logs",
                                  "TRUNCATE set_aside",
                                  "ALTER TABLE events ADD COLUMN x int",
                                  "DELETE FROM names",
                                  "INSERT INTO names VALUES ('x', 1, 1, 1, 'x')",
                                  "INSERT INTO meta VALUES ('x', 'x')",
                                  "DROP TABLE events_default",
                                  "CREATE INDEX ON events (id)",
                                  "DELETE FROM meta",
                                  "UPDATE meta SET value = ''",
                                  "UPDATE set_aside SET id = 1",
                                  "DROP TABLE events",
                                  "TRUNCATE events",
                                  "CREATE TABLE x (y int)"}) {
        EXPECT_THAT([&] { sql(std::string("SET ROLE ev_writer; ") + statement); },
                    ThrowsMessage<std::runtime_error>(
                        testing::AnyOf(HasSubstr("permission denied"), HasSubstr("must be owner"))))
            << statement;
    }
}

TEST_F(FleetDatabaseTest, EachForbiddenStatementOfAReaderIsRefused) {
    for (const char* statement :
         {"DELETE FROM events", "DELETE FROM set_aside", "UPDATE set_aside SET id = 1",
          "UPDATE meta SET value = ''", "DELETE FROM names", "UPDATE events SET doubtful = true",
          "INSERT INTO generations VALUES (1, 1, now())", "INSERT INTO events (log) VALUES (1)",
          "UPDATE logs SET epoch = 1", "DELETE FROM event_list",
          "UPDATE blade_list SET seen = now()", "CREATE TABLE x (y int)", "TRUNCATE generations"}) {
        EXPECT_THAT([&] { sql(std::string("SET ROLE ev_reader; ") + statement); },
                    ThrowsMessage<std::runtime_error>(testing::AnyOf(HasSubstr("permission denied"),
                                                                     HasSubstr("must be owner"),
                                                                     HasSubstr("cannot"))))
            << statement;
    }
    for (const char* view : {"event_list", "blade_list", "gap_list", "set_aside_list"}) {
        EXPECT_NO_THROW(sql(std::string("SET ROLE ev_reader; SELECT * FROM ") + view)) << view;
    }
}

TEST_F(FleetDatabaseTest, ReaderReadsWhatAProgramReadsThatTakesAFileOrAServer) {
    file({{0, NOW}, {1, NOW}}, NOW);
    sql("DROP ROLE IF EXISTS trial; CREATE ROLE trial LOGIN IN ROLE ev_reader");
    place_.replace(place_.find("postgres@"), 9, "trial@");
    std::ostringstream out;
    const auto store = openPgArchiveForReading(place_);
    EXPECT_EQ(checkArchive(*store, ReportForm::TEXT, out), 0);
    EXPECT_THAT(out.str(), HasSubstr("2 events"));
    EXPECT_EQ(store->rowCount(), 2U);
    store->forEachAside([](const AsideEvent&) {});
    store->droppedBefore();
}

TEST_F(FleetDatabaseTest, WhoFindsTheRolesNeedsNoRightToMakeSome) {
    server().sql("CREATE ROLE plain LOGIN");
    server().sql("CREATE DATABASE least OWNER plain");
    std::string place = server().place("least");
    place.replace(place.find("postgres@"), 9, "plain@");
    createFleet(place, 4, NOW);
    EXPECT_EQ(upgradeFleet(place), PG_LAYOUT);
    EXPECT_EQ(server().sql("SELECT has_table_privilege('ev_writer', 'events', 'INSERT')", "least"),
              "t\n");
    server().sql("DROP DATABASE least WITH (FORCE)");
    server().sql("DROP ROLE plain");
}

// An encoding that lacks characters of names would stop whoever files them.
TEST_F(FleetDatabaseTest, DatabaseThatIsNotInUtf8IsRefusedWhateverIsAsked) {
    server().sql("CREATE DATABASE latin ENCODING 'LATIN1' TEMPLATE template0");
    const std::string place = server().place("latin");
    std::ostringstream out;
    const auto refused = ThrowsMessage<StoreError>(HasSubstr("the database's encoding is LATIN1"));
    EXPECT_THAT([&] { createFleet(place, 4, NOW); }, refused);
    EXPECT_EQ(server().sql("SELECT to_regclass('logs') IS NULL", "latin"), "t\n");
    EXPECT_THAT([&] { upgradeFleet(place); }, refused);
    EXPECT_THAT([&] { maintainFleet(place, 0, NOW); }, refused);
    EXPECT_THAT([&] { describeFleet(place, NOW, out); }, refused);
    EXPECT_THAT([&] { openPgArchive(place); }, refused);
    EXPECT_THAT([&] { openPgArchiveForReading(place); }, refused);
    server().sql("DROP DATABASE latin");
}

TEST_F(FleetDatabaseTest, OwnerIsToldWhatIsMissing) {
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW, out), 0U);
    EXPECT_THAT(out.str(), HasSubstr("commits wait for no standby"));
    EXPECT_EQ(describeFleet(place_, NOW + 60 * DAY, out), 1U);
    EXPECT_THAT(out.str(), HasSubstr("no partition for tomorrow"));
}

/** What an owner is told of an archive of one log with ids 0 to 5, and its number of findings. */
class FleetDamageTest : public FleetDatabaseTest {
  protected:
    FleetDamageTest() {
        file({{0, NOW}, {1, NOW}, {2, NOW}, {3, NOW}, {4, NOW}, {5, NOW - DAY}}, NOW);
        sql("UPDATE logs SET run_first = 0, run_last = 5");
    }

    std::string told(U64_t findings) {
        std::ostringstream out;
        EXPECT_EQ(describeFleet(place_, NOW, out), findings) << out.str();
        return out.str();
    }
};

TEST_F(FleetDamageTest, IdThatIsHeldTwiceIsFound) {
    told(0);
    sql("INSERT INTO events SELECT log, id, time - interval '1 day', received, generation, event, "
        "source, type, category, idversion, own, doubtful, head, data FROM events WHERE id = 3");
    EXPECT_THAT(told(1), HasSubstr("id 3 is held more than once"));
}

TEST_F(FleetDamageTest, EventsWithoutTheirLogAreFound) {
    sql("DELETE FROM logs");
    EXPECT_THAT(told(2), testing::AllOf(HasSubstr("6 events, but no row of the log"),
                                        HasSubstr("generation 1: the log has no row")));
}

TEST_F(FleetDamageTest, EventsWithoutTheirGenerationAreFound) {
    sql("UPDATE events SET generation = 7 WHERE id > 3");
    EXPECT_THAT(told(2), testing::AllOf(HasSubstr("generation 7: 2 events, but no row"),
                                        HasSubstr("holds ids to 3, its blade was told")));
    sql("DELETE FROM events WHERE generation = 7; UPDATE logs SET run_last = 3");
    told(0);
    sql("DELETE FROM generations");
    EXPECT_THAT(told(2), HasSubstr("generation 1: the log's newest one, has no row"));
}

TEST_F(FleetDamageTest, NewestGenerationThatIsNoneIsFound) {
    sql("UPDATE logs SET generation = 2, run_last = NULL");
    EXPECT_THAT(told(1), HasSubstr("generation 2: the log's newest one, has no row"));
    sql("UPDATE logs SET generation = 0");
    EXPECT_THAT(told(1), HasSubstr("generation 1: newer than what the log says"));
}

TEST_F(FleetDamageTest, ClaimedTailThatIsGoneIsFound) {
    sql("DELETE FROM events WHERE id > 2");
    EXPECT_THAT(told(1), HasSubstr("holds ids to 2, its blade was told that it holds them to 5"));
    sql("DELETE FROM events");
    EXPECT_THAT(told(1), HasSubstr("holds nothing, its blade was told that it holds them to 5"));
}

TEST_F(FleetDamageTest, WhatRetentionTookIsNoDamage) {
    maintainFleet(place_, 0, NOW + 4 * DAY); // the day of the last id only
    EXPECT_EQ(sql("SELECT max(id) FROM events"), "4\n");
    std::ostringstream out;
    EXPECT_EQ(describeFleet(place_, NOW + 4 * DAY, out), 0U) << out.str();
    maintainFleet(place_, 0, NOW + 30 * DAY);
    EXPECT_EQ(sql("SELECT count(*) FROM events"), "0\n");
    EXPECT_EQ(describeFleet(place_, NOW + 30 * DAY, out), 0U) << out.str();
    sql("UPDATE generations SET run_first = NULL, run_last = NULL"); // of a log with holes
    EXPECT_EQ(describeFleet(place_, NOW + 30 * DAY, out), 0U) << out.str();
}

TEST_F(FleetDamageTest, NumbersAndNamesThatAreNoneAreFound) {
    sql("UPDATE events SET type = -1, source = -300 WHERE id = 2");
    EXPECT_THAT(told(1), HasSubstr("1 events have an id, source, type, category or number"));
    sql("UPDATE events SET type = 1, source = 1; UPDATE logs SET blade = 'OTHER'");
    EXPECT_THAT(told(1), HasSubstr("its names are not those of its identity"));
    sql("UPDATE logs SET identity = 'x'");
    EXPECT_THAT(told(1), HasSubstr("its identity is none"));
    sql("UPDATE logs SET identity = '\\x000141000142000000010000000a', slot = 1");
    EXPECT_THAT(told(1), HasSubstr("its number is not that of its identity"));
}

TEST_F(FleetDamageTest, ViewThatIsMissingIsFound) {
    sql("DROP VIEW gap_list");
    EXPECT_THAT(told(1), HasSubstr("the view gap_list is missing"));
    upgradeFleet(place_);
    told(0);
}

TEST_F(FleetDamageTest, WhatCannotBeLookedAtIsSaid) {
    PgConnection holder(place_, PgPatience::endless());
    holder.execute("BEGIN; LOCK TABLE generations IN ACCESS EXCLUSIVE MODE");
    place_ += place_.find('?') == std::string::npos ? "?" : "&";
    place_ += "options=-c%20lock_timeout%3D20ms";
    const std::string out = told(2);
    EXPECT_THAT(out, HasSubstr("the rows of generations: not looked at: "));
    EXPECT_THAT(out, HasSubstr("what is held twice, by nobody, or not any more: not looked at: "));
    holder.execute("ROLLBACK");
    told(0);
}

TEST_F(FleetDamageTest, ManyFindingsOfAKindAreCounted) {
    sql("INSERT INTO generations SELECT n, 1, now() FROM generate_series(1, 23) n");
    EXPECT_THAT(told(23), HasSubstr("... and 3 more like these"));
}

TEST_F(FleetDatabaseTest, WhatComesLastIsFoundWithoutASummaryOfEachPageByHand) {
    EXPECT_EQ(sql("SELECT count(*), bool_and('autosummarize=on' = ANY(c.reloptions)) FROM "
                  "pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
                  "WHERE i.inhparent = 'events_by_arrival'::regclass"),
              "8|t\n");
}

TEST_F(FleetDatabaseTest, EachPartitionTellsWhereEventsOfAKindAre) {
    constexpr char KEPT[] = "SELECT count(*), bool_and(indisvalid) FROM pg_index x JOIN pg_class c "
                            "ON c.oid = x.indexrelid WHERE c.relname LIKE 'events%by_kind'";
    EXPECT_EQ(sql(KEPT), "8|t\n");
    // As the program of before has left it, and one whose making was broken off.
    sql("DROP INDEX events_default_by_kind; UPDATE pg_index SET indisvalid = false "
        "WHERE indexrelid = 'events_20231114_1_by_kind'::regclass");
    EXPECT_THAT(maintainFleet(place_, 0, NOW).failed, IsEmpty());
    EXPECT_EQ(sql(KEPT), "8|t\n");
}

TEST_F(FleetDatabaseTest, RoundThatLooksAtClocksMakesTheIndexesToo) {
    const S64_t now = time(nullptr);
    maintainFleet(place_, 0, now, Clock::AS_TOLD);
    sql("DROP INDEX events_default_by_kind");
    EXPECT_THAT(maintainFleet(place_, 0, now, Clock::COMPARED).failed, IsEmpty());
}

TEST_F(FleetDatabaseTest, WhatWasFiledSinceTheLastRoundIsSummedUpByTheNext) {
    sql("CREATE EXTENSION IF NOT EXISTS pageinspect; INSERT INTO events SELECT 5, n, "
        "'2023-11-14 12:00+00', now(), 1, 1, 1, 1, 1, 1, true, false, NULL, repeat('x', 900)::bytea "
        "FROM generate_series(1, 200) n"); // eight of them fill a page, eight pages are a stretch
    constexpr char SUMMED[] = "SELECT count(*) FROM brin_revmap_data(get_raw_page("
                              "'events_20231114_1_by_kind', 1)) pages WHERE pages <> '(0,0)'";
    EXPECT_EQ(sql(SUMMED), "1\n") << "filing waits for no summary";
    maintainFleet(place_, 0, NOW);
    EXPECT_EQ(sql(SUMMED), "4\n");
}

TEST_F(FleetDatabaseTest, OneMaintenanceAtATime) {
    const support::TempDirectory directory;
    support::Process holder({"psql", "-X", "-c",
                             "BEGIN; SELECT * FROM meta WHERE name = 'maintenance' FOR UPDATE; "
                             "SELECT pg_sleep(30)",
                             place_},
                            directory.file("holder"));
    ASSERT_TRUE(support::waitUntil([this] {
        return sql("SELECT count(*) FROM pg_stat_activity WHERE query LIKE '%pg_sleep(30)%' AND "
                   "state = 'active' AND wait_event = 'PgSleep'") == "1\n";
    }));
    EXPECT_THROW(maintainFleet(place_, 0, NOW), StoreError);
    holder.signal(SIGKILL);
}
