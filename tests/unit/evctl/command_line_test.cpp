#include "run.h"

#include "program.h"
#include "temp_directory.h"
#include "version.h"

#include <gmock/gmock.h>

#include <regex>
#include <set>

using test::run;
using test::Said;
using testing::HasSubstr;

namespace {

const std::vector<std::vector<std::string>> ALL_COMMANDS = {
    {},
    {"log"},
    {"follow"},
    {"file"},
    {"file", "list"},
    {"file", "show"},
    {"file", "verify"},
    {"file", "info"},
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
    expectRefused({"nonsense"}, "subcommand");
}

TEST(CommandLine, OneOfDirAndKeyIsNeeded) {
    expectRefused({"log", "--id", "1"}, "--dir");
    expectRefused({"follow"}, "--dir");
    expectRefused({"follow", "--dir", "/tmp", "--key", "1234"}, "--key");
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
    EXPECT_THAT(said.errors, HasSubstr("no parameter block under key 2147483633"));
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
    for (const char* command : {"list", "verify", "info"}) {
        expectRefused({"file", command, "/nowhere/log"}, "/nowhere/log: No such file");
        expectRefused({"file", command, "/tmp"}, "/tmp: not a regular file");
        expectRefused({"file", command}, "FILE");
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

TEST(CommandLine, FiltersThatNameNothingAreRefused) {
    expectRefused({"file", "list", "--type", "loud", "/nowhere/log"}, "loud");
    expectRefused({"file", "list", "--id", "1,65536", "/nowhere/log"}, "65536");
    expectRefused({"file", "list", "--seq", ":", "/nowhere/log"}, "--seq");
    expectRefused({"file", "list", "--seq", "5:x", "/nowhere/log"}, "--seq");
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
    EXPECT_GE(options.size(), 20U);
    for (const std::string& option : options) {
        std::string quoted = std::regex_replace(option, std::regex("-"), "\\-");
        EXPECT_THAT(manual, HasSubstr(quoted));
    }
}
