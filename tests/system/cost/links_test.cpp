/** What links cost the archiver, beside what it does on them. */
#include "blade_link.h"
#include "program.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

using namespace support;

namespace {

// Kilobytes that a process has had in memory at most.
U64_t peakOf(pid_t process) {
    const std::string status = readFile("/proc/" + std::to_string(process) + "/status");
    return std::stoull(status.substr(status.find("VmHWM:") + std::size_t{6}));
}

class CostOfLinks : public ArchiverProcessTest {};

} // namespace

TEST_F(CostOfLinks, TenThousandBladesConnectedTwiceTakeSixtyFourMegabytes) {
    if (!std::string(COUNTER_REASON).empty()) {
        GTEST_SKIP() << COUNTER_REASON;
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 11'000) {
        GTEST_SKIP() << "there are only " << limit.rlim_cur << " descriptors";
    }
    start({"--connection-limit", "10500", "--progress", "0"});
    Process fleet(commandOf("evfleet", {"--to", "127.0.0.1:" + std::to_string(port_), "--blades",
                                        "10000", "--events", "0", "--ramp", "8000", "--reconnect",
                                        "100", "--progress", "0"}),
                  directory_.file("fleet"));
    EXPECT_EQ(fleet.wait(std::chrono::seconds(60)), exitedWith(0)) << fleet.output();
    EXPECT_LE(peakOf(archiver_->pid()), 64U * 1024);
    EXPECT_EQ(stop(), exitedWith(0));
}
