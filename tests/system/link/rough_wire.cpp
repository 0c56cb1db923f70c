#include "rough_wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <unistd.h>

namespace support {
namespace {

constexpr std::size_t LARGEST_PACKET = 65'536;

int openTun(const std::string& name) {
    const int descriptor = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (descriptor < 0 || ioctl(descriptor, TUNSETIFF, &request) != 0) {
        const std::string why = strerror(errno);
        close(descriptor);
        throw std::runtime_error("no tun device: " + why);
    }
    return descriptor;
}

} // namespace

RoughWire::RoughWire(const std::string& oneEnd, const std::string& otherEnd,
                     const Roughness& roughness)
    : roughness_(roughness), ends_{openTun(oneEnd), openTun(otherEnd)}, thread_([this] { run(); }) {
}

RoughWire::~RoughWire() {
    isOver_ = true;
    thread_.join();
    close(ends_[0]);
    close(ends_[1]);
}

void RoughWire::run() {
    while (!isOver_) {
        pollfd ready[2] = {{ends_[0], POLLIN, 0}, {ends_[1], POLLIN, 0}};
        poll(ready, 2, underWay_.empty() ? 20 : 1);
        take(ends_[0], ends_[1]);
        take(ends_[1], ends_[0]);
        sendDue();
    }
}

void RoughWire::take(int from, int to) {
    std::vector<std::uint8_t> bytes(LARGEST_PACKET);
    for (ssize_t size = 0; (size = read(from, bytes.data(), bytes.size())) > 0;) {
        if (random_() % 1000 < roughness_.lost) {
            ++lost_;
            continue;
        }
        const auto most =
            static_cast<std::uint64_t>(std::chrono::microseconds(roughness_.jitter).count());
        const std::chrono::microseconds more(most > 0 ? random_() % most : 0);
        underWay_.push({Clock::now() + roughness_.delay + more,
                        ++taken_,
                        to,
                        {bytes.begin(), bytes.begin() + size}});
    }
}

void RoughWire::sendDue() {
    for (; !underWay_.empty() && underWay_.top().due <= Clock::now(); underWay_.pop()) {
        const Packet& packet = underWay_.top();
        // A device that is down takes nothing, as a cable that is pulled.
        const ssize_t sent = write(packet.to, packet.bytes.data(), packet.bytes.size());
        ++(sent > 0 ? carried_ : lost_);
        overtaken_ += packet.number < newest_ ? 1 : 0;
        newest_ = std::max(newest_, packet.number);
    }
}

} // namespace support
