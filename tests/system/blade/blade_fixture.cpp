#include "blade_fixture.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include <unistd.h>

using namespace support;

std::string standIn() {
    return program("tests/standin_emp");
}

std::vector<std::string> bladeCommand(const std::string& base, const std::string& key,
                                      const std::vector<std::string>& arguments) {
    std::vector<std::string> command =
        commandOf("blade", {sourceFile("demo/blade.conf"), "--base", base, "--key", key});
    if (!runner().empty()) {
        command.insert(command.end(), {"--runner", runnerText()});
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

static std::vector<std::string> withStandIn(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--emp", standIn()});
    return arguments;
}

BladeUnderTest::BladeUnderTest(std::vector<std::string> arguments,
                               const Process::Environment& environment)
    : process(bladeCommand(base.path(), key.text(), withStandIn(std::move(arguments))),
              base.file("blade"), environment) {}

void BladeUnderTest::stop(int signal, int status) {
    process.signal(signal);
    EXPECT_EQ(process.wait(), exitedWith(status)) << process.output() << process.errorOutput();
    EXPECT_FALSE(key.exists());
    EXPECT_NE(access(slotFile("mmsg/eventlog").c_str(), F_OK), 0);
}

pid_t childOf(pid_t parent, const std::string& word) {
    std::string directory = "/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent);
    std::istringstream children(readFile(directory + "/children"));
    for (pid_t child = 0; children >> child;) {
        std::string file = "/proc/" + std::to_string(child) + "/cmdline";
        if (readFile(file).find(word) != std::string::npos) {
            return child;
        }
    }
    throw std::runtime_error("no child with " + word);
}
