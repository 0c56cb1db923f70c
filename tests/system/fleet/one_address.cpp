#include "one_address.h"

#include "network.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <stdexcept>

namespace fleet {

using namespace support;

std::string OneAddress::whyNot() {
    if (const std::string why = Network::whyNot({}); !why.empty()) {
        return why;
    }
    // Connections are spread by their ports too, not by addresses alone.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    return std::system("sysctl -q -w net.ipv4.fib_multipath_hash_policy=1 2>/dev/null") == 0
               ? ""
               : "routes take no notice of ports";
}

OneAddress::OneAddress(const std::string& base) {
    for (int machine = 0; machine < MACHINES; ++machine) {
        const std::string number = std::to_string(machine);
        machines_.push_back(std::make_unique<Process>(
            std::vector<std::string>{"unshare", "--net", "sh", "-c", "echo ready; exec sleep 600"},
            base + number));
        machines_.back()->waitForOutput("ready");
        const std::string pid = std::to_string(machines_.back()->pid());
        const std::string subnet = "10.98." + std::to_string(machine + 1);
        shell("ip link add near" + number + " type veth peer name far" + number);
        shell("ip link set far" + number + " netns " + pid);
        shell("ip addr add " + subnet + ".1/24 dev near" + number);
        shell("ip link set near" + number + " up");
        shell("nsenter -t " + pid + " -n sh -c 'ip link set lo up && ip addr add " + ADDRESS +
              "/32 dev lo && ip addr add " + subnet + ".2/24 dev far" + number +
              " && ip link set far" + number + " up && ip route add default via " + subnet + ".1'");
    }
    spreadOver({0, 1});
}

std::vector<std::string> OneAddress::on(int machine,
                                        const std::vector<std::string>& command) const {
    std::vector<std::string> all = {
        "nsenter", "-t", std::to_string(machines_[static_cast<std::size_t>(machine)]->pid()), "-n"};
    all.insert(all.end(), command.begin(), command.end());
    return all;
}

void OneAddress::spreadOver(const std::vector<int>& machines) const {
    std::string command = std::string("ip route replace ") + ADDRESS + "/32";
    for (const int machine : machines) {
        command += " nexthop via 10.98." + std::to_string(machine + 1) + ".2";
    }
    shell(command);
}

} // namespace fleet
