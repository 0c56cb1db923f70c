/** What the owner of a shared archive is told of it. */
#include "fleet_database_fixture.h"
#include "postgres/pg_connection.h"

using namespace evarchive;
using fleet::DAY;
using fleet::FleetDatabaseTest;
using fleet::NOW;
using testing::HasSubstr;

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

TEST_F(FleetDamageTest, EventsBeyondTheHighestIdOfTheirLogAreFound) {
    sql("UPDATE logs SET highest = 3");
    EXPECT_THAT(told(1), HasSubstr("generation 1: holds 2 events to id 5 beyond what the log's row "
                                   "says is its highest, 3\n"));
    sql("UPDATE logs SET highest = NULL");
    EXPECT_THAT(told(1), HasSubstr("holds 6 events to id 5 beyond what the log's row says is its "
                                   "highest, none\n"));
    sql("UPDATE logs SET highest = 7"); // the last ones were removed
    told(0);
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
