/** evctl file salvage: what it says, and what it never does to files. */
#include "../../evlog/log_image.h"
#include "../run.h"

#include "temp_directory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using test::Said;
using testing::HasSubstr;

namespace {

class FileSalvage : public testing::Test {
  protected:
    Said run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"file", "salvage"});
        return test::run(arguments);
    }
    std::string write(const std::string& name, const std::string& bytes) {
        support::writeFile(directory_.file(name), bytes);
        return directory_.file(name);
    }
    /** Names in the directory. */
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            names.push_back(entry.path().filename().string());
        }
        std::ranges::sort(names);
        return names;
    }

    support::TempDirectory directory_;
};

/** First entry and ten events, the sixth record damaged. */
std::string damagedLog() {
    test::LogImage log;
    log.firstEntry();
    log.events(1, 10);
    log.dummy();
    log.zerosTo();
    log.damage(1100);
    return log.bytes;
}

std::string waitingEvent(const std::string& body) {
    return test::record({.instance = 0}, body);
}

std::vector<std::string> idsOf(const std::string& log) {
    std::vector<std::string> ids;
    for (const EvlogRecord_t& found : test::walk(log).records) {
        ids.push_back(std::to_string(U32_t{found.header->evSequenceId}));
    }
    return ids;
}

} // namespace

TEST_F(FileSalvage, SaysWhatIsSavedAndWhatIsNot) {
    std::string log = write("log", damagedLog());
    Said said = run({log, "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "");
    EXPECT_EQ(said.output, log + " offset 1000, 200 bytes: checksum does not match\n" +
                               "10 events saved, ids 0 to 10, 1 of these marks for lost events\n");
    EXPECT_EQ(support::readFile(log), damagedLog());
    std::string made = support::readFile(directory_.file("new"));
    EXPECT_EQ(idsOf(made).size(), 11U);
    EXPECT_EQ(test::run({"file", "verify", directory_.file("new")}).status, 0);
    EXPECT_EQ(test::run({"file", "predict", directory_.file("new")}).status, 0);
    EXPECT_EQ(names(), (std::vector<std::string>{"log", "new"}));
}

TEST_F(FileSalvage, SoundLogIsStatusZero) {
    test::LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    Said said = run({write("log", log.bytes), "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, "1 event saved, ids 0 to 0\n");
    EXPECT_EQ(support::readFile(directory_.file("new")), log.bytes);
}

TEST_F(FileSalvage, NeverWritesOverAnything) {
    std::string log = write("log", damagedLog());
    std::string there = write("there", "precious");
    ASSERT_EQ(symlink("nowhere", directory_.file("dangling").c_str()), 0);
    for (const std::string& output : {there, log, directory_.file("dangling")}) {
        Said said = run({log, "--output", output});
        EXPECT_EQ(said.status, 2);
        EXPECT_THAT(said.errors, HasSubstr("is there already"));
    }
    EXPECT_EQ(support::readFile(there), "precious");
    EXPECT_EQ(support::readFile(log), damagedLog());
    EXPECT_EQ(names(), (std::vector<std::string>{"dangling", "log", "there"}));
}

// Else the event manager, which runs as a user of its own, could not open what root has mended.
TEST_F(FileSalvage, NewLogHasTheFirstLogsOwnerAndPermissions) {
    std::string log = write("log", damagedLog());
    ASSERT_EQ(chmod(log.c_str(), 0440), 0);
    uid_t owner = geteuid() == 0 ? 12345 : geteuid();
    gid_t group = geteuid() == 0 ? 12346 : getegid();
    ASSERT_EQ(chown(log.c_str(), owner, group), 0);
    EXPECT_EQ(run({log, "--output", directory_.file("new")}).errors, "");
    struct stat status {};
    ASSERT_EQ(stat(directory_.file("new").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, owner);
    EXPECT_EQ(status.st_gid, group);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(FileSalvage, NewLogThatCannotBeGivenToTheFirstLogsOwnerIsSaid) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only the super-user can make a file of another user";
    }
    std::string log = write("log", damagedLog());
    ASSERT_EQ(chown(log.c_str(), 12345, 12345), 0);
    ASSERT_EQ(chmod(log.c_str(), 0644), 0);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0777), 0);
    ASSERT_EQ(seteuid(12347), 0);
    Said said = run({log, "--output", directory_.file("new")});
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "evctl: " + directory_.file("new") + ": belongs to another user than " +
                               log + "; give it to that one before the start\n");
    struct stat status {};
    ASSERT_EQ(stat(directory_.file("new").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12347U);
}

TEST_F(FileSalvage, DryRunWritesNothing) {
    std::string log = write("log", damagedLog());
    Said said = run({log, "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("1 of these marks for lost events; nothing written\n"));
    EXPECT_EQ(names(), std::vector<std::string>{"log"});
    EXPECT_EQ(run({log}).status, 2);
    EXPECT_EQ(run({log, "--dry-run", "--output", directory_.file("new")}).status, 2);
}

TEST_F(FileSalvage, DirectoryOfAlternateEventsIsTakenInTheOrderOfReplay) {
    std::string log = write("log", damagedLog());
    directory_.makeDirectory("aelfiles");
    std::string later = write("aelfiles/kelta_alteventlog1.aaaaaa", waitingEvent("later"));
    std::string sooner = write("aelfiles/kelta_alteventlog1.bbbbbb", waitingEvent("sooner"));
    write("aelfiles/kelta_alteventlog1.cccccc", "no record");
    write("aelfiles/other", waitingEvent("other"));
    std::filesystem::last_write_time(sooner, std::filesystem::last_write_time(later) -
                                                 std::chrono::seconds(100));
    Said said = run({log, directory_.file("aelfiles"), "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("1 left out: no valid record in this alternate event file"));
    EXPECT_THAT(said.output, HasSubstr("ids 0 to 12"));
    std::string made = support::readFile(directory_.file("new"));
    EXPECT_LT(made.find("sooner"), made.find("later"));
    EXPECT_EQ(made.find("other"), std::string::npos);
}

TEST_F(FileSalvage, DirectoryIsLogCopiesAndAlternateEvents) {
    test::LogImage sound;
    sound.firstEntry();
    sound.events(1, 10);
    sound.dummy();
    sound.zerosTo();
    test::LogImage older;
    older.firstEntry();
    older.events(1, 4);
    older.dummy();
    older.zerosTo();
    std::string log = write("kelta_eventlog", damagedLog());
    write("kelta_eventlog.debug", older.bytes);
    write("kelta_alteventlog1.aaaaaa", waitingEvent("beside"));
    directory_.makeDirectory("aelfiles");
    write("aelfiles/kelta_alteventlog1.bbbbbb", waitingEvent("below"));
    support::TempDirectory made;
    Said said = run({directory_.path(), "--output", made.file("new")});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("12 events saved, ids 0 to 12"));
    EXPECT_THAT(said.output, HasSubstr(log + " offset 1000"));
    EXPECT_EQ(said.errors, "");
    std::string bytes = support::readFile(made.file("new"));
    EXPECT_NE(bytes.find("beside"), std::string::npos);
    EXPECT_NE(bytes.find("below"), std::string::npos);
    write("kelta_eventlog.fatal-20061121T140000Z", sound.bytes); // has what is damaged in the log
    EXPECT_THAT(run({directory_.path(), "--dry-run"}).output, HasSubstr("13 events saved"));
}

TEST_F(FileSalvage, DirectoryWithASoundLogIsStatusZero) {
    test::LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    write("kelta_eventlog", log.bytes);
    Said said = run({directory_.path(), "--dry-run"});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, "1 event saved, ids 0 to 0; nothing written\n");
}

TEST_F(FileSalvage, OfADirectoryTheRestIsTakenWhenTheLogCannotBeRead) {
    directory_.makeDirectory("kelta_eventlog");
    write("kelta_eventlog.debug", damagedLog());
    Said said = run({directory_.path(), "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("10 events saved"));
    EXPECT_THAT(said.errors, HasSubstr("evctl: " + directory_.file("kelta_eventlog")));
}

TEST_F(FileSalvage, DirectoryWithoutEventsIsRefused) {
    Said said = run({directory_.path(), "--dry-run"});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("a directory without an event log"));
}

TEST_F(FileSalvage, OneFileThatCannotBeReadDoesNotKeepTheOthersFromBeingSaved) {
    std::string log = write("log", damagedLog());
    std::string empty = write("empty", "");
    Said said = run({directory_.file("missing"), empty, log, "--dry-run", "--json"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr(R"("saved":10,)"));
    EXPECT_THAT(said.output, HasSubstr(R"("unread":[")" + directory_.file("missing") +
                                       ": No such file or directory\",\"" + empty + ": "));
    EXPECT_THAT(said.errors, HasSubstr("missing: No such file or directory\nevctl: " + empty));
}

TEST_F(FileSalvage, AsJson) {
    std::string log = write("log", damagedLog());
    Said said = run({log, "--dry-run", "--json"});
    EXPECT_EQ(said.output,
              R"({"saved":10,"marks":1,"renumbered":0,"repeated":0,"firstSequenceId":0,)"
              R"("lastSequenceId":10,"leftOut":[],"damaged":[{"file":")" +
                  log +
                  R"(","offset":1000,"bytes":200,"reason":"checksum does not match"}],)"
                  R"("unread":[],"written":false})"
                  "\n");
}

TEST_F(FileSalvage, NothingReadableWritesNothing) {
    Said said =
        run({write("log", std::string(test::RING, 'x')), "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.output, HasSubstr("no event saved"));
    EXPECT_EQ(names(), std::vector<std::string>{"log"});
}

TEST_F(FileSalvage, LongListsAreCut) {
    test::LogImage log;
    log.firstEntry();
    for (uint32_t id = 100; id < 125; id++) {
        log.raw(test::record({.id = id, .source = 27, .eventId = 9}, std::string(3849, 'l')));
    }
    log.dummy();
    log.zerosTo();
    Said said = run({write("log", log.bytes), "--dry-run"});
    EXPECT_THAT(said.output, HasSubstr("25 left out: longer than any message\n"));
    EXPECT_THAT(said.output, HasSubstr("... and 5 more; --json has all\n"));
}

TEST_F(FileSalvage, LikeAllWhoReadALogItTakesAPipe) {
    test::LogImage log;
    log.firstEntry();
    for (std::vector<std::string> command : {std::vector<std::string>{"salvage", "--dry-run"},
                                             {"verify"},
                                             {"info"},
                                             {"predict"},
                                             {"show", "--seq", "0"}}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], log.bytes.data(), log.bytes.size()),
                  static_cast<ssize_t>(log.bytes.size()));
        close(ends[1]);
        command.insert(command.begin(), "file");
        command.push_back("/dev/fd/" + std::to_string(ends[0]));
        Said said = test::run(command);
        EXPECT_LE(said.status, 1) << command[1] << said.errors; // it is short
        EXPECT_NE(said.output, "");
        close(ends[0]);
    }
}

TEST_F(FileSalvage, LikeAllWhoReadALogOfADirectoryItIsTheLog) {
    write("kelta_eventlog", damagedLog());
    for (const char* command : {"verify", "info", "map"}) {
        Said said = test::run({"file", command, directory_.path()});
        EXPECT_EQ(said.status, 1) << command << said.errors;
        EXPECT_NE(said.output, "");
    }
    std::filesystem::remove(directory_.file("kelta_eventlog"));
    EXPECT_EQ(test::run({"file", "verify", directory_.path()}).errors,
              "evctl: " + directory_.file("kelta_eventlog") + ": No such file or directory\n");
}

TEST_F(FileSalvage, PredictKnowsThatALogThatIsNotThereIsANewOne) {
    Said said = test::run({"file", "predict", directory_.file("kelta_eventlog")});
    EXPECT_EQ(said.status, 0);
    EXPECT_THAT(said.output, testing::StartsWith("there is no such file yet\nfresh: "));
    EXPECT_EQ(test::run({"file", "predict", directory_.path()}).output, said.output)
        << "a directory stands for the log in it";
    EXPECT_EQ(test::run({"file", "predict", directory_.file("no/kelta_eventlog")}).status, 2);
    for (const std::string& mistyped : {directory_.file("kelta_eventlgo"), std::string("blade:")}) {
        said = test::run({"file", "predict", mistyped});
        EXPECT_EQ(said.status, 2);
        EXPECT_EQ(said.output, "");
        EXPECT_EQ(said.errors, "evctl: " + mistyped + ": No such file or directory\n");
    }
    ASSERT_EQ(symlink("nowhere", directory_.file("link").c_str()), 0);
    EXPECT_EQ(test::run({"file", "predict", directory_.file("link")}).status, 2);
}

TEST_F(FileSalvage, PredictTellsLossesFromALogThatNoStartCanWorkWith) {
    test::LogImage sound;
    sound.firstEntry();
    sound.events(1, 10);
    sound.dummy();
    sound.zerosTo();
    auto predicted = [this](const test::LogImage& log) {
        return test::run({"file", "predict", write("predicted", log.bytes)});
    };
    EXPECT_EQ(predicted(sound).status, 0);
    test::LogImage rebuilt = sound;
    rebuilt.damage(500);
    rebuilt.damage(1300);
    Said said = predicted(rebuilt);
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("9 readable events are set aside in the debugging copy"));
    test::LogImage later = sound;
    later.damage(0);
    said = predicted(later);
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("at event 399 after the start, if each has 3848 bytes"));
    test::LogImage fatal = sound;
    fatal.damage(1100);
    EXPECT_EQ(predicted(fatal).status, 2);
}

TEST_F(FileSalvage, WhatIsNoLogIsRefused) {
    Said said = run({write("text", "hello\n"), "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("no event log"));
    EXPECT_EQ(run({directory_.file("missing"), "--dry-run"}).status, 2);
}
