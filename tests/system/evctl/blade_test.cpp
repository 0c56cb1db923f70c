/** evctl against a blade that is up: its message switch and its event manager. */
#include "ipc_key.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

using support::exitedWith;

namespace {

class EvctlOnABlade : public testing::Test {
  protected:
    EvctlOnABlade() { blade_.waitForOutput("blade: up: slot 0"); }

    std::vector<std::string> bladeCommand() const {
        std::vector<std::string> command =
            support::commandOf("blade", {support::sourceFile("demo/blade.conf"), "--base",
                                         base_.path(), "--key", key_.text()});
        if (!support::runner().empty()) {
            command.insert(command.end(), {"--runner", support::runnerText()});
        }
        return command;
    }

    support::Process start(const std::vector<std::string>& arguments) {
        return support::Process(support::commandOf("evctl", arguments),
                                base_.file("evctl" + std::to_string(++runs_)));
    }

    /** Runs evctl to its end. @return what it printed; the status must be 0 */
    std::string run(const std::vector<std::string>& arguments) {
        support::Process evctl = start(arguments);
        EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
        return evctl.output();
    }

    /** Logs events and waits until the last one has been stored under its id. */
    void log(int count, int lastId) {
        run({"log", "--dir", dir_, "--id", "7", "--count", std::to_string(count)});
        waitForId(lastId);
    }

    void waitForId(int id) {
        support::requireSoon(
            [&] {
                return idOf(run({"get", "last", "--dir", dir_})) == id;
            },
            "event " + std::to_string(id));
    }

    static int idOf(const std::string& line) { return std::stoi(line); }

    std::string fileList(const std::string& range) {
        return run({"file", "list", base_.file("slot0/nvram/kelta_eventlog"), "--seq", range});
    }

    support::TempDirectory base_;
    support::IpcKey key_;
    std::string dir_ = base_.file("slot0/mmsg");
    support::Process blade_{bladeCommand(), base_.file("blade")};
    int runs_ = 0;
};

/** A TCP port that somebody listens on, who never answers. */
class SilentArchiver {
  public:
    SilentArchiver() : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* generic = reinterpret_cast<struct sockaddr*>(&address);
        if (bind(descriptor_, generic, length) != 0 || listen(descriptor_, 1) != 0 ||
            getsockname(descriptor_, generic, &length) != 0) {
            throw std::runtime_error("no TCP port to listen on");
        }
        address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~SilentArchiver() { close(descriptor_); }
    SilentArchiver(const SilentArchiver&) = delete;
    SilentArchiver& operator=(const SilentArchiver&) = delete;

    const std::string& address() const { return address_; }

  private:
    int descriptor_;
    std::string address_;
};

} // namespace

TEST_F(EvctlOnABlade, GetFindsItsWayInTheLog) {
    log(5, 5);
    auto get = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "get");
        arguments.insert(arguments.end(), {"--key", key_.text()});
        return run(arguments);
    };
    EXPECT_EQ(get({"first"}), fileList("0"));
    EXPECT_EQ(get({"last"}), fileList("5"));
    EXPECT_EQ(get({"next", "0"}), fileList("1"));
    EXPECT_EQ(get({"previous", "4"}), fileList("3"));
    EXPECT_EQ(get({"exact", "4"}), fileList("4"));
    EXPECT_EQ(run({"get", "exact", "4", "--dir", dir_}), fileList("4"));
    EXPECT_EQ(get({"first", "--slot", "0"}), fileList("0"));
}

TEST_F(EvctlOnABlade, WhatIsNotThereIsAFinding) {
    for (std::vector<std::string> arguments : {std::vector<std::string>{"get", "exact", "9"},
                                               {"get", "next", "0"},
                                               {"get", "previous", "0"},
                                               {"get", "last", "--slot", "1"},
                                               {"walk", "--blade", "ANOTHER"}}) {
        arguments.insert(arguments.end(), {"--dir", dir_});
        support::Process evctl = start(arguments);
        EXPECT_EQ(evctl.wait(), exitedWith(1)) << testing::PrintToString(arguments);
        EXPECT_EQ(evctl.output(), "");
        EXPECT_NE(evctl.errorOutput(), "");
    }
}

TEST_F(EvctlOnABlade, WalkIsTheFilesList) {
    log(300, 300);
    std::string all = fileList("0:");
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 301);
    EXPECT_EQ(run({"walk", "--dir", dir_}), all);
    EXPECT_EQ(run({"walk", "--key", key_.text()}), all);
    EXPECT_EQ(run({"walk", "--dir", dir_, "--after", "0:290"}), fileList("291:"));
    EXPECT_EQ(run({"walk", "--dir", dir_, "--after", "0:300"}), "");
}

TEST_F(EvctlOnABlade, IsASourceBesideOthers) {
    const std::string blade = "blade:" + key_.text();
    log(3, 3);
    const std::string file = base_.file("slot0/nvram/kelta_eventlog");
    EXPECT_EQ(run({"file", "list", blade}), run({"file", "list", file}));
    EXPECT_EQ(run({"file", "list", blade, "-n", "2", "-r"}),
              run({"file", "list", file, "-n2", "-r"}));
    std::filesystem::copy_file(file, base_.file("earlier"));
    log(2, 5);
    const std::string merged = run({"file", "list", "--json", blade, base_.file("earlier")});
    EXPECT_NE(merged.find("{\"from\":\"" + blade + "\",\"sequenceId\":5,"), std::string::npos)
        << merged;
    EXPECT_NE(run({"stats", blade}).find("6 events"), std::string::npos);
    support::Process none = start({"file", "list", "blade:0x7ffffff1"});
    EXPECT_EQ(none.wait(), exitedWith(2));
    EXPECT_NE(none.errorOutput().find("evctl: blade:0x7ffffff1: no parameter block under key"),
              std::string::npos);
}

TEST_F(EvctlOnABlade, WalkThatFollowsMissesAndRepeatsNothing) {
    log(100, 100);
    support::Process logger =
        start({"log", "--dir", dir_, "--source", "environ", "--id", "8", "--count", "400"});
    support::Process walk = start({"walk", "--dir", dir_, "--follow"});
    walk.waitForOutput("       500  ");
    log(1, 501);
    walk.waitForOutput("       501  ");
    EXPECT_EQ(logger.wait(), exitedWith(0));
    walk.signal(SIGTERM);
    EXPECT_EQ(walk.wait(), support::diedOf(SIGTERM));
    EXPECT_EQ(walk.output(), fileList("0:"));
}

TEST_F(EvctlOnABlade, FollowBeginsWithTheLastOnesThatTheLogHolds) {
    log(20, 20);
    support::Process follow = start({"follow", "--dir", dir_, "-n", "3", "--timeout", "60"});
    follow.waitForOutput("        20  ");
    log(1, 21);
    follow.waitForOutput("        21  ");
    follow.signal(SIGTERM);
    EXPECT_EQ(follow.wait(), support::diedOf(SIGTERM));
    EXPECT_EQ(follow.output(), fileList("18:21"));
    support::Process all = start({"follow", "--dir", dir_, "-n", "100", "--count", "22"});
    EXPECT_EQ(all.wait(), exitedWith(0));
    EXPECT_EQ(all.output(), fileList("0:"));
}

TEST_F(EvctlOnABlade, ArchiverIsSetShownAndSwitchedOff) {
    const std::string counters0 = "timed-out inquiries  0\nconnections closed   0\n";
    EXPECT_EQ(run({"status", "--dir", dir_}),
              "archiver             none\nlink                 down\n" + counters0 +
                  "connections tried    0\n");
    SilentArchiver archiver;
    run({"archiver", "set", "--key", key_.text(), archiver.address()});
    EXPECT_EQ(run({"status", "--key", key_.text()}),
              "archiver             " + archiver.address() +
                  "\nlink                 up or being set up\n" + counters0 +
                  "connections tried    1\n");
    run({"archiver", "set", "--dir", dir_, "off"});
    EXPECT_EQ(run({"status", "--dir", dir_, "--json"}),
              R"({"archiver":null,"link":"down","linkUp":false,"timedOutInquiries":0,)"
              R"("connectionsClosed":1,"connectionsTried":1})"
              "\n");
}
