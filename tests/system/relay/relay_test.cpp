/** Two blades and one archiver: a blade's inquiry about the other's log is answered by the
 * archiver. */
#include "ipc_key.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"
#include "wait.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

using support::exitedWith;
using support::Process;

namespace {

class RelayThroughTheArchiver : public testing::Test {
  protected:
    RelayThroughTheArchiver() {
        for (int slot : {0, 1}) {
            blades_[slot] = startBlade(slot);
        }
        for (const auto& blade : blades_) {
            blade->waitForOutput("blade: up: ");
        }
        const std::string line = archiver_->waitForOutput("listening on 127.0.0.1:");
        for (int slot : {0, 1}) {
            run({"archiver", "set", line.substr(line.rfind(' ') + 1), "--dir", switchOf(slot)});
        }
    }

    std::string serialOf(int slot) const { return "BLADE-" + std::to_string(slot); }
    std::string slotFile(int slot, const std::string& name) const {
        return base_.file("slot" + std::to_string(slot) + "/" + name);
    }
    std::string switchOf(int slot) const { return slotFile(slot, "mmsg"); }

    std::unique_ptr<Process> startBlade(int slot) {
        return std::make_unique<Process>(
            support::commandOf("blade", {support::sourceFile("demo/blade.conf"), "--base",
                                         base_.path(), "--slot", std::to_string(slot), "--other",
                                         std::to_string(1 - slot), "--key", keys_[slot].text(),
                                         "--set", "SerialNumber=" + serialOf(slot)}),
            base_.file("blade" + std::to_string(slot)));
    }

    /** Runs evctl to its end, which must have @p status. @return what it printed */
    std::string run(const std::vector<std::string>& arguments, int status = 0) {
        Process evctl(support::commandOf("evctl", arguments),
                      base_.file("evctl" + std::to_string(++runs_)));
        EXPECT_EQ(evctl.wait(), exitedWith(status))
            << testing::PrintToString(arguments) << evctl.errorOutput();
        return evctl.output();
    }

    /** Logs events on a blade, each of which says where it is from. */
    void log(int slot, int count) {
        run({"log", "--dir", switchOf(slot), "--source", "environ", "--id", "7", "--text",
             "of " + serialOf(slot), "--count", std::to_string(count)});
    }

    /** What the log file of a blade holds under an id; empty while it does not. */
    std::string inFile(int slot, const std::string& range) {
        return run({"file", "list", slotFile(slot, "nvram/kelta_eventlog"), "--seq", range});
    }

    /** Waits until the archive of one of the blades holds so many events. */
    void waitForArchived(int events) {
        const std::string wanted = "\"events\":" + std::to_string(events) + ",";
        support::requireSoon(
            [&] {
                std::string list = run({"archive", "list", "--db", database_, "--json"});
                std::erase(list, ' ');
                return list.find(wanted) != std::string::npos;
            },
            wanted);
    }

    /** Asks blade 0's event manager about blade 1. */
    std::string ask(std::vector<std::string> inquiry, int status = 0) {
        inquiry.insert(inquiry.end(),
                       {"--dir", switchOf(0), "--blade", serialOf(1), "--slot", "1"});
        return run(inquiry, status);
    }

    support::TempDirectory base_;
    support::IpcKey keys_[2];
    std::string database_ = base_.file("events.db");
    std::unique_ptr<Process> archiver_ = std::make_unique<Process>(
        support::commandOf("evarchiver", {"--listen", "127.0.0.1:0", "--db", database_}),
        base_.file("archiver"));
    std::unique_ptr<Process> blades_[2];
    int runs_ = 0;
};

} // namespace

TEST_F(RelayThroughTheArchiver, EventsOfTheOtherBladeAreFoundInItsArchive) {
    log(0, 3);
    log(1, 5);
    waitForArchived(6);
    EXPECT_EQ(ask({"get", "exact", "4"}), inFile(1, "4"));
    EXPECT_NE(inFile(1, "4"), inFile(0, "4"));
    EXPECT_EQ(ask({"get", "first"}), inFile(1, "0"));
    EXPECT_EQ(ask({"get", "last"}), inFile(1, "5"));
    EXPECT_EQ(ask({"get", "next", "2"}), inFile(1, "3"));
    EXPECT_EQ(ask({"get", "previous", "2"}), inFile(1, "1"));
}

TEST_F(RelayThroughTheArchiver, AnIdThatTheOtherBladeDoesNotHaveIsAFinding) {
    log(1, 2);
    waitForArchived(3);
    EXPECT_EQ(ask({"get", "exact", "9"}, 1), "");
}

TEST_F(RelayThroughTheArchiver, WithoutTheArchiverTheOtherBladesEventsAreAFinding) {
    log(1, 2);
    waitForArchived(3);
    archiver_->signal(SIGKILL);
    archiver_->wait();
    EXPECT_EQ(ask({"get", "exact", "1"}, 1), "");
    // What is asked of the blade itself is answered as ever.
    EXPECT_EQ(run({"get", "exact", "0", "--dir", switchOf(0)}), inFile(0, "0"));
}
