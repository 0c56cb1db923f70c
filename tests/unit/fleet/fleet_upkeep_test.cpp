/** Partitions of a shared archive: made, dropped, kept in shape. */
#include "fleet_database_fixture.h"
#include "postgres/pg_connection.h"

#include <atomic>
#include <thread>

using namespace evarchive;
using fleet::DAY;
using fleet::FleetDatabaseTest;
using fleet::NOW;
using fleet::server;
using support::eventBody;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ThrowsMessage;

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
