/** evctl ael with real files: left, listed, shown, and never changed. */
#include "ael_file.h"
#include "parameter_block.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

struct AelOutcome {
    support::Ending ending;
    std::string output;
    std::string errors;
};

/** A blade whose non-volatile data are in a directory of the test. */
class Ael : public testing::Test {
  protected:
    Ael() : block_(key_, "/tmp/nowhere") {
        setDirectory(directory_.path());
        memcpy(block_.bytes() + CHASSIS, "CHASSIS-9", 9);
    }
    void setDirectory(const std::string& path) {
        memset(block_.bytes() + NVRAM, 0, 128);
        memcpy(block_.bytes() + NVRAM, path.data(), path.size());
    }
    AelOutcome run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "ael");
        support::Process evctl(support::commandOf("evctl", arguments), directory_.file("evctl"));
        support::Ending ending = evctl.wait();
        return {ending, evctl.output(), evctl.errorOutput()};
    }
    AelOutcome write(const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {"write", "--key", key_.text(), "--id", "300"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    AelOutcome list(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"list", "--key", key_.text()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    std::string files() const { return directory_.file("aelfiles"); }
    std::vector<std::string> contents() const {
        std::vector<std::string> all;
        for (const auto& entry : fs::directory_iterator(files())) {
            all.push_back(support::readFile(entry.path()));
        }
        return all;
    }
    void put(const std::string& name, const std::string& bytes) {
        fs::create_directory(files());
        support::writeFile(files() + "/" + name, bytes);
    }

    static constexpr size_t NVRAM = 440;   // nvramDirectory in the block
    static constexpr size_t CHASSIS = 184; // chassisSN

    support::TempDirectory directory_;
    support::IpcKey key_;
    support::ParameterBlock block_;
};

} // namespace

TEST_F(Ael, WriteLeavesOneFileThatIsARecord) {
    AelOutcome outcome = write({"--type", "error", "--category", "disk", "--source", "34", "--text",
                                "gone", "--id-version", "5"});
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_EQ(outcome.output + outcome.errors, "");
    std::vector<std::string> all = contents();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].size(), 164U);
    EXPECT_EQ(all[0].substr(0, 4), std::string("\xB6\x8F\x01\x00", 4));
    EXPECT_EQ(all[0].substr(4, 4), bigEndian(bitwiseChecksum(all[0].substr(8)), 4));
    EXPECT_EQ(all[0].substr(8, 10), std::string("CHASSIS-9\0", 10));
    EXPECT_EQ(all[0].substr(136, 12), std::string("\0\0\0\2\0\0\0\0\0\0\0\0", 12));
    EXPECT_EQ(all[0].substr(152), std::string("\0\4\x22\3\4\5\x01\x2Cgone", 12));
}

TEST_F(Ael, FileOfAfter2038IsListedAsTheEventThatItIs) {
    EXPECT_EQ(write({"--source", "snmp", "--text", "late"}).ending, support::exitedWith(0));
    ASSERT_EQ(std::system(("touch -d @4000000000 " + files() + "/*").c_str()), 0);
    const AelOutcome outcome = list();
    EXPECT_THAT(outcome.output, HasSubstr("snmp"));
    EXPECT_THAT(outcome.output, testing::Not(HasSubstr("deleted")));
}

TEST_F(Ael, StartupEventsKeepTheirOrder) {
    EXPECT_EQ(write({"--source", "startup", "--seq", "7", "--hex", "00"}).ending,
              support::exitedWith(0));
    EXPECT_EQ(contents().at(0).substr(144, 4), bigEndian(7, 4));
}

TEST_F(Ael, TheLongestEventIsWrittenALongerOneIsRefused) {
    EXPECT_EQ(write({"--text", std::string(3848, 'x')}).ending, support::exitedWith(0));
    AelOutcome outcome = write({"--text", std::string(3849, 'x')});
    EXPECT_EQ(outcome.ending, support::exitedWith(2));
    EXPECT_EQ(outcome.errors, "evctl: more than 3848 bytes of event data\n");
    EXPECT_EQ(contents().size(), 1U);
}

TEST_F(Ael, FileThatCannotBeCreated) {
    setDirectory("/nowhere/at/all");
    AelOutcome outcome = write({"--text", "x"});
    EXPECT_EQ(outcome.ending, support::exitedWith(2));
    EXPECT_EQ(outcome.output,
              "openAELFileFd(): Unable to make directory /nowhere/at/all/aelfiles\n");
    EXPECT_EQ(outcome.errors, "evctl: the alternate event log file could not be created (10001)\n");
}

TEST_F(Ael, FileThatCannotBeWritten) {
    std::vector<std::string> command =
        support::commandOf("evctl", {"ael", "write", "--key", key_.text(), "--id", "1", "--text",
                                     std::string(2000, 'x')});
    // No file may become longer than 1024 bytes, the signal for it being ignored.
    command.insert(command.begin(), {"bash", "-c", "trap '' XFSZ; ulimit -f 1; exec \"$@\"", "-"});
    support::Process evctl(command, directory_.file("evctl"));
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_THAT(evctl.errorOutput(), HasSubstr("evctl: the alternate event log file could not be "
                                               "written (10002); an empty or partial file may "
                                               "remain\n"));
    AelOutcome outcome = list();
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_THAT(outcome.output, HasSubstr("deleted: shorter than its header says\n"));
}

TEST_F(Ael, NothingLeftYetIsAnEmptyList) {
    AelOutcome outcome = list();
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_EQ(outcome.output + outcome.errors, "");
    EXPECT_EQ(run({"list", "--dir", files()}).ending, support::exitedWith(2));
}

TEST_F(Ael, ListShowsWhatWasWritten) {
    write({"--type", "warning", "--text", "text"});
    AelOutcome outcome = list();
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_THAT(outcome.output,
                testing::MatchesRegex("   1  20[0-9T:-]+Z       164 bytes  kelta_alteventlog[0-9]+"
                                      "\\.[A-Za-z0-9]+  stored: warning snmp 300  text\n"));
    EXPECT_EQ(run({"list", "--dir", files()}).output, outcome.output);
}

TEST_F(Ael, WhatWillBeLostIsAFinding) {
    put("kelta_alteventlog1.bad", AelFile_t{.checksumError = 1}.bytes());
    put("notes", "mine");
    AelOutcome outcome = list();
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_THAT(outcome.output,
                HasSubstr("bytes  kelta_alteventlog1.bad  deleted: the checksum does not match\n"));
    EXPECT_THAT(
        outcome.output,
        HasSubstr("4 bytes  notes  deleted: not the name of an alternate event log file\n"));
    EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 2);
}

TEST_F(Ael, ShowHasFieldsAndData) {
    put("kelta_alteventlog1.a", AelFile_t{}.bytes());
    put("kelta_alteventlog1.b", AelFile_t{.source = 18, .id = 4}.bytes());
    AelOutcome outcome = run({"show", "--dir", files(), "kelta_alteventlog1.b"});
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_THAT(outcome.output, HasSubstr("file         kelta_alteventlog1.b\norder        "));
    EXPECT_THAT(outcome.output, HasSubstr("\nverdict      stored\nmodified     "));
    EXPECT_THAT(outcome.output, HasSubstr("\ntime         1970-01-01T00:16:40Z\n"));
    EXPECT_THAT(outcome.output, HasSubstr("\nsource       startup(18)\n"));
    EXPECT_THAT(outcome.output, HasSubstr("\nenclosure    Other-Enclosure\n"));
    EXPECT_THAT(outcome.output, HasSubstr("\n0000  64 61 74 61  "));
    EXPECT_EQ(run({"show", "--dir", files()}).output.find("kelta_alteventlog1.a") ==
                  std::string::npos,
              false);
    EXPECT_EQ(run({"show", "--dir", files(), "other"}).errors,
              "evctl: other: no such file in the directory\n");
}

TEST_F(Ael, JsonHasFateAndEvent) {
    put("kelta_alteventlog1.a", AelFile_t{}.bytes());
    put("notes", "mine");
    AelOutcome outcome = list({"--json"});
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_EQ(outcome.output.find(R"({"file":"kelta_alteventlog1.a","order":1,"fate":"stored",)"
                                  R"("reason":null,"modified":")"),
              0U);
    EXPECT_THAT(outcome.output, HasSubstr(R"("bytes":164,"event":{"sequenceId":0,)"));
    EXPECT_THAT(outcome.output, HasSubstr(R"("data":"64617461")"));
    EXPECT_THAT(outcome.output, HasSubstr(R"({"file":"notes","order":null,"fate":"deleted",)"));
    EXPECT_THAT(outcome.output, HasSubstr(R"("event":null})"));
}

TEST_F(Ael, NothingIsChanged) {
    put("kelta_alteventlog1.a", AelFile_t{}.bytes());
    put("kelta_alteventlog1.b", "");
    put("notes", "mine");
    auto traces = [this] {
        std::vector<std::string> all;
        for (const auto& entry : fs::directory_iterator(files())) {
            struct stat status {};
            EXPECT_EQ(stat(entry.path().c_str(), &status), 0);
            all.push_back(entry.path().string() + " " + std::to_string(status.st_ino) + " " +
                          std::to_string(status.st_mtim.tv_nsec) + " " +
                          std::to_string(status.st_ctim.tv_nsec) + " " +
                          support::readFile(entry.path()));
        }
        return all;
    };
    std::vector<std::string> before = traces();
    list();
    run({"show", "--dir", files()});
    EXPECT_EQ(traces(), before);
}

TEST_F(Ael, TheListTakesFiltersOrderAndForms) {
    for (const char* id : {"300", "301", "302"}) {
        EXPECT_EQ(write({"--text", std::string("event ") + id, "--id-version", "1", "--type",
                         id == std::string("301") ? "error" : "warning"})
                      .ending,
                  support::exitedWith(0));
    }
    auto lines = [this](const std::vector<std::string>& more) {
        std::string output = list(more).output;
        return std::count(output.begin(), output.end(), '\n');
    };
    EXPECT_EQ(lines({}), 3);
    EXPECT_EQ(lines({"--type", "error"}), 1);
    EXPECT_EQ(lines({"-g", "event 30[12]"}), 2);
    EXPECT_EQ(lines({"--since", "-1h"}), 3);
    EXPECT_EQ(lines({"--until", "@5"}), 0);
    EXPECT_EQ(lines({"-n", "2"}), 2);
    EXPECT_EQ(list({"-n", "1"}).output,
              list({"-r"}).output.substr(0, list({"-n", "1"}).output.size()));
    EXPECT_THAT(list({"-o", "csv"}).output, testing::StartsWith("sequenceId,instanceNumber,"));
    EXPECT_EQ(lines({"-o", "csv"}), 4);
    EXPECT_EQ(lines({"-o", "syslog", "--type", "error"}), 1);
    EXPECT_THAT(list({"-o", "full", "--type", "error"}).output,
                HasSubstr("\ntype         error(3)\n"));
    EXPECT_THAT(list({"--json", "--type", "error"}).output, HasSubstr("\"fate\":\"stored\""));
}

TEST_F(Ael, TheCursorOfAListShowsWhatCameSince) {
    const std::string cursor = directory_.file("cursor");
    put("kelta_alteventlog1.aaaaaa", "too short");
    auto came = [&](const std::vector<std::string>& more = {}) {
        std::vector<std::string> all = {"--cursor-file", cursor};
        all.insert(all.end(), more.begin(), more.end());
        return list(all).output;
    };
    EXPECT_THAT(came(), HasSubstr("kelta_alteventlog1.aaaaaa"));
    EXPECT_EQ(came(), "");
    put("kelta_alteventlog1.bbbbbb", "too short");
    put("kelta_alteventlog1.cccccc", "too short");
    // Whatever the clock says: a file that came is new.
    fs::last_write_time(files() + "/kelta_alteventlog1.cccccc",
                        fs::file_time_type::clock::now() - std::chrono::hours(900));
    EXPECT_THAT(came({"-n", "+1"}), HasSubstr("bbbbbb"));
    const std::string rest = came({"--show-cursor"});
    EXPECT_THAT(rest, HasSubstr("cccccc"));
    EXPECT_THAT(rest, testing::Not(HasSubstr("bbbbbb")));
    EXPECT_THAT(rest, HasSubstr("\n-- cursor: c1:"));
    EXPECT_EQ(came({"--show-cursor"}).find("-- cursor: c1:"), 0U);
    fs::remove(files() + "/kelta_alteventlog1.bbbbbb");
    const size_t length = support::readFile(cursor).size();
    EXPECT_EQ(came(), "");
    EXPECT_LT(support::readFile(cursor).size(), length) << "what is gone needs no mark";
}

TEST_F(Ael, FilesWithoutAnEventAreListedOnlyWhereNothingIsAskedOfEvents) {
    EXPECT_EQ(write({"--text", "good"}).ending, support::exitedWith(0));
    support::writeFile(files() + "/kelta_alteventlog9", "short");
    EXPECT_THAT(list().output, HasSubstr("shorter than a record's header"));
    EXPECT_EQ(list().ending, support::exitedWith(1));
    AelOutcome outcome = list({"--id", "300"});
    EXPECT_THAT(outcome.output, HasSubstr("stored: "));
    EXPECT_THAT(outcome.output, testing::Not(HasSubstr("shorter")));
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
}
