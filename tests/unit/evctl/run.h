/**
 * @file
 * Runs a command line in this process and keeps what it says.
 */
#ifndef EVCTL_TEST_RUN_H
#define EVCTL_TEST_RUN_H

#include "evctl/command_line.h"

#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

namespace test {

struct Said {
    int status;
    std::string output;
    std::string errors;
};

inline Said run(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv = {"evctl"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = evctl::runCommandLine(static_cast<int>(argv.size()), argv.data());
    std::string output = testing::internal::GetCapturedStdout();
    return {status, output, testing::internal::GetCapturedStderr()};
}

/** What the page says of the JSON of a command; of one without a paragraph what it says of events.
 */
inline std::string pageOfJson(const std::vector<std::string>& command) {
    std::string page = support::readFile(support::sourceFile("docs/man/evctl.1"));
    page = page.substr(page.find(".SH JSON"));
    page.resize(page.find(".SH EXIT STATUS"));
    const std::string two = command.size() > 1 ? command[0] + " " + command[1] : "";
    const std::string paragraph = "\n.TP\n";
    size_t begin = page.find(paragraph);
    const std::string events = page.substr(0, begin);
    while (begin != std::string::npos) {
        begin += paragraph.size();
        const size_t end = page.find(paragraph, begin);
        std::string tags = page.substr(begin, page.find('\n', begin) - begin);
        tags = std::regex_replace(tags, std::regex("^\\.BR? |[\" ]*,[\" ]*|\"$"), ";") + ";";
        tags = std::regex_replace(tags, std::regex("\""), "");
        if (tags.find(";" + command[0] + ";") != std::string::npos ||
            (!two.empty() && tags.find(";" + two + ";") != std::string::npos)) {
            return page.substr(begin, end == std::string::npos ? end : end - begin);
        }
        begin = end;
    }
    return events;
}

/** The long options that a command's help names. */
inline std::set<std::string> optionsOf(std::vector<std::string> command) {
    command.emplace_back("--help");
    const std::string help = run(command).output;
    std::set<std::string> options;
    const std::regex option("(^|\n| |,)(--[a-z-]+)");
    for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at) {
        options.insert(at->str(2));
    }
    return options;
}

/** The options that a reader of events lacks, of those that 'file list' has for any. */
inline std::set<std::string> lackingOf(const std::vector<std::string>& reader) {
    std::set<std::string> lacking = optionsOf({"file", "list"});
    EXPECT_GE(lacking.size(), 28U);
    lacking.erase("--file-order"); // only a file has one
    for (const std::string& option : optionsOf(reader)) {
        lacking.erase(option);
    }
    return lacking;
}

} // namespace test

#endif
