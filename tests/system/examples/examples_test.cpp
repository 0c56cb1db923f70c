/** The examples on a blade that is up, and on one whose event manager is away. */
#include "ipc_key.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>

using namespace support;

namespace {

class Examples : public testing::Test {
  protected:
    void bringUp(const std::vector<std::string>& options = {}) {
        std::vector<std::string> command = commandOf(
            "blade", {sourceFile("demo/blade.conf"), "--base", base_.path(), "--key", key_.text()});
        if (!runner().empty()) {
            command.insert(command.end(), {"--runner", runnerText()});
        }
        command.insert(command.end(), options.begin(), options.end());
        blade_.emplace(command, base_.file("blade"));
        blade_->waitForOutput("blade: up: slot 0");
    }

    /** Runs a program to its end. @return what it printed; the status must be 0 */
    std::string run(const std::string& name, const std::vector<std::string>& arguments) {
        Process process(commandOf(name, arguments), base_.file("run" + std::to_string(++runs_)));
        EXPECT_EQ(process.wait(), exitedWith(0)) << process.errorOutput();
        return process.output();
    }

    size_t files() const {
        std::filesystem::path directory = base_.file("slot0/nvram/aelfiles");
        return std::filesystem::exists(directory)
                   ? static_cast<size_t>(
                         std::distance(std::filesystem::directory_iterator(directory), {}))
                   : 0;
    }

    TempDirectory base_;
    IpcKey key_;
    std::optional<Process> blade_;
    int runs_ = 0;
};

TEST_F(Examples, EventsAreInTheLogOnceTheyAreConfirmed) {
    bringUp();
    EXPECT_EQ(run("examples/log_event", {key_.text(), "fan 3 stopped"}), "in the log\n");
    EXPECT_EQ(run("examples/log_events", {key_.text(), "200"}),
              "200 sent and confirmed, 0 in files\n");
    // No waiting: what is confirmed is in the file.
    std::string log = readFile(base_.file("slot0/nvram/kelta_eventlog"));
    EXPECT_NE(log.find("fan 3 stopped"), std::string::npos);
    for (int number = 1; number <= 200; ++number) {
        EXPECT_NE(log.find("volume " + std::to_string(number) + " is online"), std::string::npos);
    }
    EXPECT_EQ(files(), 0U);
}

TEST_F(Examples, EventsAreInFilesWhileTheEventManagerIsAway) {
    bringUp({"--no-emp"});
    EXPECT_EQ(run("examples/log_event", {key_.text(), "fan 3 stopped"}),
              "in a file, until the event manager starts\n");
    EXPECT_EQ(files(), 1U);
    EXPECT_EQ(run("examples/log_events", {key_.text(), "3"}),
              "the event manager is away: some of 3 are in files\n");
    EXPECT_EQ(files(), 4U);
    Process emp(commandOf("emp", {key_.text()}), base_.file("emp"));
    emp.waitForOutput("Wait for Event Messages");
    std::string log = readFile(base_.file("slot0/nvram/kelta_eventlog"));
    EXPECT_NE(log.find("fan 3 stopped"), std::string::npos);
    EXPECT_NE(log.find("volume 3 is online"), std::string::npos);
    EXPECT_EQ(files(), 0U);
}

TEST_F(Examples, NoEventIsLostWhileTheEventManagerDiesAndComesBack) {
    constexpr int COUNT = 1500;
    bringUp({"--no-emp"});
    std::optional<Process> emp;
    auto start = [&] {
        emp.emplace(commandOf("emp", {key_.text()}), base_.file("emp" + std::to_string(runs_++)));
        emp->waitForOutput("Wait for Event Messages");
    };
    auto logged = [&] { return readFile(base_.file("slot0/nvram/kelta_eventlog")); };
    start();
    Process sender(commandOf("examples/log_events", {key_.text(), std::to_string(COUNT)}),
                   base_.file("sender"));
    for (int killed = 1; killed <= 2; killed++) {
        std::string reached = "volume " + std::to_string(killed * 400) + " is";
        // On a busy machine the answer may come too late, and the rest goes to files.
        waitUntil([&] { return files() > 0 || logged().find(reached) != std::string::npos; });
        emp->signal(SIGKILL);
        emp->wait();
        start();
    }
    EXPECT_EQ(sender.wait(), exitedWith(0)) << sender.errorOutput();
    std::string all = logged();
    if (files() > 0) {
        for (const auto& entry :
             std::filesystem::directory_iterator(base_.file("slot0/nvram/aelfiles"))) {
            all += readFile(entry.path().string());
        }
    }
    std::string lost;
    for (int number = 1; number <= COUNT; ++number) {
        if (all.find("volume " + std::to_string(number) + " is online") == std::string::npos) {
            lost += " " + std::to_string(number);
        }
    }
    EXPECT_EQ(lost, "");
}

} // namespace
