/** What all readers share, tried with files. */
#include "../run.h"

#include "../../evlog/log_image.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <numeric>
#include <random>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using test::run;
using test::Said;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

class Listings : public testing::Test {
  protected:
    Listings() { unsetenv("NO_COLOR"); }

    /** A log of one event every 100 seconds. @return its path */
    std::string put(const std::string& name, uint32_t firstId, uint32_t count, uint32_t firstTime,
                    const test::RecordFields& fields = {}) {
        test::LogImage log;
        for (uint32_t at = 0; at < count; at++) {
            test::RecordFields event = fields;
            event.id = firstId + at;
            event.time = firstTime + 100 * at;
            log.raw(test::record(event, "event " + std::to_string(event.id)));
        }
        log.dummy();
        log.zerosTo();
        return putBytes(name, log.bytes);
    }
    std::string putBytes(const std::string& name, const std::string& bytes) {
        support::writeFile(directory_.file(name), bytes);
        return directory_.file(name);
    }

    Said list(const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"file", "list"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run(all);
    }
    /** The ids that are listed. */
    std::string ids(const std::vector<std::string>& arguments) {
        std::string found;
        for (const std::string& line : linesOf(list(arguments).output)) {
            found += (found.empty() ? "" : " ") + std::to_string(std::stoul(line));
        }
        return found;
    }
    /** The cursor at the end of a listing. */
    std::string cursorOf(std::vector<std::string> arguments) {
        arguments.emplace_back("--show-cursor");
        std::string last = linesOf(list(arguments).output).back();
        EXPECT_EQ(last.find("-- cursor: "), 0U);
        return last.substr(11);
    }

    support::TempDirectory directory_;
};

} // namespace

TEST_F(Listings, SeveralFilesAreMergedByTimeWithTheBladesNames) {
    std::string one = put("one", 1, 2, 1000);
    std::string two = put("two", 8, 2, 1050, {.slot = 3});
    EXPECT_EQ(ids({one, two}), "1 8 2 9");
    EXPECT_THAT(list({one, two}).output, HasSubstr("1970-01-01T00:16:40Z  BLADE-A       warning"));
    EXPECT_THAT(list({one}).output, HasSubstr("1970-01-01T00:16:40Z  warning"));
    EXPECT_EQ(ids({one, two, "--slot", "3"}), "8 9");
    EXPECT_EQ(ids({one, two, "-n", "3", "-r"}), "9 2 8");
    EXPECT_THAT(list({one, two, "--json"}).output, HasSubstr("{\"from\":\"" + two + "\","));
}

TEST_F(Listings, OneFileThatCannotBeReadDoesNotHideTheOthers) {
    std::string one = put("one", 1, 2, 1000);
    std::string empty = putBytes("empty", "");
    std::string missing = directory_.file("missing");
    Said said = list({empty, one, missing, "--json"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("{\"from\":\"" + one + "\",")); // as if all were there
    EXPECT_EQ(linesOf(said.output).size(), 2U);
    EXPECT_EQ(said.errors, "evctl: " + empty + ": no event log; it is empty\nevctl: " + missing +
                               ": No such file or directory\n");
    Said none = list({empty, missing, "-o", "csv"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.output, "");
    EXPECT_EQ(none.errors, said.errors);
}

TEST_F(Listings, AnEventOfSeveralFilesIsListedOnce) {
    std::string one = put("one", 1, 3, 1000);
    std::string longer = put("longer", 1, 5, 1000);
    EXPECT_EQ(ids({one, longer}), "1 2 3 4 5");
    EXPECT_EQ(ids({one, longer, "--around", "3", "-n", "1"}), "2 3 4");
    std::string cursor = directory_.file("cursor");
    EXPECT_EQ(ids({one, longer, "--cursor-file", cursor}), "1 2 3 4 5");
    EXPECT_EQ(ids({one, longer, "--cursor-file", cursor}), "");
}

TEST_F(Listings, TheFirstOnesEndTheReading) {
    std::string path = put("log", 1, 9, 1000);
    EXPECT_EQ(ids({path, "-n", "+2"}), "1 2");
    EXPECT_EQ(ids({path, "-n", "+2", "-r", "--seq", "4:"}), "5 4");
    std::string cursor = cursorOf({path, "-n", "+2"});
    EXPECT_EQ(ids({path, "--after-cursor", cursor, "-n", "+3"}), "3 4 5");
    EXPECT_EQ(list({path, "-n", "+"}).status, 2);
    EXPECT_EQ(list({path, "-n", "0"}).status, 2);
    EXPECT_EQ(ids({path, "-n", "3", "-n", "1"}), "9"); // the later one holds
}

TEST_F(Listings, TextsAreFoundWhateverTheirCaseIfWished) {
    std::string path = put("log", 1, 3, 1000);
    EXPECT_EQ(ids({path, "-g", "EVENT [12]"}), "");
    EXPECT_EQ(ids({path, "-g", "EVENT [12]", "-i"}), "1 2");
    EXPECT_EQ(ids({path, "-i", "-g", "EVENT 3"}), "3");
}

TEST_F(Listings, AroundAnEventAreItsNeighbours) {
    std::string path = put("log", 1, 40, 1000);
    EXPECT_EQ(ids({path, "--around", "20", "-n", "2"}), "18 19 20 21 22");
    EXPECT_EQ(ids({path, "--around", "20", "-n", "1", "-r"}), "21 20 19");
    EXPECT_EQ(ids({path, "--around", "1", "-n", "1"}), "1 2");
    EXPECT_EQ(ids({path, "--around", "40", "-n", "1"}), "39 40");
    EXPECT_EQ(linesOf(list({path, "--around", "20"}).output).size(), 21U);
    EXPECT_EQ(ids({path, "--around", "20", "-n", "2", "--seq", "1:10"}), "9 10 20");
    const Said first = list({path, "--around", "20", "-n", "+2"});
    EXPECT_EQ(first.status, 2);
    EXPECT_EQ(first.errors, "evctl: -n: with --around it says how many on each side: no '+'\n");
}

TEST_F(Listings, AroundOverlappingNeighboursEachIsListedOnce) {
    std::string one = put("one", 1, 3, 1000);
    std::string two = put("two", 1, 3, 1050, {.slot = 3});
    EXPECT_EQ(ids({one, two, "--around", "2", "-n", "2"}), "1 1 2 2 3 3");
}

TEST_F(Listings, AroundTheNewestBugCheck) {
    test::LogImage log;
    log.events(1, 5);
    log.raw(test::record({.id = 6, .source = 27, .eventId = 11}, "old"));
    log.events(7, 5);
    log.raw(test::record({.id = 12, .source = 27, .eventId = 11}, "new"));
    log.events(13, 5);
    log.dummy();
    log.zerosTo();
    EXPECT_EQ(ids({putBytes("log", log.bytes), "--around", "crash", "-n", "1"}), "11 12 13");
}

TEST_F(Listings, AroundABugCheckAreTheEventsBeforeAndBehindAllOfIt) {
    test::LogImage log;
    log.events(1, 5);
    std::vector<uint16_t> parts(24);
    std::iota(parts.begin(), parts.end(), uint16_t{11});
    std::shuffle(parts.begin(), parts.end(), std::mt19937(7));
    uint32_t id = 6;
    for (uint16_t part : parts) {
        log.raw(test::record({.id = id++, .source = 27, .eventId = part}, "part"));
    }
    log.events(30, 5);
    log.dummy();
    log.zerosTo();
    uint32_t message = 6 + static_cast<uint32_t>(std::ranges::find(parts, 11) - parts.begin());
    EXPECT_EQ(ids({putBytes("log", log.bytes), "--around", "crash", "-n", "2"}),
              "4 5 " + std::to_string(message) + " 30 31");
}

TEST_F(Listings, ABugCheckIsCompletedAndItsRowIsTheAdvice) {
    auto text = [](const std::string& field) { return test::text64(field.substr(0, 64)); };
    std::string message =
        "Bad Event Source [40] in the Corrupted Event Log File! Please Delete the File.";
    test::LogImage log;
    log.raw(test::record({.id = 1, .source = 27, .eventId = 11},
                         text("f.c") + text("empProcessEventLogFile") +
                             std::string("\0\0\0\x07", 4) + text(message)));
    log.dummy();
    log.zerosTo();
    Lines lines = linesOf(list({putBytes("log", log.bytes), "-x"}).output);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], HasSubstr("bug-check: " + message + " (empProcessEventLogFile, line 7)"));
    EXPECT_THAT(lines[1], HasSubstr("; what to do: "));
    EXPECT_EQ(lines[1].find("            -- "), 0U);
}

TEST_F(Listings, AroundNothingIsAFinding) {
    std::string path = put("log", 1, 3, 1000);
    Said said = list({path, "--around", "crash"});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.output, "");
    EXPECT_EQ(said.errors, "evctl: no bug-check\n");
    EXPECT_EQ(list({path, "--around", "7"}).errors, "evctl: no event 7\n");
    EXPECT_EQ(list({path, "--around", "soon"}).status, 2);
}

TEST_F(Listings, CursorGoesOnWhereTheLastListingEnded) {
    std::string path = put("log", 1, 3, 1000);
    std::string cursor = cursorOf({path, "-n", "1"});
    put("log", 1, 5, 1000);
    EXPECT_EQ(ids({path, "--after-cursor", cursor}), "4 5");
    EXPECT_EQ(ids({path, "--cursor", cursor}), "3 4 5");
    EXPECT_EQ(cursorOf({path, "--after-cursor", cursor, "--type", "error"}), cursorOf({path}));
    EXPECT_EQ(list({path, "--after-cursor", "3"}).status, 2);
    EXPECT_EQ(list({path, "--after-cursor", cursor, "--cursor", cursor}).status, 2);
}

TEST_F(Listings, CursorStandsBesideFormsThatHoldOnlyEvents) {
    std::string path = put("log", 1, 3, 1000);
    for (const char* form : {"csv", "syslog"}) {
        Said said = list({path, "-o", form, "--show-cursor"});
        EXPECT_EQ(said.output, list({path, "-o", form}).output);
        EXPECT_EQ(said.errors, "-- cursor: " + cursorOf({path}) + "\n");
    }
}

TEST_F(Listings, WithoutATerminalThereIsNoPager) {
    std::string path = put("log", 1, 3, 1000);
    setenv("EVCTL_PAGER", "sed s/^/P:/", 1);
    EXPECT_EQ(ids({path}), "1 2 3");
}

TEST_F(Listings, CursorThatIsNotInTheLogIsSaidAndNothingIsPassedOver) {
    std::string cursor = cursorOf({put("log", 1, 3, 5000)});
    std::string rebuilt = put("log", 0, 2, 1000); // its clock was set back
    Said said = list({rebuilt, "--after-cursor", cursor});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(linesOf(said.output).size(), 2U);
    EXPECT_EQ(said.errors,
              "evctl: " + rebuilt +
                  ": event 3 of instance 7, where the cursor stands, is not there; all "
                  "of its log is shown\n");
    EXPECT_EQ(list({rebuilt, "--after-cursor", cursorOf({rebuilt})}).errors, "");
}

TEST_F(Listings, NumbersOfWhatCameSinceTheCursor) {
    std::string path = put("log", 1, 3, 1000);
    std::string file = directory_.file("cursor");
    EXPECT_THAT(run({"stats", path, "--json", "--cursor-file", file}).output,
                HasSubstr("{\"events\":3,"));
    put("log", 1, 5, 1000);
    Said said = run({"stats", path, "--json", "--cursor-file", file, "--show-cursor"});
    EXPECT_THAT(said.output, HasSubstr("{\"events\":2,"));
    EXPECT_THAT(said.output, HasSubstr("\n{\"cursor\":\"c1:"));
    EXPECT_THAT(run({"stats", path, "--json", "--cursor-file", file}).output,
                HasSubstr("{\"events\":0,"));
    std::string cursor = cursorOf({path, "-n", "+4"});
    said = run({"stats", path, "--after-cursor", cursor, "-o", "svg", "--show-cursor"});
    EXPECT_THAT(said.output, testing::EndsWith("</svg>\n"));
    EXPECT_EQ(said.errors, "-- cursor: " + cursorOf({path}) + "\n");
    // It is not the whole log that was counted.
    EXPECT_THAT(run({"stats", path}).output, HasSubstr(" full"));
    EXPECT_THAT(run({"stats", path, "--after-cursor", cursor}).output,
                testing::Not(HasSubstr(" full")));
}

TEST_F(Listings, CursorFileIsReadAndLeft) {
    std::string path = put("log", 1, 3, 1000);
    std::string file = directory_.file("cursor");
    EXPECT_EQ(ids({path, "--cursor-file", file}), "1 2 3");
    EXPECT_EQ(ids({path, "--cursor-file", file}), "");
    put("log", 1, 4, 1000);
    EXPECT_EQ(ids({path, "--cursor-file", file}), "4");
    support::writeFile(file, "nonsense\n");
    EXPECT_EQ(list({path, "--cursor-file", file}).status, 2);
    EXPECT_EQ(support::readFile(file), "nonsense\n");
}

TEST_F(Listings, CursorFileThatIsEmptyHoldsNoneYet) {
    std::string path = put("log", 1, 3, 1000);
    std::string file = putBytes("cursor", "");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    EXPECT_EQ(ids({path, "--cursor-file", file}), "1 2 3");
    EXPECT_EQ(ids({path, "--cursor-file", file}), "");
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST_F(Listings, CursorFileThatIsALinkStaysOne) {
    std::string path = put("log", 1, 3, 1000);
    std::string link = directory_.file("cursor");
    directory_.makeDirectory("elsewhere");
    std::string target = putBytes("elsewhere/kept", "");
    ASSERT_EQ(symlink("elsewhere/kept", link.c_str()), 0);
    EXPECT_EQ(ids({path, "--cursor-file", link}), "1 2 3");
    EXPECT_EQ(ids({path, "--cursor-file", link}), "");
    EXPECT_EQ(support::readFile(target).substr(0, 3), "c1:");
    struct stat status {};
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    ASSERT_EQ(unlink(target.c_str()), 0);
    Said said = list({path, "--cursor-file", link});
    EXPECT_EQ(said.status, 2);
    EXPECT_EQ(said.output, "");
    EXPECT_THAT(said.errors, HasSubstr("cursor: a link that leads nowhere\n"));
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_EQ(symlink("cursor", link.c_str()), 0);
    EXPECT_EQ(list({path, "--cursor-file", link}).status, 2) << "a link to itself";
}

TEST_F(Listings, WhatIsNoRegularFileIsNeitherReadForACursorNorReplaced) {
    std::string path = put("log", 1, 3, 1000);
    std::string fifo = directory_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string toNull = directory_.file("null"); // replaced itself, it would do no harm
    ASSERT_EQ(symlink("/dev/null", toNull.c_str()), 0);
    std::string toZero = directory_.file("zero");
    ASSERT_EQ(symlink("/dev/zero", toZero.c_str()), 0);
    for (const std::string& file : {fifo, toNull, toZero, directory_.makeDirectory("directory")}) {
        struct stat before {};
        ASSERT_EQ(lstat(file.c_str(), &before), 0);
        Said said = list({path, "--cursor-file", file});
        EXPECT_EQ(said.status, 2) << file;
        EXPECT_EQ(said.output, "") << file;
        EXPECT_THAT(said.errors, HasSubstr(file + ": not a regular file")) << file;
        struct stat after {};
        ASSERT_EQ(lstat(file.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino) << file;
    }
}

TEST_F(Listings, CursorFileWithoutALineEndIsReadInPart) {
    std::string path = put("log", 1, 3, 1000);
    std::string file = putBytes("cursor", std::string(5U << 20U, 'c'));
    Said said = list({path, "--cursor-file", file});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("cursor: too long for a cursor\n"));
    putBytes("cursor", cursorOf({path, "-n", "+2"})); // a whole one, by hand
    EXPECT_EQ(ids({path, "--cursor-file", file}), "3");
}

// Two readers of one cursor must not write into each other's draft, nor through anybody's link.
TEST_F(Listings, CursorFileIsWrittenAsideUnderANameOfItsOwn) {
    std::string path = put("log", 1, 3, 1000);
    std::string file = directory_.file("cursor");
    std::string precious = putBytes("precious", "precious");
    ASSERT_EQ(symlink(precious.c_str(), (file + ".new").c_str()), 0);
    std::string own = file + ".new" + std::to_string(getpid());
    ASSERT_EQ(symlink(precious.c_str(), own.c_str()), 0);
    EXPECT_EQ(ids({path, "--cursor-file", file}), "1 2 3");
    EXPECT_EQ(ids({path, "--cursor-file", file}), "");
    EXPECT_EQ(support::readFile(precious), "precious");
}

TEST_F(Listings, LocalTimesBearTheirOffset) {
    setenv("TZ", "CET-1", 1);
    std::string path = put("log", 1, 2, 1'164'117'600);
    EXPECT_THAT(list({path, "--local"}).output, HasSubstr("1  2006-11-21T15:00:00+01:00  warning"));
    EXPECT_EQ(ids({path, "--local", "--since", "2006-11-21T15:01:40"}), "2");
    EXPECT_EQ(ids({path, "--since", "2006-11-21T14:01:40", "--local"}), "1 2");
    EXPECT_EQ(ids({path, "--since", "2006-11-21T14:01:40"}), "2");
    EXPECT_THAT(list({path, "--local", "--json"}).output, HasSubstr("\"2006-11-21T14:00:00Z\""));
}

TEST_F(Listings, ColoursAreThoseOfTheTypes) {
    std::string path = put("log", 1, 1, 1000);
    EXPECT_THAT(list({path}).output, testing::Not(HasSubstr("\x1B")));
    std::string coloured = list({path, "--color", "always"}).output;
    EXPECT_EQ(coloured.substr(0, 5), "\x1B[33m");
    EXPECT_THAT(coloured, testing::EndsWith("event 1\x1B[0m\n"));
    std::string information = put("log", 1, 1, 1000, {.type = 1});
    EXPECT_THAT(list({information, "--color=always"}).output, testing::Not(HasSubstr("\x1B")));
    EXPECT_EQ(list({path, "--color", "some"}).status, 2);
}

TEST_F(Listings, FullIsALineAField) {
    std::string path = put("log", 1, 2, 1000);
    Lines lines = linesOf(list({path, "-o", "full"}).output);
    ASSERT_EQ(lines.size(), 33U);
    EXPECT_EQ(lines[0], "offset       0");
    EXPECT_EQ(lines[2], "sequence id  1");
    EXPECT_EQ(lines[14], "text         event 1");
    EXPECT_EQ(lines[16], "");
    EXPECT_EQ(lines[19], "sequence id  2");
}

TEST_F(Listings, HexIsHeaderAndData) {
    std::string path = put("log", 1, 1, 1000);
    Lines lines = linesOf(list({path, "-o", "hex"}).output);
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_THAT(lines[1], testing::StartsWith("0000  43 48 41 53 53 49 53 2d 31 00"));
    EXPECT_THAT(lines[10], HasSubstr("0090  00 07 12 02 04 01 01 2c 65 76 65 6e 74 20 31"));
}

TEST_F(Listings, CsvIsQuotedWhereNeeded) {
    test::LogImage log;
    log.raw(test::record({.enclosure = "a,\"b\"", .id = 7, .time = 1000}, "one, two"));
    Lines lines = linesOf(list({putBytes("log", log.bytes), "-o", "csv"}).output);
    EXPECT_THAT(lines, ElementsAre("sequenceId,instanceNumber,time,type,source,category,id,"
                                   "idVersion,enclosureId,bladeId,slotId,length,text,data,from",
                                   "7,7,1970-01-01T00:16:40Z,warning,startup,disk,300,1,"
                                   "\"a,\"\"b\"\"\",BLADE-A,2,8,\"one, two\",6f6e652c2074776f," +
                                       directory_.file("log")));
}

TEST_F(Listings, CsvKeepsBlanksAtTheEndsOfAText) {
    test::LogImage log;
    log.raw(test::record({.id = 1}, " before"));
    log.raw(test::record({.id = 2}, "behind "));
    log.raw(test::record({.id = 3}, "be tween"));
    Lines lines = linesOf(list({putBytes("log", log.bytes), "-o", "csv"}).output);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_THAT(lines[1], HasSubstr(",7,\" before\",20"));
    EXPECT_THAT(lines[2], HasSubstr(",7,\"behind \",62"));
    EXPECT_THAT(lines[3], HasSubstr(",8,be tween,62"));
}

TEST_F(Listings, SyslogHasASeverityForEveryTypeAndWordsOfTheLengthsAllowed) {
    test::LogImage log;
    for (uint8_t type = 0; type < 5; type++) {
        log.raw(test::record({.blade = "", .id = 1U + type, .type = type}, "x"));
    }
    log.raw(test::record({.blade = std::string(64, '\x80'), .id = 6}, "x"));
    Lines lines = linesOf(list({putBytes("log", log.bytes), "-o", "syslog"}).output);
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_THAT(lines[0],
                testing::StartsWith("<133>1 2006-11-21T14:00:00Z CHASSIS-1/2 startup - 300 ["));
    EXPECT_THAT(lines[1], testing::StartsWith("<134>1 "));
    EXPECT_THAT(lines[2], testing::StartsWith("<132>1 "));
    EXPECT_THAT(lines[3], testing::StartsWith("<131>1 "));
    EXPECT_THAT(lines[4], testing::StartsWith("<133>1 "));
    EXPECT_EQ(lines[5].find(" startup "), 28U + 255) << lines[5];
}

TEST_F(Listings, SyslogIsAMessageALine) {
    test::LogImage log;
    log.raw(test::record({.enclosure = "a]\"b", .id = 7, .time = 1000}, "text"));
    EXPECT_EQ(list({putBytes("log", log.bytes), "-o", "syslog"}).output,
              "<132>1 1970-01-01T00:16:40Z BLADE-A startup - 300 [event@32473 seq=\"7\" "
              "instance=\"7\" enclosure=\"a\\]\\\"b\" slot=\"2\" category=\"disk\" "
              "idVersion=\"1\"] text\n");
}

namespace {

/** Fields of a line of comma-separated values; nothing when it is none. */
std::optional<Lines> csvFields(const std::string& line) {
    Lines fields(1);
    bool quoted = false;
    for (size_t at = 0; at < line.size(); at++) {
        char letter = line[at];
        if (letter == '"' && quoted && at + 1 < line.size() && line[at + 1] == '"') {
            fields.back() += line[++at];
        } else if (letter == '"' && (quoted || fields.back().empty())) {
            quoted = !quoted;
        } else if (letter == '"') {
            return std::nullopt;
        } else if (letter == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += letter;
        }
    }
    return quoted ? std::nullopt : std::optional(fields);
}

bool isShown(const std::string& text) {
    return std::ranges::none_of(text, [](char letter) {
        return static_cast<unsigned char>(letter) < 0x20 || letter == 0x7F;
    });
}

/** Events whose every field is by chance, the checksum being right. */
std::string chanceLog(std::mt19937& random, uint32_t count) {
    auto text = [&random](size_t most) {
        std::string bytes(random() % (most + 1), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(
                random() % 3 == 0 ? "\n\r\",]\\\x1B\x9B\xE2\x80\xAE\t "[random() % 13] : random());
        }
        return bytes;
    };
    auto byte = [&random] { return static_cast<uint8_t>(random()); };
    test::LogImage log;
    for (uint32_t id = 1; id <= count; id++) {
        log.raw(test::record({.enclosure = text(64),
                              .slot = static_cast<uint32_t>(random()),
                              .id = id,
                              .time = static_cast<uint32_t>(random()),
                              .source = static_cast<uint8_t>(random() % 35),
                              .type = byte(),
                              .category = byte(),
                              .idVersion = byte(),
                              .eventId = static_cast<uint16_t>(random() % 40 + 30)},
                             text(200)));
    }
    return log.bytes;
}

} // namespace

TEST_F(Listings, WhateverIsInTheEventsEachFormStaysWhole) {
    std::mt19937 random(4711);
    constexpr uint32_t count = 400;
    std::string path = putBytes("log", chanceLog(random, count));
    for (const char* form : {"short", "json", "csv", "syslog"}) {
        Lines lines = linesOf(list({path, "-o", form}).output);
        size_t header = form == std::string("csv") ? 1 : 0;
        ASSERT_EQ(lines.size(), count + header) << form;
        for (const std::string& line : lines) {
            EXPECT_TRUE(isShown(line)) << form << ": " << line;
        }
    }
    for (const std::string& line : linesOf(list({path, "-o", "json"}).output)) {
        EXPECT_TRUE(nlohmann::json::accept(line)) << line;
    }
    for (const std::string& line : linesOf(list({path, "-o", "csv"}).output)) {
        EXPECT_EQ(csvFields(line).value_or(Lines{}).size(), 15U) << line;
    }
    std::regex message("<13[1-4]>1 [-0-9T:Z]{20} [!-~]+ [!-~]+ - [!-~]+ \\[event@32473"
                       "( [a-zA-Z]+=\"([^\"\\\\\\]]|\\\\[\"\\\\\\]])*\")+\\]( .*)?");
    for (const std::string& line : linesOf(list({path, "-o", "syslog"}).output)) {
        EXPECT_TRUE(std::regex_match(line, message)) << line;
    }
    for (const char* form : {"full", "hex"}) {
        for (const std::string& line : linesOf(list({path, "-o", form}).output)) {
            EXPECT_TRUE(isShown(line)) << form << ": " << line;
        }
    }
}

TEST_F(Listings, DamageAtRandomIsAFindingAndNoMore) {
    std::mt19937 random(815);
    const std::string whole = chanceLog(random, 20);
    for (int round = 0; round < 40; round++) {
        std::string bytes = whole;
        for (int count = 0; count < 5; count++) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        Said said = list({putBytes("log", bytes), "--json"});
        EXPECT_EQ(said.status, 1);
        EXPECT_LE(linesOf(said.output).size(), 20U);
    }
}

// A bundle that was unpacked by hand or a pattern may bring any name.
TEST_F(Listings, NamesOfFilesCannotForgeLines) {
    std::string evil = put("a\x1B[31m\nlog", 5, 1, 1000);
    std::string damaged = putBytes("b\x1B", support::readFile(evil) + "garbage");
    for (const std::string form : {"full", "json", "csv", "short"}) {
        Said said = list({evil, damaged, "-o", form});
        EXPECT_EQ(said.output.find('\x1B'), std::string::npos) << form;
        EXPECT_EQ(said.errors.find('\x1B'), std::string::npos) << form;
    }
    EXPECT_THAT(list({evil, damaged, "-o", "full"}).output,
                HasSubstr("from         " + directory_.path() + "/a\\x1B[31m\\x0Alog\n"));
    EXPECT_EQ(list({evil + "\x1B"}).errors,
              "evctl: " + directory_.path() +
                  "/a\\x1B[31m\\x0Alog\\x1B: No such file or directory\n");
    Said shown = run({"file", "show", "--seq", "99", evil});
    EXPECT_EQ(shown.errors.find('\x1B'), std::string::npos);
}
