#include "switch_fixture.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace support;

static std::vector<std::string> commandLine(const std::string& directory,
                                            const std::vector<std::string>& arguments) {
    std::vector<std::string> command = commandOf("msm", {directory, "--trace"});
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

RunningSwitch::RunningSwitch(const std::string& directory,
                             const std::vector<std::string>& arguments)
    : directory_(directory), process_(commandLine(directory, arguments), directory + "/msm") {
    process_.waitForOutput("listening in " + directory);
}

MmsgClient RunningSwitch::connect(const std::string& endpoint) {
    size_t before = connectionsOf(endpoint);
    MmsgClient client(directory_ + "/" + endpoint);
    requireSoon([&] { return connectionsOf(endpoint) > before; }, endpoint + " to be connected");
    return client;
}

/** Connections of an endpoint that the switch has ever said. */
size_t RunningSwitch::connectionsOf(const std::string& endpoint) const {
    std::istringstream lines(process_.output());
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        count +=
            line.starts_with("msm: " + endpoint + "#") && line.ends_with(": connected") ? 1 : 0;
    }
    return count;
}

std::string RunningSwitch::stop(int signal) {
    process_.signal(signal);
    EXPECT_EQ(process_.wait(), exitedWith(0)) << process_.errorOutput();
    return process_.output();
}

void expectNothingBefore(MmsgClient& sender, MmsgClient& receiver, U32_t receiverEndpoint) {
    static U32_t mark = 0xF0000000U;
    Bytes message = makeMmsg({.type = 77, .local = {receiverEndpoint}, .handle = ++mark});
    sender.send(message);
    EXPECT_EQ(receiver.receive(), message);
}
