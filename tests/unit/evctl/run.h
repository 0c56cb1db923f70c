/**
 * @file
 * Runs a command line in this process and keeps what it says.
 */
#ifndef EVCTL_TEST_RUN_H
#define EVCTL_TEST_RUN_H

#include "evctl/command_line.h"

#include <gtest/gtest.h>

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

} // namespace test

#endif
