/** Who may do what in a shared archive. */
#include "archive_report.h"
#include "fleet_database_fixture.h"
#include "postgres/pg_connection.h"

using namespace evarchive;
using fleet::FleetDatabaseTest;
using fleet::NOW;
using fleet::server;
using support::eventBody;
using testing::HasSubstr;
using testing::ThrowsMessage;

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
