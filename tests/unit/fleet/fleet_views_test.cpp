/** What is shown of a shared archive, and how one of an earlier layout comes to it. */
#include "fleet_database_fixture.h"

#include <fstream>
#include <regex>

using namespace evarchive;
using fleet::DAY;
using fleet::FleetDatabaseTest;
using fleet::NOW;
using testing::HasSubstr;
using testing::ThrowsMessage;

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
        "ALTER TABLE generations DROP COLUMN oldest; "
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

TEST_F(FleetDatabaseTest, ArchiveOfTheSecondLayoutIsUpgraded) {
    file({{3, NOW}, {4, NOW}}, NOW);
    sql("ALTER TABLE generations DROP COLUMN oldest; UPDATE meta SET value = '2' WHERE name = 'layout'");
    EXPECT_THAT([this] { openPgArchive(place_); },
                ThrowsMessage<StoreError>(HasSubstr("\"evarchiver db upgrade\"")));
    EXPECT_EQ(upgradeFleet(place_), 2);
    const auto store = openPgArchive(place_);
    const Claim claim = store->claim(key_, 3);
    EXPECT_EQ(claim.newest->highest, 4U);
    EXPECT_EQ(claim.newest->oldest, std::nullopt);
    store->begin();
    store->noteOldest(claim.newest->number, 3);
    store->commit();
    EXPECT_EQ(sql("SELECT oldest FROM generations"), "3\n");
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
