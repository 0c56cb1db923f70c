#include "archive_report.h"

#include "archive.h"
#include "link_messages.h"
#include "sqlite_store.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

using namespace evarchive;
using support::LogName;
using testing::HasSubstr;

namespace {

class ReportTest : public testing::Test {
  protected:
    void fill(const std::vector<support::EventFields>& events) {
        const auto store = openArchive(path_);
        Archive archive(*store, {}, [](Level, const std::string&) {});
        archive.setTime(2'000'000'000);
        for (const auto& event : events) {
            archive.fileEvent(1, support::eventBody(event));
        }
        archive.commit();
    }

    std::string list(ReportForm form = ReportForm::TEXT) {
        std::ostringstream out;
        EXPECT_EQ(listArchive(path_, form, out), 0);
        return out.str();
    }

    int check(ReportForm form = ReportForm::TEXT) {
        out_.str("");
        return checkArchive(path_, form, out_);
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
    std::ostringstream out_;
};

} // namespace

TEST_F(ReportTest, ListHasALineForEachGeneration) {
    fill({{.id = 0}, {.id = 1}, {.id = 1}, {.id = 4}, {.log = {.slot = 2}, .id = 9}});
    EXPECT_THAT(list(), testing::StartsWith(
                            "enclosure ENC-A blade BLADE-1 slot 1 instance 1 generation 1: 3 "
                            "events, ids 0 to 4, 1 gaps, 1 duplicates, opened 2"));
    EXPECT_THAT(list(), HasSubstr("slot 2 instance 1 generation 1: 1 events, ids 9 to 9, 0 gaps"));
}

TEST_F(ReportTest, ListAsJsonHasTheRanges) {
    fill({{.id = 0}, {.id = 1}, {.id = 4}});
    const auto json = nlohmann::json::parse(list(ReportForm::JSON));
    EXPECT_EQ(json["enclosure"], "ENC-A");
    EXPECT_EQ(json["events"], 3);
    EXPECT_EQ(json["ranges"],
              nlohmann::json::parse(R"([{"first":0,"last":1},{"first":4,"last":4}])"));
}

TEST_F(ReportTest, JsonIsOneObjectALine) {
    fill({{.id = 5}, {.id = 5, .time = 2000}});
    std::istringstream lines(list(ReportForm::JSON));
    int generation = 0;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(nlohmann::json::parse(line)["generation"], ++generation);
    }
    EXPECT_EQ(generation, 2);
}

TEST_F(ReportTest, EmptyArchiveIsListedAsNothing) {
    fill({});
    EXPECT_EQ(list(), "");
    EXPECT_EQ(list(ReportForm::JSON), "");
    EXPECT_EQ(check(), 0);
}

TEST_F(ReportTest, UnbrokenArchiveIsNoFinding) {
    fill({{.id = 5}, {.id = 6}, {.id = 6}});
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(out_.str(), "1 generations, 2 events, 1 duplicates dropped, 0 findings\n");
}

TEST_F(ReportTest, GapIsAFinding) {
    fill({{.id = 5}, {.id = 8}});
    EXPECT_EQ(check(), 1);
    EXPECT_THAT(out_.str(), HasSubstr("generation 1: ids 6 to 7 are missing\n"));
    EXPECT_EQ(check(ReportForm::JSON), 1);
    const auto json = nlohmann::json::parse(out_.str());
    EXPECT_EQ(json["finding"], true);
    EXPECT_EQ(json["gaps"], nlohmann::json::parse(R"([{"first":6,"last":7}])"));
}

TEST_F(ReportTest, SecondGenerationIsAFinding) {
    fill({{.id = 5}, {.id = 5, .time = 2000}});
    EXPECT_EQ(check(), 1);
    EXPECT_THAT(out_.str(), HasSubstr("generation 1: superseded"));
    EXPECT_THAT(out_.str(), testing::Not(HasSubstr("generation 2: superseded")));
}

TEST_F(ReportTest, EventUnderAnotherIdIsAFinding) {
    fill({{.id = 5}});
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "UPDATE events SET id = 6", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    EXPECT_EQ(check(), 1);
    EXPECT_THAT(out_.str(), HasSubstr("event 6 does not fit its place"));
}

TEST_F(ReportTest, EventThatIsCutShortIsAFinding) {
    fill({{.id = 5}});
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "UPDATE events SET image = x'00'", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    EXPECT_EQ(check(ReportForm::JSON), 1);
    EXPECT_EQ(nlohmann::json::parse(out_.str())["damaged"], nlohmann::json::parse("[5]"));
}

TEST_F(ReportTest, NamesThatAreNoTextAreEscapedInTheJson) {
    fill({{.log = {.enclosure = "\xFF\x01"}, .id = 5}});
    EXPECT_EQ(nlohmann::json::parse(list(ReportForm::JSON))["enclosure"], "\\xFF\\x01");
}

TEST_F(ReportTest, MissingArchiveCannotBeReported) {
    EXPECT_THROW(list(), StoreError);
}
