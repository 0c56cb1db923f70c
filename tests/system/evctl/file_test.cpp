/** evctl file on real files: what it says, and that it leaves them as they are. */
#include "../../unit/evlog/log_image.h"

#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Newest 1000 and 1001, a gap of 77 bytes, oldest 500 to 502, the bottom dummy. */
test::LogImage wrappedLog() {
    test::LogImage log;
    log.events(1000, 2);
    log.raw(std::string(77, 'g'));
    log.events(500, 3);
    log.dummy();
    log.zerosTo();
    return log;
}

struct Outcome {
    support::Ending ending;
    std::string output;
    std::string errors;
};

class File : public testing::Test {
  protected:
    Outcome run(const std::string& command, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"file", command, path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        support::Process evctl(support::commandOf("evctl", arguments), directory_.file("evctl"));
        support::Ending ending = evctl.wait();
        return {ending, evctl.output(), evctl.errorOutput()};
    }
    std::string path() const { return directory_.file("kelta_eventlog"); }
    void write(const test::LogImage& log) { support::writeFile(path(), log.bytes); }

    support::TempDirectory directory_;
};

std::string line(const char* id) {
    return "      " + std::string(id) +
           "  2006-11-21T14:00:00Z  warning      startup          disk           "
           "300                   " +
           std::string(40, 'e') + "\n";
}

/** All that tells of a change to a file, its access time left out. */
std::vector<long> traces(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return {static_cast<long>(status.st_ino),         static_cast<long>(status.st_mode),
            static_cast<long>(status.st_nlink),       static_cast<long>(status.st_size),
            static_cast<long>(status.st_mtim.tv_sec), static_cast<long>(status.st_mtim.tv_nsec),
            static_cast<long>(status.st_ctim.tv_sec), static_cast<long>(status.st_ctim.tv_nsec),
            static_cast<long>(status.st_uid)};
}

} // namespace

TEST_F(File, ListIsOldestFirst) {
    write(wrappedLog());
    Outcome outcome = run("list");
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_EQ(outcome.output,
              line(" 500") + line(" 501") + line(" 502") + line("1000") + line("1001"));
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(File, LogOfAfter2038IsReadOnEveryHost) {
    write(wrappedLog());
    ASSERT_EQ(std::system(("touch -d @4000000000 " + path()).c_str()), 0);
    const Outcome outcome = run("info");
    EXPECT_EQ(outcome.ending, support::exitedWith(0)) << outcome.errors;
}

TEST_F(File, ListInFileOrderAndFiltered) {
    write(wrappedLog());
    EXPECT_EQ(run("list", {"--file-order", "--seq", "502:1000"}).output,
              line("1000") + line(" 502"));
    EXPECT_EQ(run("list", {"--type", "error"}).output, "");
    EXPECT_EQ(run("list", {"--source", "18", "--id", "300", "--seq", "501"}).output, line(" 501"));
}

TEST_F(File, ListSaysThatTheFileIsDamaged) {
    test::LogImage log = wrappedLog();
    log.damage(700);
    write(log);
    Outcome outcome = run("list");
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_EQ(outcome.errors, "evctl: the file is damaged; see 'evctl file verify'\n");
    EXPECT_EQ(outcome.output, line(" 500") + line(" 502") + line("1000") + line("1001"));
}

TEST_F(File, ListAsJson) {
    write(wrappedLog());
    std::string data;
    for (int count = 0; count < 40; count++) {
        data += "65";
    }
    EXPECT_EQ(run("list", {"--json", "--seq", "500"}).output,
              R"({"offset":477,"part":"oldest","taken":true,"sequenceId":500,"instanceNumber":7,)"
              R"("time":"2006-11-21T14:00:00Z","seconds":1164117600,"type":2,"typeName":"warning",)"
              R"("source":18,"sourceName":"startup","category":4,"categoryName":"disk","id":300,)"
              R"("idName":null,"idVersion":1,"enclosureId":"CHASSIS-1","bladeId":"BLADE-A",)"
              R"("slotId":2,"length":40,"data":")" +
                  data + R"(","text":")" + std::string(40, 'e') + "\"}\n");
}

TEST_F(File, ShowHasAllFieldsAndTheData) {
    test::LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    write(log);
    Outcome outcome = run("show", {"--seq", "0"});
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    std::string crc = log.bytes.substr(4, 4);
    char checksum[16];
    snprintf(checksum, sizeof(checksum), "0x%X",
             static_cast<unsigned>(static_cast<uint8_t>(crc[0])) << 24 |
                 static_cast<unsigned>(static_cast<uint8_t>(crc[1])) << 16 |
                 static_cast<unsigned>(static_cast<uint8_t>(crc[2])) << 8 |
                 static_cast<unsigned>(static_cast<uint8_t>(crc[3])));
    EXPECT_EQ(
        outcome.output,
        "offset       0\n"
        "part         newest\n"
        "version      1\n"
        "checksum     " +
            std::string(checksum) +
            "\n"
            "sequence id  0\n"
            "instance     7\n"
            "time         2006-11-21T14:00:00Z\n"
            "type         information(1)\n"
            "source       eventlog(27)\n"
            "category     management(2)\n"
            "id           first(2)\n"
            "id version   1\n"
            "enclosure    CHASSIS-1\n"
            "blade        BLADE-A\n"
            "slot         2\n"
            "length       40\n"
            "text         a new log begins, of enclosure CHASSIS-1\n"
            "  enclosure  CHASSIS-1\n"
            "advice       Expected on a new blade, in another slot, and after the log was deleted "
            "or rebuilt.\n"
            "0000  43 48 41 53 53 49 53 2d 31 00 00 00 00 00 00 00  |CHASSIS-1.......|\n"
            "0010  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  |................|\n"
            "0020  00 00 00 00 00 00 00 00                          |........|\n");
}

TEST_F(File, ShowByOffsetReachesTheDummy) {
    write(wrappedLog());
    Outcome outcome = run("show", {"--offset", "1077", "--json"});
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_EQ(outcome.output.find(R"({"offset":1077,"part":"dummy","taken":false,)"), 0U);
}

TEST_F(File, ShowOfNoRecordIsAFinding) {
    write(wrappedLog());
    Outcome outcome = run("show", {"--seq", "503"});
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_EQ(outcome.errors.find("evctl: " + path() +
                                  ": no record with sequence id 503; there are ids "),
              0U)
        << outcome.errors;
    EXPECT_EQ(run("show", {"--seq", "0"}).ending, support::exitedWith(1));
}

TEST_F(File, VerifyOfASoundFileSaysNothing) {
    write(wrappedLog());
    Outcome outcome = run("verify");
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    EXPECT_EQ(outcome.output + outcome.errors, "");
}

TEST_F(File, VerifySaysOffsetBytesAndReason) {
    test::LogImage log = wrappedLog();
    log.damage(700);
    log.bytes.resize(2000);
    write(log);
    Outcome outcome = run("verify");
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_EQ(outcome.output, "offset 677, 200 bytes: checksum does not match\n"
                              "offset 2000, 1598000 bytes: file ends before 1600000 bytes\n");
    EXPECT_EQ(run("verify", {"--json"}).output,
              R"({"offset":677,"bytes":200,"reason":"checksum does not match"})"
              "\n"
              R"({"offset":2000,"bytes":1598000,"reason":"file ends before 1600000 bytes"})"
              "\n");
}

TEST_F(File, InfoAsJson) {
    write(wrappedLog());
    Outcome outcome = run("info", {"--json"});
    EXPECT_EQ(outcome.ending, support::exitedWith(0));
    auto part = [](const char* records, const char* first, const char* last) {
        return std::string(R"({"records":)") + records + R"(,"firstSequenceId":)" + first +
               R"(,"lastSequenceId":)" + last +
               R"(,"firstTime":"2006-11-21T14:00:00Z","lastTime":"2006-11-21T14:00:00Z"})";
    };
    EXPECT_EQ(outcome.output,
              R"({"file":")" + path() +
                  R"(","bytes":1600000,"verdict":"wrapped",)"
                  R"("meaning":"a log that has gone round its end","findings":0,"oldest":)" +
                  part("3", "500", "502") + R"(,"newest":)" + part("2", "1000", "1001") +
                  R"(,"types":{"warning":5},"sources":{"startup":5},)"
                  R"("start":{"empWrite":400,"empStart":477,"empStartSequenceId":500,)"
                  R"("empSequenceId":1002,"empInstanceNumber":7,"empEventInLogFile":5,)"
                  R"("empWrapOver":true,"foundGap":true}})"
                  "\n");
}

TEST_F(File, InfoJudgesTheIdentityThatItIsGiven) {
    write(wrappedLog());
    EXPECT_NE(run("info", {"--enclosure", "CHASSIS-1", "--slot", "3"})
                  .output.find("\nverdict               foreign\n"),
              std::string::npos);
    EXPECT_NE(run("info", {"--enclosure", "CHASSIS-1", "--slot", "2"})
                  .output.find("\nverdict               wrapped\n"),
              std::string::npos);
}

TEST_F(File, InfoOfAFileOfZeros) {
    test::LogImage log;
    log.zerosTo();
    write(log);
    Outcome outcome = run("info");
    EXPECT_EQ(outcome.ending, support::exitedWith(1));
    EXPECT_NE(outcome.output.find("\nverdict               fresh\n"), std::string::npos);
    EXPECT_NE(outcome.output.find("\n  records             0\n"), std::string::npos);
}

TEST_F(File, DamageIsAFindingInEveryReader) {
    test::LogImage log = wrappedLog();
    log.damage(700);
    write(log);
    for (const char* command : {"list", "verify", "info", "crash"}) {
        EXPECT_EQ(run(command).ending, support::exitedWith(1)) << command;
    }
    EXPECT_EQ(run("show", {"--seq", "500"}).ending, support::exitedWith(1));
}

TEST_F(File, NoEventLogIsRefusedWithAGuess) {
    for (auto [bytes, guess] : std::vector<std::pair<std::string, std::string>>{
             {"", "empty"},
             {"hello\n", "text"},
             {"{\"a\":1}", "JSON"},
             {std::string(5000, '\0'), "nothing but zeros"},
             {std::string("SQLite format 3\0", 16), "an SQLite database"},
             {"\x1F\x8B\x08", "compressed with gzip"},
             {"\x7F"
              "ELF",
              "a program"},
             {"\x01\x02\xFF", "data of an unknown kind"}}) {
        support::writeFile(path(), bytes);
        // All readers share the guess: two tell it of each kind, the others of text and gzip.
        std::vector<std::string> commands = {"list", "crash"};
        if (guess == "text" || guess.ends_with("gzip")) {
            commands.insert(commands.end(), {"verify", "info"});
        }
        for (const std::string& command : commands) {
            Outcome outcome = run(command);
            EXPECT_EQ(outcome.ending, support::exitedWith(2)) << guess;
            if (guess.ends_with("gzip") || (command == "list" && guess == "an SQLite database")) {
                EXPECT_EQ(outcome.errors.find("evctl: " + path() + ": "), 0U) << outcome.errors;
                continue; // which it tries to read, except on the board
            }
            EXPECT_EQ(outcome.errors.find("evctl: " + path() + ": no event log; it is " + guess),
                      0U)
                << outcome.errors;
        }
    }
}

TEST_F(File, OutputThatCannotBeWrittenIsNotDone) {
    write(wrappedLog());
    const std::string cursor = directory_.file("cursor");
    std::string command;
    for (const std::string& word :
         support::commandOf("evctl", {"file", "list", path(), "--cursor-file", cursor})) {
        command += "'" + word + "' ";
    }
    support::Process shell({"sh", "-c", command + "> /dev/full"}, directory_.file("sh"));
    EXPECT_EQ(shell.wait(), support::exitedWith(2));
    EXPECT_EQ(shell.errorOutput(), "evctl: cannot write standard output\n");
    EXPECT_NE(access(cursor.c_str(), F_OK), 0); // the events come again
}

TEST_F(File, NothingChangesTheFile) {
    test::LogImage log = wrappedLog();
    log.damage(700);
    write(log);
    ASSERT_EQ(chmod(path().c_str(), 0400), 0);
    std::vector<long> before = traces(path());
    for (const char* command : {"list", "verify", "info"}) {
        run(command);
        run(command, {"--json"});
    }
    run("show", {"--seq", "500"});
    EXPECT_EQ(traces(path()), before);
    EXPECT_EQ(support::readFile(path()), log.bytes);
}

TEST_F(File, TextColumnIsOfTheCatalogueElseTextElseDigits) {
    test::LogImage log;
    log.firstEntry();
    log.raw(test::record({.id = 1}, std::string("drive \xC3\xBC\0", 9)));
    log.raw(test::record({.id = 2}, std::string("\x1B[2J", 4)));
    log.raw(test::record({.id = 3}, std::string(40, '\xFF')));
    log.raw(test::record({.id = 4, .source = 27, .eventId = 11},
                         std::string(64, 'f') + "empInit" + std::string(57, '\0') +
                             test::bigEndian(258, 4) + "It failed!" + std::string(54, '\0')));
    log.dummy();
    log.zerosTo();
    write(log);
    std::vector<std::string> texts;
    std::istringstream lines(run("list").output);
    for (std::string each; std::getline(lines, each);) {
        texts.push_back(each.substr(101));
    }
    std::string digits;
    for (int count = 0; count < 32; count++) {
        digits += "ff";
    }
    EXPECT_EQ(texts,
              (std::vector<std::string>{"a new log begins, of enclosure CHASSIS-1",
                                        "drive \xC3\xBC", "1b5b324a", digits + "... (40 bytes)",
                                        "  bug-check: It failed! (empInit, line 258)"}));
}

TEST_F(File, AdviceStandsBelowTheEvent) {
    test::LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    write(log);
    EXPECT_NE(run("list", {"-x"}).output.find("CHASSIS-1\n            -- Expected on a new blade"),
              std::string::npos);
    EXPECT_NE(run("list", {"-x", "--json"}).output.find(R"("advice":"Expected on a new blade)"),
              std::string::npos);
    EXPECT_EQ(run("list", {"--json"}).output.find("advice"), std::string::npos);
}

TEST_F(File, CatalogueOfTheEnvironmentIsUsed) {
    support::writeFile(directory_.file("own.json"),
                       R"({"source":"startup","events":[{"id":300,"text":"own {n}",
                           "fields":[{"name":"n","offset":0,"width":1}]}]})");
    write(wrappedLog());
    support::Process evctl(support::commandOf("evctl", {"file", "list", path(), "--seq", "500"}),
                           directory_.file("evctl"),
                           {{"EVENT_MANAGER_CATALOG", directory_.path()}});
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.output().substr(101), "own 101\n");
}

TEST_F(File, CatalogueThatIsNotInstalledIsSaid) {
    const std::string alone = directory_.makeDirectory("bin") + "/evctl";
    std::filesystem::copy_file(support::program("evctl"), alone);
    std::vector<std::string> command = support::commandOf("evctl", {"catalog", "check"});
    std::ranges::replace(command, support::program("evctl"), alone);
    support::Process evctl(command, directory_.file("evctl"), {{"EVENT_MANAGER_CATALOG", ""}});
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_EQ(evctl.output(),
              directory_.file("share/event-manager/catalog.d") + ": No such file or directory\n");
}

TEST_F(File, PredictSaysWhatTheNextStartDoes) {
    write(wrappedLog());
    Outcome sound = run("predict");
    EXPECT_EQ(sound.ending, support::exitedWith(0)) << sound.output;
    EXPECT_EQ(sound.output,
              "wrapped: a log that has gone round its end\n"
              "5 events are taken; the next one gets sequence id 1002 of instance 7\n");
    Outcome foreign = run("predict", {"--enclosure", "CHASSIS-1", "--slot", "3"});
    EXPECT_EQ(foreign.ending, support::exitedWith(1));
    EXPECT_NE(foreign.output.find("\n5 readable events are cleared\n"), std::string::npos)
        << foreign.output;
}

TEST_F(File, PredictSaysThatOfDamageNothingIsTaken) {
    test::LogImage log = wrappedLog();
    log.bytes[10] ^= 1;
    write(log);
    EXPECT_NE(run("predict").output.find("\n1 damaged place, of which nothing can be taken: "
                                         "'evctl file verify' names what is wrong\n"),
              std::string::npos)
        << run("predict").output;
}

TEST_F(File, PredictOfAFileThatTheEventManagerDoesNotComeUpWith) {
    test::LogImage log;
    log.firstEntry();
    log.events(1, 3);
    log.raw(std::string(77, 'x'));
    log.events(4, 3);
    log.dummy();
    log.zerosTo();
    write(log);
    Outcome outcome = run("predict", {"--json"});
    EXPECT_EQ(outcome.ending, support::exitedWith(2));
    EXPECT_NE(outcome.output.find(R"("verdict":"continuous-with-gap",)"), std::string::npos);
    EXPECT_NE(outcome.output.find(R"("fatal":true,)"), std::string::npos);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_NE(
        outcome.output.find(
            R"("taken":null,"lost":null,"damaged":1,"nextSequenceId":null,"bugcheck":{"message":)"
            R"("Continuous SequenceId with Gap? Bug somewhere!","at":"start",)"
            R"("eventsBefore":null,"dataLength":null,"forGood":true}})"),
        std::string::npos)
        << outcome.output;
    const std::string lines = run("predict").output;
    EXPECT_NE(lines.find("\nbug-check \"Continuous SequenceId with Gap? Bug somewhere!\"\n"
                         "it does not come up, at any start, until the file is replaced (offset "),
              std::string::npos);
    EXPECT_NE(lines.find("\n'evctl file guard' sets it aside, "), std::string::npos) << lines;
}

TEST_F(File, LastEventsAndReverseOrder) {
    write(wrappedLog());
    EXPECT_EQ(run("list", {"-n", "2"}).output, line("1000") + line("1001"));
    EXPECT_EQ(run("list", {"-n", "2", "-r"}).output, line("1001") + line("1000"));
    EXPECT_EQ(run("list", {"-n", "1", "--seq", ":502"}).output, line(" 502"));
    EXPECT_EQ(run("list", {"-n", "99", "--seq", "500"}).output, line(" 500"));
}

TEST_F(File, TimesAndTextAreFiltered) {
    test::LogImage log;
    log.firstEntry();
    for (uint32_t id = 1; id <= 3; id++) {
        log.raw(test::record({.id = id, .time = 1'000'000 * id}, "drive " + std::to_string(id)));
    }
    log.dummy();
    log.zerosTo();
    write(log);
    auto ids = [this](const std::vector<std::string>& options) {
        std::string found;
        std::istringstream lines(run("list", options).output);
        for (std::string each; std::getline(lines, each);) {
            found += each.substr(9, 1);
        }
        return found;
    };
    EXPECT_EQ(ids({"--since", "@2000000"}), "023"); // the first entry is of 2006
    EXPECT_EQ(ids({"--until", "@2000000"}), "12");
    EXPECT_EQ(ids({"--since", "@1000001", "--until", "@2000000"}), "2");
    EXPECT_EQ(ids({"--grep", "^drive [13]$"}), "13");
    EXPECT_EQ(ids({"-g", "CHASSIS"}), "0");
    EXPECT_EQ(ids({"-g", "nothing"}), "");
}
