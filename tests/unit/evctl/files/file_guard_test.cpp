/** evctl file guard: a log that would stop the event manager's start gives way to a sound one. */
#include "../../evlog/log_image.h"
#include "../run.h"

#include "temp_directory.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

using test::Said;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

std::string soundLog() {
    test::LogImage log;
    log.firstEntry();
    log.events(1, 10);
    log.dummy();
    log.zerosTo();
    return log.bytes;
}

/** With a damaged record inside: the first event would end in a bug-check. */
std::string fatalLog() {
    std::string bytes = soundLog();
    bytes[1100] = 'x';
    return bytes;
}

class FileGuard : public testing::Test {
  protected:
    Said guard(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"file", "guard", path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return test::run(arguments);
    }
    std::string path() const { return directory_.file("kelta_eventlog"); }
    void write(const std::string& bytes) { support::writeFile(path(), bytes); }
    std::vector<std::string> others() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            if (entry.path() != path()) {
                names.push_back(entry.path().string());
            }
        }
        std::ranges::sort(names);
        return names;
    }
    void expectMended() {
        EXPECT_EQ(test::run({"file", "predict", path()}).status, 0);
        ASSERT_EQ(others().size(), 1U);
        EXPECT_THAT(others()[0], HasSubstr("kelta_eventlog.fatal-"));
        EXPECT_EQ(support::readFile(others()[0]), fatalLog());
    }

    support::TempDirectory directory_;
};

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_ino;
}

} // namespace

TEST_F(FileGuard, SoundLogStaysUntouched) {
    write(soundLog());
    ino_t before = inodeOf(path());
    Said said = guard();
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output + said.errors, "");
    EXPECT_EQ(inodeOf(path()), before);
    EXPECT_TRUE(others().empty());
}

TEST_F(FileGuard, LogThatOnlyLosesEventsStaysUntouched) {
    std::string rebuilt = fatalLog();
    rebuilt[500] = 'x';
    write(rebuilt);
    EXPECT_EQ(guard().status, 0);
    EXPECT_EQ(support::readFile(path()), rebuilt);
}

TEST_F(FileGuard, PredictSaysForWhichEventsItIsFatal) {
    write(fatalLog());
    Said said = test::run({"file", "predict", path()});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.output,
                HasSubstr("\" at the first event that is logged, if it has 40 bytes of "
                          "data, after every start\n"));
}

TEST_F(FileGuard, LogWithoutAnyEventStaysAndPredictWarnsOfInquiries) {
    test::LogImage log;
    log.dummy();
    log.zerosTo();
    write(log.bytes);
    EXPECT_EQ(guard().status, 0); // an event mends it
    Said said = test::run({"file", "predict", path()});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(
        said.output,
        HasSubstr("bug-check \"Linux read function fails for Event Log File!\" at an inquiry "
                  "for the first or the last event, before one is logged\n"));
    nlohmann::json json =
        nlohmann::json::parse(test::run({"file", "predict", path(), "--json"}).output);
    EXPECT_EQ(json["fatal"], false);
    EXPECT_EQ(json["bugcheck"]["at"], "inquiry");
    EXPECT_EQ(json["bugcheck"]["forGood"], false);
    EXPECT_EQ(json["bugcheck"]["dataLength"], nullptr);
}

TEST_F(FileGuard, MissingLogIsFine) {
    EXPECT_EQ(guard().status, 0);
    EXPECT_TRUE(others().empty());
}

TEST_F(FileGuard, FatalLogGivesWay) {
    write(fatalLog());
    ASSERT_EQ(chmod(path().c_str(), 0700), 0);
    Said said = guard();
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "");
    EXPECT_THAT(
        said.output,
        MatchesRegex(".*kelta_eventlog: bug-check \"Mismatching empStartSequenceId in Event "
                     "Entry!\" at the first event that is logged, if it has 40 bytes of "
                     "data, after every start\nset aside as "
                     ".*kelta_eventlog\\.fatal-[0-9]+T[0-9]+Z; 10 events saved, ids 0 to "
                     "10, 1 of these marks for lost events\n"));
    expectMended();
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    EXPECT_EQ(guard().status, 0) << "there is nothing more to do";
    EXPECT_EQ(others().size(), 1U);
}

TEST_F(FileGuard, OfABugCheckThatComesLaterItSaysSoAndLeavesTheLog) {
    std::string damaged = soundLog();
    damaged[0] = 'x';
    write(damaged);
    const std::string later =
        R"(bug-check "Incorrect Signature in Event Entry!" at event 399 after the start, )"
        "if each has 3848 bytes of data";
    const Said said = guard();
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, path() + ": left as it is, but: " + later + "\n");
    EXPECT_EQ(nlohmann::json::parse(guard({"--json"}).output)["later"], later);
    EXPECT_TRUE(others().empty());
    EXPECT_EQ(support::readFile(path()), damaged);
}

TEST_F(FileGuard, JsonSaysWhetherALogWasReplacedAndByWhat) {
    write(soundLog());
    nlohmann::json json = nlohmann::json::parse(guard({"--json"}).output);
    EXPECT_EQ(json, (nlohmann::json{{"file", path()}, {"replaced", false}, {"later", nullptr}}));
    write(fatalLog());
    support::writeFile(path() + ".fatal-20061121T140000Z", "oldest");
    Said said = guard({"--json", "--keep", "1"});
    EXPECT_EQ(said.status, 1);
    json = nlohmann::json::parse(said.output);
    EXPECT_EQ(json["replaced"], true);
    EXPECT_THAT(json["reason"], HasSubstr("\"Mismatching empStartSequenceId"));
    EXPECT_EQ(json["aside"], others().at(0));
    EXPECT_EQ(json["saved"], 10);
    EXPECT_EQ(json["marks"], 1);
    EXPECT_EQ(json["removed"], nlohmann::json::array({path() + ".fatal-20061121T140000Z"}));
}

TEST_F(FileGuard, LogOfWhichNothingCanBeReadIsSetAside) {
    std::string bad = test::record({.source = 40, .type = 2}, "x");
    write(bad);
    Said said = guard();
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("no event can be read of it"));
    EXPECT_FALSE(std::filesystem::exists(path()));
    ASSERT_EQ(others().size(), 1U);
    EXPECT_EQ(support::readFile(others()[0]), bad);
}

TEST_F(FileGuard, OneThatEndedWhileItWroteIsFinished) {
    write(fatalLog());
    support::writeFile(path() + ".guard", "half a log");
    EXPECT_EQ(guard().status, 1);
    expectMended();
}

TEST_F(FileGuard, OneThatEndedBehindTheSettingAsideIsFinished) {
    write(fatalLog());
    std::filesystem::create_hard_link(path(), path() + ".fatal-20261122T080000Z");
    support::writeFile(path() + ".guard", soundLog());
    EXPECT_EQ(guard().status, 1);
    expectMended();
}

TEST_F(FileGuard, TwoInOneSecondAreBothKept) {
    for (int time = 0; time < 3; time++) {
        write(fatalLog());
        EXPECT_EQ(guard().status, 1);
    }
    EXPECT_EQ(others().size(), 3U);
}

TEST_F(FileGuard, OnlyTheNewestAreKept) {
    write(fatalLog());
    support::writeFile(path() + ".fatal-20061121T140000Z", "oldest");
    support::writeFile(path() + ".fatal-20061121T140001Z", "older");
    Said said = guard({"--keep", "2"});
    EXPECT_THAT(said.output, HasSubstr(".fatal-20061121T140000Z: removed\n"));
    ASSERT_EQ(others().size(), 2U);
    EXPECT_EQ(support::readFile(others()[0]), "older");
    EXPECT_EQ(support::readFile(others()[1]), fatalLog());
}

TEST_F(FileGuard, ByAClockThatWasSetBackTheNewestStays) {
    for (const char* year : {"2130", "2131", "2132", "2133"}) {
        support::writeFile(path() + ".fatal-" + year + "0101T000000Z", year);
    }
    write(fatalLog());
    Said said = guard();
    EXPECT_THAT(said.output, HasSubstr(".fatal-21300101T000000Z: removed\n"));
    ASSERT_EQ(others().size(), 4U);
    EXPECT_THAT(others()[0], MatchesRegex(".*fatal-20[0-9T]+Z-1"));
    EXPECT_EQ(support::readFile(others()[0]), fatalLog());
    for (const char* gone : {"2131", "2132", "2133"}) { // the one above is newer than all these
        write(fatalLog());
        EXPECT_THAT(guard().output, HasSubstr(gone + std::string("0101T000000Z: removed\n")));
    }
    EXPECT_EQ(others().size(), 4U);
}

TEST_F(FileGuard, TheTenthOfOneTimeIsNewerThanTheNinth) {
    support::writeFile(path() + ".fatal-21300101T000000Z-9", "ninth");
    support::writeFile(path() + ".fatal-21300101T000000Z-10", "tenth");
    write(fatalLog());
    EXPECT_THAT(guard({"--keep", "2"}).output, HasSubstr("0000Z-9: removed\n"));
    ASSERT_EQ(others().size(), 2U);
    EXPECT_THAT(others()[0], MatchesRegex(".*fatal-20[0-9T]+Z-11"));
    EXPECT_EQ(support::readFile(others()[1]), "tenth");
}

TEST_F(FileGuard, NameThatIsNotOfAGuardIsOlderThanThoseThatAre) {
    for (const char* name : {"zebra", "20061121T140000Z-x", "20061121T140000Z-", "-7"}) {
        support::writeFile(path() + ".fatal-" + name, name);
    }
    write(fatalLog());
    guard({"--keep", "1"});
    ASSERT_EQ(others().size(), 1U);
    EXPECT_EQ(support::readFile(others()[0]), fatalLog());
}

TEST_F(FileGuard, LinksAndOtherFilesAreRefused) {
    support::writeFile(directory_.file("elsewhere"), fatalLog());
    ASSERT_EQ(symlink("elsewhere", path().c_str()), 0);
    Said said = guard();
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("is a link"));
    EXPECT_EQ(support::readFile(directory_.file("elsewhere")), fatalLog());
    ASSERT_EQ(unlink(path().c_str()), 0);
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_THAT(guard().errors, HasSubstr("not a regular file"));
    ASSERT_EQ(unlink(path().c_str()), 0);
    directory_.makeDirectory("kelta_eventlog");
    EXPECT_EQ(guard().status, 2);
}

TEST_F(FileGuard, LinkInThePlaceOfTheNewLogIsNotFollowed) {
    write(fatalLog());
    support::writeFile(directory_.file("victim"), "precious");
    ASSERT_EQ(symlink("victim", (path() + ".guard").c_str()), 0);
    EXPECT_EQ(guard().status, 1);
    EXPECT_EQ(support::readFile(directory_.file("victim")), "precious");
    EXPECT_EQ(test::run({"file", "predict", path()}).status, 0);
}

TEST_F(FileGuard, AnotherUsersLogIsRefused) {
    write(fatalLog());
    if (chown(path().c_str(), 12345, static_cast<gid_t>(-1)) != 0) {
        ASSERT_NE(geteuid(), 0U) << "root may give files away";
        GTEST_SKIP() << "only root can make another user's file";
    }
    EXPECT_THAT(guard().errors, HasSubstr("belongs to another user"));
    EXPECT_TRUE(others().empty());
}

TEST_F(FileGuard, LogInUseIsRefused) {
    write(fatalLog());
    int open = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(open, 0);
    Said said = guard();
    close(open);
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("in use"));
    EXPECT_EQ(support::readFile(path()), fatalLog());
    EXPECT_TRUE(others().empty());
}
