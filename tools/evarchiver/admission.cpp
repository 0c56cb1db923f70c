#include "admission.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace evarchive {
namespace {

// Descriptors beside those of links: the archive's files, the loop's own, standard ones, metrics.
constexpr rlim_t OTHER_DESCRIPTORS = 64;

asio::ip::address_v6 asV6(const asio::ip::address& address) {
    return address.is_v6() ? address.to_v6()
                           : asio::ip::make_address_v6(asio::ip::v4_mapped, address.to_v4());
}

} // namespace

bool Network::contains(const asio::ip::address& other) const {
    const auto ours = address.to_bytes();
    const auto theirs = asV6(other).to_bytes();
    for (unsigned bit = 0; bit < bits; ++bit) {
        const unsigned mask = 0x80U >> (bit % 8);
        if (((ours[bit / 8] ^ theirs[bit / 8]) & mask) != 0) {
            return false;
        }
    }
    return true;
}

Network networkOf(const std::string& text) {
    const std::size_t slash = text.find('/');
    asio::error_code error;
    const auto address = asio::ip::make_address(text.substr(0, slash), error);
    if (error) {
        throw std::invalid_argument("'" + text + "' is no network: ADDRESS or ADDRESS/BITS");
    }
    const unsigned most = address.is_v4() ? 32 : 128;
    unsigned bits = most;
    if (slash != std::string::npos) {
        const char* end = text.data() + text.size();
        const auto [stopped, wrong] = std::from_chars(text.data() + slash + 1, end, bits);
        if (wrong != std::errc{} || stopped != end || bits > most) {
            throw std::invalid_argument("'" + text + "': a network has 0 to " +
                                        std::to_string(most) + " bits");
        }
    }
    return {asV6(address), bits + (128 - most)};
}

U32_t reserveDescriptors(U32_t wanted, U32_t usual, U32_t each) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t needed = rlim_t{wanted > 0 ? wanted : usual} * each + OTHER_DESCRIPTORS;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = std::min(needed, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    if (limit.rlim_cur >= needed) {
        return wanted > 0 ? wanted : usual;
    }
    if (wanted > 0 || limit.rlim_cur < OTHER_DESCRIPTORS + each) {
        throw std::runtime_error(std::to_string(wanted > 0 ? wanted : 1) + " links need " +
                                 std::to_string(wanted > 0 ? needed : OTHER_DESCRIPTORS + each) +
                                 " descriptors, and this process may have " +
                                 std::to_string(limit.rlim_cur) +
                                 ": raise its limit (ulimit -n, "
                                 "LimitNOFILE=) or lower --connection-limit");
    }
    return static_cast<U32_t>((limit.rlim_cur - OTHER_DESCRIPTORS) / each);
}

SpareDescriptor::SpareDescriptor() : descriptor_(open("/dev/null", O_RDONLY | O_CLOEXEC)) {}

SpareDescriptor::~SpareDescriptor() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool SpareDescriptor::refuseOne(int listener) {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    const int taken = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (taken >= 0) {
        close(taken);
    }
    descriptor_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return taken >= 0;
}

Pace::Pace(U32_t rate, Clock::time_point now) : rate_(rate), left_(rate_ / 10), last_(now) {}

bool Pace::take(Clock::time_point now) {
    const double passed = std::chrono::duration<double>(now - last_).count();
    left_ = std::min(left_ + passed * rate_, rate_ / 10);
    last_ = now;
    if (left_ < 1) {
        return false;
    }
    left_ -= 1;
    return true;
}

Admission::Admission(const std::vector<std::string>& allow, U32_t linkLimit, U32_t hostLimit)
    : linkLimit_(linkLimit), hostLimit_(hostLimit) {
    std::ranges::transform(allow, std::back_inserter(allowed_), networkOf);
}

std::optional<std::string> Admission::enter(const asio::ip::address& address) {
    const auto isIn = [&address](const Network& network) { return network.contains(address); };
    if (!allowed_.empty() && std::ranges::none_of(allowed_, isIn)) {
        return "its address is not allowed";
    }
    if (links_ >= linkLimit_) {
        return "there are " + std::to_string(links_) + " links already";
    }
    U32_t& ofHost = hosts_[address];
    if (hostLimit_ > 0 && ofHost >= hostLimit_) {
        return "its address has " + std::to_string(ofHost) + " links already";
    }
    ++ofHost;
    ++links_;
    return std::nullopt;
}

void Admission::leave(const asio::ip::address& address) {
    --links_;
    if (const auto host = hosts_.find(address); --host->second == 0) {
        hosts_.erase(host);
    }
}

} // namespace evarchive
