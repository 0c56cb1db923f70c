#include "common/cli.h"

#include "version.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(CommandLine, HelpLinesAreNotLongerThan96) {
    Tool tool;
    tool.parse({"--help"});
    std::istringstream lines(tool.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 96U) << line;
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
