#include "../evlog/log_image.h"
#include "json_members.h"
#include "run.h"

#include "evctl/follow/gaps.h"
#include "evctl/views/status_view.h"

#include "program.h"
#include "temp_directory.h"
#include "version.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <set>
#include <sstream>

using test::run;
using test::Said;
using testing::HasSubstr;

namespace {

const std::vector<std::vector<std::string>> ALL_COMMANDS = {
    {},
    {"log"},
    {"follow"},
    {"get"},
    {"get", "first"},
    {"get", "last"},
    {"get", "next"},
    {"get", "previous"},
    {"get", "exact"},
    {"walk"},
    {"archiver"},
    {"archiver", "set"},
    {"status"},
    {"archive"},
    {"archive", "list"},
    {"archive", "check"},
    {"file"},
    {"file", "list"},
    {"file", "show"},
    {"file", "verify"},
    {"file", "info"},
    {"file", "predict"},
    {"file", "salvage"},
    {"file", "guard"},
    {"file", "map"},
    {"file", "crash"},
    {"explain"},
    {"stats"},
    {"top"},
    {"support"},
    {"ael"},
    {"ael", "write"},
    {"ael", "list"},
    {"ael", "show"},
    {"catalog"},
    {"catalog", "list"},
    {"catalog", "show"},
    {"catalog", "check"},
    {"params"},
    {"params", "show"},
};

std::vector<std::string> with(std::vector<std::string> command, const std::string& more) {
    command.push_back(more);
    return command;
}

void expectRefused(const std::vector<std::string>& arguments, const std::string& reason) {
    Said said = run(arguments);
    EXPECT_EQ(said.status, 2) << testing::PrintToString(arguments);
    EXPECT_THAT(said.errors, HasSubstr(reason)) << testing::PrintToString(arguments);
    EXPECT_EQ(said.output, "");
}

} // namespace

TEST(CommandLine, EverySubcommandHasHelpWithTheExitStatuses) {
    for (const auto& command : ALL_COMMANDS) {
        Said said = run(with(command, "--help"));
        EXPECT_EQ(said.status, 0);
        EXPECT_THAT(said.output, HasSubstr("Usage: evctl"));
        EXPECT_THAT(said.output, HasSubstr("  1  done, with a finding"));
        EXPECT_THAT(said.output, HasSubstr(command.empty() ? "SUBCOMMAND" : command.back()));
    }
}

TEST(CommandLine, EverySubcommandHasTheVersion) {
    for (const auto& command : ALL_COMMANDS) {
        Said said = run(with(command, "--version"));
        EXPECT_EQ(said.status, 0) << testing::PrintToString(command);
        EXPECT_EQ(said.output, std::string(VersionFullString()) + "\n");
    }
}

TEST(CommandLine, NoSubcommandIsRefused) {
    expectRefused({}, "subcommand");
    expectRefused({"file"}, "subcommand");
    expectRefused({"params"}, "subcommand");
    expectRefused({"get"}, "subcommand");
    expectRefused({"archiver"}, "subcommand");
    expectRefused({"archive"}, "subcommand");
    expectRefused({"nonsense"}, "unknown command 'nonsense'; there are log, follow, get, walk");
    expectRefused({"nonsense"}, ", support\nTry"); // what the help hides is not named
    expectRefused({"get", "next", "4294967296"},
                  "ID: '4294967296' is not a whole number from 0 to 4294967295");
}

TEST(CommandLine, UnknownWordIsNamedWithTheNearestAndThePage) {
    expectRefused({"lgo", "--id", "1"}, "evctl: unknown command 'lgo'; did you mean 'log'?\n"
                                        "Try 'evctl --help'.\n");
    expectRefused({"log", "--sourc", "5"}, "evctl: unknown option '--sourc'; did you mean "
                                           "'--source'?\nTry 'evctl log --help'.\n");
    expectRefused({"log", "--kee", "100"}, "unknown option '--kee'; did you mean '--key'?");
    expectRefused({"file", "lisst", "--json"}, "evctl: unknown command 'lisst'; did you mean "
                                               "'list'?\nTry 'evctl file --help'.\n");
    expectRefused({"file", "list", "/nowhere/log", "--type", "eror"},
                  "'eror' is neither a name nor a number up to 255; did you mean 'error'?\n"
                  "Try 'evctl file list --help'.\n");
}

TEST(CommandLine, WordsBehindAnUnknownOneDoNotChooseThePage) {
    expectRefused({"flie", "list", "log"}, "evctl: unknown command 'flie'; did you mean 'file'?\n"
                                           "Try 'evctl --help'.\n");
}

TEST(CommandLine, HelpShowsRequiredOptionsDefaultsAndWholeTypeNames) {
    EXPECT_THAT(run({"log", "--help"}).output, HasSubstr("Event id within the source (required)"));
    EXPECT_THAT(run({"log", "--help"}).output, HasSubstr("Number of events (default 1)"));
    EXPECT_THAT(run({"follow", "--help"}).output, HasSubstr("--seq FIRST:LAST"));
    EXPECT_THAT(run({"archiver", "set", "--help"}).output, HasSubstr("ARCHIVER HOST:PORT|off"));
    EXPECT_THAT(run({"file", "crash", "--help"}).output, HasSubstr("--index summary|all"));
}

TEST(CommandLine, ReadersShareOneSetOfOptions) {
    for (const std::vector<std::string>& reader :
         std::vector<std::vector<std::string>>{{"walk"},
                                               {"follow"},
                                               {"get", "first"},
                                               {"get", "last"},
                                               {"get", "next"},
                                               {"get", "previous"},
                                               {"get", "exact"}}) {
        EXPECT_THAT(test::lackingOf(reader), testing::IsEmpty()) << testing::PrintToString(reader);
    }
}

TEST(CommandLine, WhatNeedsAnEndIsRefusedWhereThereIsNone) {
    const std::string reason = "not where there is no end, and so no newest event";
    for (const std::vector<std::string>& reader : std::vector<std::vector<std::string>>{
             {"follow", "--dir", "/nowhere"}, {"walk", "--follow", "--dir", "/nowhere"}}) {
        expectRefused(with(reader, "-r"), "--reverse: " + reason);
        expectRefused(with(reader, "--around=5"), "--around: " + reason);
        expectRefused(with(reader, "-n+2"), "/nowhere/smi_ind: No such file");
    }
}

TEST(CommandLine, CompletionKnowsTheNamesOfIds) {
    auto completed = [](const std::string& words, const std::string& current) {
        std::vector<std::string> command = {"complete", "--words=" + words};
        if (!current.empty()) {
            command.push_back("--current=" + current);
        }
        std::istringstream lines(run(command).output);
        std::set<std::string> all;
        for (std::string line; std::getline(lines, line);) {
            all.insert(line);
        }
        return all;
    };
    EXPECT_THAT(completed("file list --id", ""), testing::IsSupersetOf({"signal", "dummy"}));
    EXPECT_THAT(completed("file list --id", "signal,du"), testing::Contains("signal,dummy"));
    const auto startup = completed("log --source startup --id", "");
    EXPECT_THAT(startup, testing::Contains("signal"));
    EXPECT_THAT(startup, testing::Not(testing::Contains("dummy")));
    EXPECT_THAT(completed("log --id", ""), testing::IsEmpty()); // snmp's have no names
    EXPECT_THAT(completed("walk --key 0x7ffffff1 --slot", ""), testing::IsEmpty());
    EXPECT_EQ(run({"complete", "--words=file list --id"}).status, 0);
    EXPECT_EQ(run({"complete", "--words=log --id"}).status, 1);
}

TEST(CommandLine, CompletionKnowsTheVerdictsBehindExplainOnly) {
    EXPECT_THAT(run({"complete", "--words=explain"}).output, HasSubstr("wrapped"));
    EXPECT_EQ(run({"complete", "--words=file explain"}).output, "");
}

TEST(CommandLine, HelpSaysOfWhichOptionsOneIsNeeded) {
    EXPECT_THAT(run({"file", "show", "--help"}).output,
                HasSubstr("\nRecord, one of these:\n  --seq NUMBER "));
    EXPECT_THAT(run({"status", "--help"}).output,
                HasSubstr("\nMessage switch, at most one of these:\n  --dir DIR "));
}

TEST(CommandLine, HelpFitsAnOrdinaryTerminal) {
    for (const auto& command : ALL_COMMANDS) {
        std::istringstream lines(run(with(command, "--help")).output);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    }
}

TEST(CommandLine, NumbersOutOfRangeAreRefusedClearly) {
    std::vector<std::string> follow = {"follow", "--dir", "/nowhere"};
    expectRefused(with(with(follow, "--count"), "0"), "'0' is not a whole number from 1 on");
    expectRefused(with(with(follow, "--count"), "18446744073709551616"), "whole number from 1 on");
    expectRefused(with(with(follow, "--timeout"), "nan"), "'nan' is not a number from 0.001");
    expectRefused(with(with(follow, "--seq"), "10:5"), "'10:5': the first id is above the last");
}

TEST(CommandLine, EnvironmentSparesDirAndKey) {
    expectRefused({"follow", "--dir", "/tmp", "--key", "1234"}, "--key");
    setenv("EVCTL_DIR", "/nowhere", 1);
    expectRefused({"log", "--id", "1"}, "/nowhere/snmp: No such file");
    expectRefused({"follow", "--dir", "/elsewhere"}, "/elsewhere/smi_ind: No such file");
    expectRefused({"status", "--key", "0x7ffffff1"}, "no parameter block under key 0x7ffffff1");
    setenv("EVCTL_DIR", "", 1); // names none
    setenv("EVCTL_KEY", "0x7ffffff2", 1);
    expectRefused({"status"}, "no parameter block under key 0x7ffffff2");
    expectRefused({"params", "show"}, "no parameter block under key 0x7ffffff2");
    expectRefused({"ael", "list"}, "no parameter block under key 0x7ffffff2");
    setenv("EVCTL_KEY", "99", 1);
    expectRefused({"status"}, "EVCTL_KEY: '99' is not a key");
    unsetenv("EVCTL_KEY");
    unsetenv("EVCTL_DIR");
}

TEST(CommandLine, GetTakesAnIdOnlyWhereItMeansSomething) {
    for (const char* mode : {"next", "previous", "exact"}) {
        expectRefused({"get", mode, "--dir", "/nowhere"}, "ID");
        expectRefused({"get", mode, "--dir", "/nowhere", "4294967296"}, "ID");
        expectRefused({"get", mode, "--dir", "/nowhere", "x"}, "ID");
        expectRefused({"get", mode, "--dir", "/nowhere", "4294967295"}, "/nowhere/snmp: No such");
    }
    for (const char* mode : {"first", "last"}) {
        expectRefused({"get", mode, "--dir", "/nowhere", "5"}, "5");
        expectRefused({"get", mode, "--dir", "/nowhere"}, "/nowhere/snmp: No such file");
    }
}

TEST(CommandLine, IdentityHasTextsOf64BytesAtMost) {
    std::vector<std::string> walk = {"walk", "--dir", "/nowhere"};
    expectRefused(with(with(walk, "--enclosure"), std::string(65, 'e')), "1 to 64 bytes");
    expectRefused(with(with(walk, "--enclosure"), std::string(64, 'e')), "/nowhere/snmp");
    expectRefused(with(with(walk, "--blade"), ""), "1 to 64 bytes");
    expectRefused(with(with(walk, "--slot"), "-1"), "--slot");
    expectRefused(with(with(walk, "--instance"), "4294967296"), "--instance");
}

TEST(CommandLine, AfterIsInstanceAndId) {
    std::vector<std::string> walk = {"walk", "--dir", "/nowhere", "--after"};
    for (const char* text :
         {"5", ":", "1:", ":5", "1:5:6", "-1:5", "1:-5", "1:4294967296", "a:b"}) {
        expectRefused(with(walk, text), "is not INSTANCE:ID");
    }
    expectRefused(with(walk, "0:4294967295"), "/nowhere/snmp: No such file");
    expectRefused(with(with(with(walk, "1:5"), "--instance"), "1"), "--instance");
}

TEST(CommandLine, WalkThatFollowsListensFirst) {
    expectRefused({"walk", "--dir", "/nowhere", "--follow"}, "/nowhere/smi_ind: No such file");
}

TEST(CommandLine, ArchiverIsHostAndPortOrOff) {
    std::vector<std::string> set = {"archiver", "set", "--dir", "/nowhere"};
    expectRefused(set, "ARCHIVER");
    for (const char* text : {"on", "9000", ":9000", ""}) {
        expectRefused(with(set, text), "neither HOST:PORT nor off");
    }
    for (const char* text : {"127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:9x"}) {
        expectRefused(with(set, text), "number from 1 to 65535");
    }
    expectRefused(with(set, "0.0.0.0:9000"), "no address of a host");
    expectRefused(with(set, "127.0.0.1:65535"), "/nowhere/snmp: No such file");
    expectRefused(with(set, "off"), "/nowhere/snmp: No such file");
}

TEST(CommandLine, TimeoutsArePositive) {
    expectRefused({"status", "--dir", "/nowhere", "--timeout", "0"}, "--timeout");
    expectRefused({"status", "--dir", "/nowhere", "--endpoint", "smis"}, "/nowhere/smis: No such");
}

TEST(CommandLine, ArchiveThatIsNotThereCannot) {
    for (const char* command : {"list", "check"}) {
        expectRefused({"archive", command}, "--db");
        expectRefused({"archive", command, "--db", "/nowhere/events.db"}, "evctl: ");
    }
}

TEST(CommandLine, KeysBelow100AndNonsenseAreRefused) {
    for (const char* key :
         {"0", "99", "-5", "0x63", "12a", "", "4294967296", "99999999999999999999"}) {
        expectRefused({"params", "show", "--key", key}, "--key");
    }
}

TEST(CommandLine, KeyWithoutBlockCannot) {
    Said said = run({"params", "show", "--key", "0x7ffffff1"});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("no parameter block under key 0x7ffffff1"));
}

TEST(CommandLine, LogNeedsAnId) {
    expectRefused({"log", "--dir", "/nowhere"}, "--id");
}

TEST(CommandLine, LogRefusesWhatDoesNotFit) {
    std::vector<std::string> log = {"log", "--dir", "/nowhere", "--id", "5"};
    auto with2 = [&log](const std::string& flag, const std::string& value) {
        return with(with(log, flag), value);
    };
    expectRefused(with2("--source", "34"), "--source");
    expectRefused(with2("--source", "nobody"), "nobody");
    expectRefused(with2("--type", "256"), "--type");
    expectRefused(with2("--category", "-1"), "--category");
    expectRefused(with2("--id-version", "256"), "--id-version");
    expectRefused(with2("--count", "0"), "--count");
    expectRefused(with2("--rate", "0"), "--rate");
    expectRefused(with2("--hex", "0"), "hexadecimal");
    expectRefused(with2("--hex", "0g"), "hexadecimal");
    expectRefused(with2("--file", "/nowhere/data"), "/nowhere/data: No such file");
    expectRefused(with2("--text", std::string(3849, 'x')), "3848");
    expectRefused(with(with(with2("--text", "x"), "--hex"), "00"), "--hex");
}

TEST(CommandLine, LogRefusesIdsThatDoNotFit) {
    expectRefused({"log", "--dir", "/nowhere", "--id", "65536"}, "65536");
    expectRefused({"log", "--dir", "/nowhere", "--id", "signal"}, "signal");
}

TEST(CommandLine, NobodyListeningCannot) {
    expectRefused({"log", "--dir", "/nowhere", "--id", "5"}, "/nowhere/snmp: No such file");
    expectRefused({"log", "--dir", "/nowhere", "--id", "signal", "--source", "startup"},
                  "/nowhere/startup: No such file");
    expectRefused({"follow", "--dir", "/nowhere"}, "/nowhere/smi_ind: No such file");
    expectRefused({"follow", "--dir", "/nowhere", "--endpoint", "29"}, "/nowhere/smis: No such");
    expectRefused({"follow", "--dir", "/" + std::string(100, 'd')}, "longer than 107");
}

TEST(CommandLine, FilesThatCannotBeRead) {
    setenv("EVCTL_KEY", "0x7fabcdef", 1); // else list would take the log of a blade that runs here
    for (const char* command : {"list", "verify", "info", "predict", "crash"}) {
        expectRefused({"file", command, "/nowhere/log"}, "/nowhere/log: No such file");
        expectRefused({"file", command}, "FILE");
    }
    for (const char* command : {"list", "crash"}) {
        expectRefused({"file", command, "/dev"}, "/dev: a directory without an event log");
    }
    for (const char* command : {"verify", "info"}) { // to predict it is one to come
        expectRefused({"file", command, "/dev"}, "/dev/kelta_eventlog: No such file or directory");
    }
}

TEST(CommandLine, ShowNeedsOneRecord) {
    expectRefused({"file", "show", "/nowhere/log"}, "--seq");
    expectRefused({"file", "show", "/nowhere/log", "--seq", "1", "--offset", "0"}, "--offset");
}

TEST(CommandLine, InfoNeedsEnclosureAndSlotTogether) {
    expectRefused({"file", "info", "/nowhere/log", "--enclosure", "X"}, "--slot");
    expectRefused({"file", "info", "/nowhere/log", "--slot", "1"}, "--enclosure");
}

TEST(CommandLine, AlternateEventsTheLibraryWouldAbortOn) {
    std::vector<std::string> write = {"ael", "write", "--key", "0x7FFFFFF0", "--id", "1"};
    expectRefused(write, "needs at least 1 byte of data");
    expectRefused(with(with(write, "--text"), std::string(3849, 'x')), "more than 3848 bytes");
    expectRefused(with(with(write, "--source"), "35"), "35");
    expectRefused(with(with(write, "--seq"), "1"), "--seq: only events of source startup");
    setenv("EVCTL_KEY", "0x7ffffff2", 1);
    expectRefused({"ael", "write", "--id", "1", "--text", "x"}, "key 0x7ffffff2");
    unsetenv("EVCTL_KEY");
}

TEST(CommandLine, AlternateEventDirectories) {
    for (const char* command : {"list", "show"}) {
        expectRefused({"ael", command, "--dir", "/nowhere"}, "/nowhere: No such file");
        expectRefused({"ael", command, "--dir", "/tmp", "--key", "100"}, "--key");
    }
}

TEST(CommandLine, CrashTakesSummaryOrAllOfTheIndex) {
    expectRefused({"file", "crash", "/nowhere/log", "--index", "some"}, "some");
}

TEST(CommandLine, FiltersThatNameNothingAreRefused) {
    expectRefused({"file", "list", "--type", "loud", "/nowhere/log"}, "loud");
    expectRefused({"file", "list", "--id", "1,65536", "/nowhere/log"}, "65536");
    expectRefused({"file", "list", "--seq", ":", "/nowhere/log"}, "--seq");
    expectRefused({"file", "list", "--seq", "5:x", "/nowhere/log"}, "--seq");
    expectRefused({"file", "list", "--since", "soon", "/nowhere/log"}, "'soon' is no time");
    expectRefused({"file", "list", "--grep", "(", "/nowhere/log"}, "--grep: '('");
    expectRefused({"file", "list", "-n", "0", "/nowhere/log"}, "whole number from 1 on");
}

TEST(CommandLine, AelListTakesTheDirectoryThatTheEventManagerWorksIn) {
    support::TempDirectory home;
    support::writeFile(home.file("kelta_eventlog"), test::record({.id = 1}, "x"));
    support::writeFile(home.file("kelta_eventlog.debug"), test::record({.id = 1}, "x"));
    const std::string event = test::record({.instance = 0}, "x");
    auto expectOnly = [&home](const std::string& name) {
        const Said said = run({"ael", "list", home.path()});
        EXPECT_EQ(said.status, 0) << said.errors;
        EXPECT_THAT(said.output, testing::HasSubstr(name));
        EXPECT_THAT(said.output, testing::Not(testing::HasSubstr("kelta_eventlog")));
        EXPECT_THAT(said.output, testing::Not(testing::HasSubstr("deleted")));
    };
    expectOnly("");
    support::writeFile(home.file("kelta_alteventlog1.packed"), event);
    expectOnly("kelta_alteventlog1.packed");
    home.makeDirectory("aelfiles");
    support::writeFile(home.file("aelfiles/kelta_alteventlog1.a"), event);
    expectOnly("kelta_alteventlog1.a");
    support::writeFile(home.file("aelfiles/notes"), "of somebody");
    EXPECT_EQ(run({"ael", "list", home.path()}).status, 1);
    EXPECT_THAT(run({"ael", "list", home.file("aelfiles")}).output,
                testing::HasSubstr("notes  deleted: not the name"));
}

TEST(CommandLine, AelListTakesADirectoryOfThatNameForNoHomeWhateverIsInIt) {
    support::TempDirectory home;
    home.makeDirectory("aelfiles");
    support::writeFile(home.file("aelfiles/kelta_eventlog"), "of somebody");
    for (const char* name : {"aelfiles", "aelfiles/"}) {
        EXPECT_THAT(run({"ael", "list", home.file(name)}).output,
                    testing::HasSubstr("kelta_eventlog  deleted: not the name"));
    }
}

TEST(CommandLine, CatalogCheckNamesFilePlaceAndReason) {
    support::TempDirectory directory;
    const std::string file = directory.file("mine.json");
    support::writeFile(file, R"({"source":20,"events":[{"id":1,"text":"fine"},{"id":2}]})");
    const Said lines = run({"catalog", "check", file});
    EXPECT_EQ(lines.status, 1);
    EXPECT_EQ(lines.output, file + ": /events/1/text: is missing\n");
    const Said json = run({"catalog", "check", file, "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.output, R"({"file":")" + file +
                               R"(","place":"/events/1/text","text":"is missing",)"
                               R"("replaced":false})"
                               "\n");
    support::writeFile(file, R"({"source":20,"events":[{"id":1,"text":"fine"}]})");
    const Said sound = run({"catalog", "check", file, "--json"});
    EXPECT_EQ(sound.status, 0);
    EXPECT_EQ(sound.output + sound.errors, "");
}

TEST(CommandLine, CatalogCheckOfAFileThatIsNotThereIsRefused) {
    expectRefused({"catalog", "check", "/nowhere/mine.json"}, "/nowhere/mine.json");
    expectRefused({"catalog", "check", "/"}, "/");
}

TEST(CommandLine, CatalogCheckSaysWhereAFileIsNoJson) {
    support::TempDirectory directory;
    const std::string file = directory.file("mine.json");
    auto check = [&file](const std::string& content) {
        support::writeFile(file, content);
        const Said said = run({"catalog", "check", file});
        EXPECT_EQ(said.status, 1) << content;
        return said.output;
    };
    EXPECT_THAT(check("{\"source\": 20,\n \"events\": [\n  {\"id\": 1,}\n]}"),
                testing::MatchesRegex(file + ": no JSON at line 3, column [0-9]+: .*expected.*\n"));
    EXPECT_THAT(
        check("{\"source\": 20,\n \"events\": ["),
        testing::MatchesRegex(file + ": no JSON at line 2, column 13: .*unexpected end.*\n"));
    EXPECT_THAT(check(""), testing::StartsWith(file + ": no JSON at line 1, column 1: "));
    EXPECT_THAT(check("\x1B[2J"), testing::Not(testing::HasSubstr("\x1B")));
    EXPECT_THAT(check("1e999"), testing::StartsWith(file + ": no JSON: number overflow"));
}

TEST(CommandLine, ManualNamesEveryMemberOfJson) {
    support::TempDirectory directory;
    const std::string log = directory.file("kelta_eventlog");
    test::LogImage image;
    image.firstEntry();
    image.events(1, 10);
    image.raw(test::record({.id = 11, .source = 27, .eventId = 11}, std::string(196, '\0')));
    image.raw(test::record({.id = 12, .source = 27, .eventId = 34}, std::string(2000, '\1')));
    image.raw(test::record({.id = 13, .source = 27, .eventId = 13},
                           std::string(8, '\0') + '\16' + std::string(247, '\0')));
    image.dummy();
    image.zerosTo();
    image.damage(1100); // the guard mends it, at last
    support::writeFile(log, image.bytes);
    const std::string broken = directory.file("broken.json");
    support::writeFile(broken, R"({"source":20,"events":[{}]})");
    directory.makeDirectory("aelfiles");
    support::writeFile(directory.file("aelfiles/kelta_alteventlog.1"), test::record({}, "data"));
    size_t members = 0;
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"file", "list", log, "-x", "--show-cursor"},
             {"file", "show", log, "--seq", "3"},
             {"file", "verify", log},
             {"file", "info", log},
             {"file", "predict", log},
             {"file", "salvage", log, "--dry-run"},
             {"file", "crash", log, "--index", "all"},
             {"file", "map", log},
             {"stats", log},
             {"explain", "rebuilt"},
             {"catalog", "list"},
             {"catalog", "check", broken},
             {"ael", "list", "--dir", directory.file("aelfiles")},
             {"ael", "show", "--dir", directory.file("aelfiles")},
             {"file", "guard", log},
         }) {
        const Said output = run(with(command, "--json"));
        EXPECT_NE(output.output, "") << command.back() << output.errors;
        members += test::expectOnThePage(command, output.output);
    }
    members += test::expectOnThePage({"follow"}, evctl::gapJson({}).dump());
    members += test::expectOnThePage({"status"}, evctl::statusJson({}).dump());
    EXPECT_GE(members, 150U);
}

TEST(CommandLine, ManualNamesEveryOption) {
    std::string manual = support::readFile(support::sourceFile("docs/man/evctl.1"));
    std::set<std::string> options;
    for (const auto& command : ALL_COMMANDS) {
        std::string help = run(with(command, "--help")).output;
        std::regex option("--([a-z]+)(-[a-z]+)?");
        for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at) {
            options.insert(at->str());
        }
    }
    EXPECT_GE(options.size(), 28U);
    for (const std::string& option : options) {
        std::string quoted = std::regex_replace(option, std::regex("-"), "\\-");
        EXPECT_NE(manual.find(quoted), std::string::npos) << option;
    }
}
