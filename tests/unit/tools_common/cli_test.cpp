#include "common/cli.h"

#include "common/help.h"
#include "version.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

using namespace tools;
using testing::HasSubstr;

namespace {

struct Tool {
    Tool() {
        app.add_option("directory", directory, "Where it works")->required()->type_name("DIR");
        app.add_option("--count", count,
                       "A description that is so long that it does not fit on one line of the help "
                       "text, so that it has to be broken")
            ->capture_default_str()
            ->check(CLI::Range(1, 9))
            ->type_name("N");
        app.add_option("--peer", peer, "Whom to ask")
            ->type_name("HOST:PORT|off")
            ->check(notEmpty());
        setUpCommandLine(app, "Examples:\n  tool /tmp");
    }

    std::optional<int> parse(std::vector<const char*> words) {
        words.insert(words.begin(), "tool");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        auto status = parseCommandLine(app, static_cast<int>(words.size()), words.data());
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return status;
    }

    CLI::App app{"Does nothing.", "tool"};
    std::string directory;
    int count = 3;
    std::string peer;
    std::string out;
    std::string err;
};

} // namespace

TEST(CommandLine, GoodOneRunsTheTool) {
    Tool tool;
    EXPECT_EQ(tool.parse({"/tmp", "--count", "5"}), std::nullopt);
    EXPECT_EQ(tool.directory, "/tmp");
    EXPECT_EQ(tool.count, 5);
    EXPECT_EQ(tool.out + tool.err, "");
}

TEST(CommandLine, VersionIsTheFullString) {
    Tool tool;
    EXPECT_EQ(tool.parse({"--version"}), EXIT_DONE);
    EXPECT_EQ(tool.out, std::string(VersionFullString()) + "\n");
}

TEST(CommandLine, HelpHasOptionsFooterAndExitStatuses) {
    Tool tool;
    EXPECT_EQ(tool.parse({"--help"}), EXIT_DONE);
    EXPECT_THAT(tool.out, HasSubstr("  --count N               A description"));
    EXPECT_THAT(tool.out, HasSubstr("(default 3)"));
    EXPECT_THAT(tool.out, HasSubstr("Examples:\n  tool /tmp\n\nExit status:\n  0  done\n"));
    EXPECT_EQ(tool.err, "");
}

TEST(CommandLine, HelpFitsTheWidthThatTheEnvironmentSays) {
    for (const char* columns : {"40", "60", "80", "100"}) {
        setenv("COLUMNS", columns, 1);
        Tool tool;
        tool.parse({"--help"});
        std::istringstream lines(tool.out);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), static_cast<size_t>(atoi(columns))) << line;
        }
    }
    unsetenv("COLUMNS");
}

TEST(CommandLine, FootersAreWrappedAsParagraphs) {
    setenv("COLUMNS", "40", 1);
    CLI::App app("Does.", "tool");
    setUpCommandLine(app, "A line that is longer than what there is\nroom for goes on.\nNext one.\n"
                          "Examples:\n  tool with words that are no prose and stay where they are");
    EXPECT_THAT(app.help(), HasSubstr("A line that is longer than what there is\n"
                                      "room for goes on.\nNext one.\n"));
    setUpCommandLine(app, "A line that is longer than what there is room\nfor goes on.\nNext one.\n"
                          "Examples:\n  tool with words that are no prose and stay where they are");
    EXPECT_THAT(app.help(), HasSubstr("A line that is longer than what there is\n"
                                      "room for goes on.\nNext one.\nExamples:\n"
                                      "  tool with words that are no prose and stay where"));
    unsetenv("COLUMNS");
}

TEST(CommandLine, HelpThatNobodyCanReadIsAFailure) {
    for (const char* option : {"--help", "--version"}) {
        std::cout.setstate(std::ios::badbit);
        Tool tool;
        int status = tool.parse({option}).value_or(-1);
        std::cout.clear();
        EXPECT_EQ(status, EXIT_COULD_NOT) << option;
        EXPECT_EQ(tool.err, "tool: cannot write standard output\n");
    }
}

TEST(CommandLine, HelpWidthIsBoundedAndDefaultsTo80) {
    for (auto [columns, width] : std::vector<std::pair<const char*, size_t>>{
             {"1", 40}, {"4000000000", 120}, {"wide", 80}, {"-5", 80}, {"", 80}}) {
        setenv("COLUMNS", columns, 1);
        EXPECT_EQ(helpWidth(), width) << columns;
    }
    unsetenv("COLUMNS");
    EXPECT_EQ(helpWidth(), 80U);
}

TEST(CommandLine, HelpShowsTypeNamesWithAColonWholeAndNoChecks) {
    Tool tool;
    tool.parse({"--help"});
    EXPECT_THAT(tool.out, HasSubstr("  --peer HOST:PORT|off    Whom to ask\n"));
    EXPECT_THAT(tool.out, HasSubstr("  directory DIR           Where it works (required)\n"));
    EXPECT_THAT(tool.out, testing::Not(HasSubstr("INT in [1 - 9]")));
}

TEST(CommandLine, HelpShowsAFlagWithoutAValue) {
    Tool tool;
    tool.parse({"--help"});
    EXPECT_THAT(tool.out, HasSubstr("  -h,--help               Print this help and exit\n"));
    EXPECT_THAT(tool.out, testing::Not(HasSubstr("[=]")));
}

TEST(CommandLine, UnknownOptionIsNamedWithTheNearest) {
    Tool tool;
    EXPECT_EQ(tool.parse({"/tmp", "--cuont=5"}), EXIT_COULD_NOT);
    EXPECT_EQ(tool.err, "tool: unknown option '--cuont'; did you mean '--count'?\n"
                        "Try 'tool --help'.\n");
}

TEST(CommandLine, UnknownOptionIsSaidBeforeWhatIsMissing) {
    Tool tool;
    EXPECT_EQ(tool.parse({"--directories"}), EXIT_COULD_NOT);
    EXPECT_THAT(tool.err, testing::StartsWith("tool: unknown option '--directories'\n"));
}

TEST(CommandLine, UnexpectedArgumentIsNamed) {
    Tool tool;
    EXPECT_EQ(tool.parse({"/tmp", "/var"}), EXIT_COULD_NOT);
    EXPECT_THAT(tool.err, testing::StartsWith("tool: unexpected argument '/var'\n"));
}

TEST(CommandLine, EmptyValueIsRefused) {
    Tool tool;
    EXPECT_EQ(tool.parse({"/tmp", "--peer", ""}), EXIT_COULD_NOT);
    EXPECT_THAT(tool.err, testing::StartsWith("tool: --peer: is empty\n"));
}

TEST(CommandLine, WholeNumbersAreDecimalAndInRange) {
    CLI::Validator one = wholeNumber(1);
    for (std::string text : {"1", "18446744073709551615"}) {
        EXPECT_EQ(one(text), "") << text;
    }
    for (std::string text :
         {"0", "18446744073709551616", "-1", "+1", "1.5", "1e3", "", "x", "0x1", " 1", "nan"}) {
        EXPECT_EQ(one(text), "'" + text + "' is not a whole number from 1 on");
    }
    std::string ten = "10";
    EXPECT_EQ(wholeNumber(0, 9)(ten), "'10' is not a whole number from 0 to 9");
}

TEST(CommandLine, DecimalNumbersAreFinite) {
    CLI::Validator seconds = decimalNumber(0.001, 1e6);
    for (std::string text : {"0.001", "1", "1000000", "2.5"}) {
        EXPECT_EQ(seconds(text), "") << text;
    }
    for (std::string text : {"nan", "-nan", "inf", "0", "-1", "1e7", "1e999", "", "1 s"}) {
        EXPECT_EQ(seconds(text), "'" + text + "' is not a number from 0.001 to 1e+06");
    }
}

TEST(CommandLine, MistakesAreSaidOnStandardErrorWithStatus2) {
    for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
             {}, {"/tmp", "--count", "0"}, {"/tmp", "--count", "x"}, {"/tmp", "--nonsense"}}) {
        Tool tool;
        EXPECT_EQ(tool.parse(words), EXIT_COULD_NOT);
        EXPECT_EQ(tool.out, "");
        EXPECT_THAT(tool.err, testing::StartsWith("tool: "));
        EXPECT_THAT(tool.err, HasSubstr("Try 'tool --help'."));
    }
}
