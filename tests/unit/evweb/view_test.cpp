/** Questions to an archive file: how they are carried out, and that summaries change no answer. */
#include "sqlite_store.h"
#include "sqlite_view.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

namespace {

using namespace evweb;

constexpr U32_t BEGIN = 1'700'000'000;
constexpr U32_t LOGS = 5;

/** Events of five logs by turns, a minute between two of a log; every hundredth is an error, and
 * one in a thousand has a clock that is wrong by decades. */
void fill(const std::string& path, U32_t count) {
    const auto store = evarchive::openArchive(path);
    store->begin();
    for (U32_t log = 0; log < LOGS; ++log) {
        const auto series = store->addSeries({{"E", "B" + std::to_string(log), log}, 0});
        store->addGeneration({series, 1}, BEGIN);
    }
    for (U32_t number = 0; number < count; ++number) {
        EmpEvLogHeader_t header{};
        header.evSequenceId = number / LOGS + 1;
        header.evTime = number % 1000 == 999 ? 4'000'000'000 : BEGIN + number / LOGS * 60;
        header.evType = number % 100 == 50 ? 3 : 1;
        header.evSource = static_cast<U8_t>(number % 7);
        store->addEvent({1 + number % LOGS, 1}, {header.evSequenceId, evarchive::viewOf(header),
                                                 true, false, BEGIN + number});
    }
    store->commit();
}

std::vector<std::pair<S64_t, U32_t>> allOf(SqliteView& view, Search search) {
    std::vector<std::pair<S64_t, U32_t>> all;
    search.limit = 500;
    do {
        const Page page = view.search(search);
        for (const FoundEvent& event : page.events) {
            all.emplace_back(event.log, event.event.sequenceId);
        }
        search.before = page.next;
    } while (search.before);
    return all;
}

std::vector<TypeCounts> countsOf(SqliteView& view, const Search& search, Timeline timeline) {
    view.count(search, timeline);
    return timeline.buckets;
}

class SqliteViewTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        directory = std::make_unique<support::TempDirectory>();
        path = directory->file("events.db");
        fill(path, COUNT);
    }
    static void TearDownTestSuite() { directory.reset(); }

    static constexpr U32_t COUNT = 6 * ZONE_ROWS;
    static inline std::unique_ptr<support::TempDirectory> directory;
    static inline std::string path;
};

TEST_F(SqliteViewTest, SummariesChangeNoAnswer) {
    SqliteView fresh(path, std::chrono::seconds(20));
    SqliteView known(path, std::chrono::seconds(20));
    while (known.surveyOne()) {
    }
    std::vector<Search> searches(5);
    searches[0].filter.types = {3};
    searches[1].filter.since = BEGIN + 10'000;
    searches[1].filter.until = BEGIN + 20'000;
    searches[2].filter.since = 3'999'999'999;
    searches[3].filter.logs.blade = "B3";
    searches[3].filter.sources = {2};
    searches[4].filter.sources = {9};
    for (const Search& search : searches) {
        EXPECT_EQ(allOf(known, search), allOf(fresh, search));
    }
    for (const U32_t width : {60U, 3600U, 86'400U}) {
        const U32_t since = BEGIN - BEGIN % width;
        const Timeline timeline{
            .since = since, .width = width, .buckets = std::vector<TypeCounts>(40)};
        EXPECT_EQ(countsOf(known, {}, timeline), countsOf(fresh, {}, timeline));
        for (const Search& search : searches) {
            EXPECT_EQ(countsOf(known, search, timeline), countsOf(fresh, search, timeline));
        }
    }
}

TEST_F(SqliteViewTest, SearchesFindWhatIsThere) {
    SqliteView view(path, std::chrono::seconds(20));
    EXPECT_EQ(allOf(view, {}).size(), COUNT);
    Search errors;
    errors.filter.types = {3};
    EXPECT_EQ(allOf(view, errors).size(), (COUNT + 49) / 100);
    Search one;
    one.log = 2;
    EXPECT_EQ(allOf(view, one).size(), (COUNT + 3) / LOGS);
}

TEST_F(SqliteViewTest, QuestionEndsInTimeAndGoesOnWhereItEnded) {
    SqliteView view(path, std::chrono::milliseconds(0));
    Search search;
    search.filter.types = {3};
    search.limit = 500;
    const Page page = view.search(search);
    EXPECT_TRUE(page.isCut);
    ASSERT_TRUE(page.next);
    EXPECT_EQ(allOf(view, search).size(), (COUNT + 49) / 100);
}

TEST_F(SqliteViewTest, PlacesOfOtherListsAreRefused) {
    SqliteView view(path, std::chrono::seconds(2));
    Search search;
    for (const char* text : {"i1.5", "a1", "a0.5", "p1.2.3.4", "a1.2.3"}) {
        search.before = Position::parse(text);
        EXPECT_THROW(view.search(search), Refusal) << text;
    }
    search.log = 1;
    search.before = Position::parse("a1.5");
    EXPECT_THROW(view.search(search), Refusal);
}

/** How the engine carries a statement out. */
std::string planOf(SqliteDatabase& database, const char* sql) {
    SqliteStatement row(database, (std::string("EXPLAIN QUERY PLAN ") + sql).c_str());
    std::string plan;
    while (row.step()) {
        plan += row.text(3) + "\n";
    }
    return plan;
}

TEST_F(SqliteViewTest, EveryStatementForEventsUsesAKeyAndSortsNothing) {
    const auto database = evarchive::openDatabaseForReading(path);
    const std::map<const char*, std::string> plans = {
        {sqlite_sql::ARRIVALS, "SEARCH events USING INTEGER PRIMARY KEY (rowid>? AND rowid<?)\n"},
        {sqlite_sql::ARRIVALS_UP,
         "SEARCH events USING INTEGER PRIMARY KEY (rowid>? AND rowid<?)\n"},
        {sqlite_sql::RECEIVED, "SEARCH events USING INTEGER PRIMARY KEY (rowid>?)\n"},
        {sqlite_sql::LATELY, "SEARCH events USING INTEGER PRIMARY KEY (rowid>?)\n"},
        {sqlite_sql::OLDER, "SEARCH events USING INDEX sqlite_autoindex_events_1 (series=? AND "
                            "generation=? AND id<?)\n"},
        {sqlite_sql::NEWER, "SEARCH events USING INDEX sqlite_autoindex_events_1 (series=? AND "
                            "generation=? AND id>?)\n"},
        {sqlite_sql::ONE, "SEARCH events USING INDEX sqlite_autoindex_events_1 (series=? AND "
                          "generation=? AND id=?)\n"},
        {sqlite_sql::COUNT, "SEARCH events USING COVERING INDEX sqlite_autoindex_events_1 "
                            "(series=? AND generation=? AND id>? AND id<?)\n"},
        {sqlite_sql::FIRST, "SEARCH events USING INDEX sqlite_autoindex_events_1 (series=? AND "
                            "generation=?)\n"},
        {sqlite_sql::LAST, "SEARCH events USING INDEX sqlite_autoindex_events_1 (series=? AND "
                           "generation=?)\n"},
        {sqlite_sql::IDS, "SEARCH events USING COVERING INDEX sqlite_autoindex_events_1 (series=? "
                          "AND generation=? AND id>?)\n"},
    };
    for (const auto& [sql, plan] : plans) {
        EXPECT_EQ(planOf(*database, sql), plan) << sql;
    }
    for (const char* sql : {"SELECT min(rowid) FROM events", "SELECT max(rowid) FROM events"}) {
        EXPECT_THAT(planOf(*database, sql), testing::HasSubstr("SEARCH events")) << sql;
    }
}

TEST_F(SqliteViewTest, NothingIsWrittenToTheArchive) {
    const auto database = evarchive::openDatabaseForReading(path);
    EXPECT_THROW(database->execute("DELETE FROM events"), evarchive::StoreError);
}

// What leaves the window is counted for up to ten seconds more; what comes counts at once.
TEST(SqliteViewCounts, AgeByTenSecondsAtMost) {
    const support::TempDirectory directory;
    const std::string path = directory.file("events.db");
    fill(path, 1);
    constexpr S64_t LEAVES = S64_t{BEGIN} + 3600; // the window, then
    S64_t now = LEAVES;
    SqliteView view(path, std::chrono::seconds(20), [&now] { return now; });
    const auto counted = [&view] {
        U64_t all = 0;
        for (const LogInfo& log : view.logs({}).logs) {
            all += log.lately ? (*log.lately)[1] : 0;
        }
        return all;
    };
    EXPECT_EQ(counted(), 1U);
    now = LEAVES + 9;
    EXPECT_EQ(counted(), 1U);
    now = LEAVES + 10;
    EXPECT_EQ(counted(), 0U);
    now = LEAVES; // a clock that was set back
    EXPECT_EQ(counted(), 1U);
    now = LEAVES + 1;
    const auto store = evarchive::openArchive(path);
    EmpEvLogHeader_t header{};
    header.evSequenceId = 2;
    header.evType = 1;
    store->begin();
    store->addEvent({1, 1}, {2, evarchive::viewOf(header), true, false, now});
    store->commit();
    EXPECT_EQ(counted(), 1U) << "the new one, and no more the old one";
    now = LEAVES + 3602;
    EXPECT_EQ(counted(), 0U);
}

} // namespace
