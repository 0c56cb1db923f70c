#include "network.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {
namespace {

// Segments shall travel as they are: a card's work, done by the system, would join them.
void switchOffloadsOff(const char* device) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (const unsigned command : {ETHTOOL_STSO, ETHTOOL_SGSO, ETHTOOL_SGRO}) {
        ethtool_value value{command, 0};
        ifreq request{};
        strncpy(request.ifr_name, device, IFNAMSIZ - 1);
        request.ifr_data = reinterpret_cast<char*>(&value);
        if (ioctl(descriptor, SIOCETHTOOL, &request) != 0) {
            close(descriptor);
            throw std::runtime_error(std::string("offloads of ") + device + ": " + strerror(errno));
        }
    }
    close(descriptor);
}

} // namespace

void shell(const std::string& line) {
    if (std::system(line.c_str()) != 0) { // NOLINT(concurrency-mt-unsafe)
        throw std::runtime_error("failed: " + line);
    }
}

std::string Network::whyNot(const Wire& wire) {
    if (unshare(CLONE_NEWNET) != 0) {
        return std::string("no network namespaces: ") + strerror(errno);
    }
    if (wire.rough && access("/dev/net/tun", R_OK | W_OK) != 0) {
        return std::string("no tun devices: ") + strerror(errno);
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    return std::system("ip link set lo up 2>/dev/null && command -v tc nsenter >/dev/null") == 0
               ? ""
               : "no ip, tc or nsenter";
}

Network::Network(const Wire& wire, const std::string& base)
    : far_(std::make_unique<Process>(
          std::vector<std::string>{"unshare", "--net", "sh", "-c", "echo ready; exec sleep 600"},
          base)) {
    far_->waitForOutput("ready");
    const std::string mtu = std::to_string(wire.mtu);
    const std::string there = "nsenter -t " + std::to_string(far_->pid()) + " -n ";
    // Made here, so that both ends can be set up by name before one leaves.
    if (wire.rough) {
        rough_ = std::make_unique<RoughWire>("near", "far", *wire.rough);
    } else {
        shell("ip link add near type veth peer name far");
        switchOffloadsOff("near");
        switchOffloadsOff("far");
    }
    shell("ip link set far netns " + std::to_string(far_->pid()));
    shell("ip addr add 10.99.0.1/24 dev near && ip link set near mtu " + mtu + " up");
    shell(there + "ip addr add 10.99.0.2/24 dev far && " + there + "ip link set far mtu " + mtu +
          " up && " + there + "ip link set lo up");
    if (!wire.shape.empty()) {
        shell("tc qdisc add dev near root tbf " + wire.shape);
        shell(there + "tc qdisc add dev far root tbf " + wire.shape);
    }
}

std::vector<std::string> Network::inFar(const std::vector<std::string>& command) const {
    std::vector<std::string> all = {"nsenter", "-t", std::to_string(far_->pid()), "-n"};
    all.insert(all.end(), command.begin(), command.end());
    return all;
}

void Network::setUp(bool isUp) {
    shell(std::string("ip link set near ") + (isUp ? "up" : "down"));
}

} // namespace support
