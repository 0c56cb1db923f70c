/**
 * @file
 * Which connections are taken, and how many, and that there are descriptors for them.
 */
#ifndef EVARCHIVER_ADMISSION_H
#define EVARCHIVER_ADMISSION_H

#include "fixed_width.h"

#include <asio/ip/address.hpp>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace evarchive {

/** A network: all addresses that begin with the same bits. */
struct Network {
    asio::ip::address_v6 address; ///< IPv4 addresses as IPv4-mapped ones
    unsigned bits = 128;

    bool contains(const asio::ip::address& other) const;
};

/** "10.1.2.3", "10.0.0.0/8", "fd00::/8". Throws std::invalid_argument. */
Network networkOf(const std::string& text);

/**
 * Makes room for so many links, by raising the soft limit of descriptors.
 * @param wanted links, 0: as many as @p usual, or fewer where there are fewer descriptors
 * @param each   descriptors of one link
 * @return links that there are descriptors for. Throws std::runtime_error when @p wanted are not.
 */
U32_t reserveDescriptors(U32_t wanted, U32_t usual, U32_t each = 1);

/** A descriptor kept for the moment when there is none left: with it a connection can still be
 * taken and closed, so that its blade tries again later instead of waiting for ever. */
class SpareDescriptor {
  public:
    SpareDescriptor();
    ~SpareDescriptor();
    SpareDescriptor(const SpareDescriptor&) = delete;
    SpareDescriptor& operator=(const SpareDescriptor&) = delete;

    /** Takes one connection from a listening socket and closes it. @return whether there was one */
    bool refuseOne(int listener);

  private:
    int descriptor_;
};

/** So many a second, and no more than a tenth of that at once. */
class Pace {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Pace(U32_t rate, Clock::time_point now = Clock::now());

    /** @return whether one more may go now */
    bool take(Clock::time_point now);

  private:
    double rate_;
    double left_;
    Clock::time_point last_;
};

/** Who may connect. */
class Admission {
  public:
    Admission(const std::vector<std::string>& allow, U32_t linkLimit, U32_t hostLimit);

    /** @return why a connection from there is not taken; nothing: it counts from now on */
    std::optional<std::string> enter(const asio::ip::address& address);

    void leave(const asio::ip::address& address);

    U32_t links() const { return links_; }

  private:
    std::vector<Network> allowed_;
    U32_t linkLimit_;
    U32_t hostLimit_;
    U32_t links_ = 0;
    std::map<asio::ip::address, U32_t> hosts_;
};

} // namespace evarchive

#endif
