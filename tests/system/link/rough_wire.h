/**
 * @file
 * A wire that delays, loses and reorders packets: two tun devices and a thread that carries packets
 * from one to the other.
 */
#ifndef TEST_ROUGH_WIRE_H
#define TEST_ROUGH_WIRE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace support {

/** How rough it is. */
struct Roughness {
    std::chrono::milliseconds delay{0};  ///< of each packet, at least
    std::chrono::milliseconds jitter{0}; ///< more at most: packets overtake each other
    unsigned lost = 0;                   ///< packets of a thousand
};

/** Makes the devices; they are gone with it. Throws std::runtime_error when it cannot. */
class RoughWire {
  public:
    RoughWire(const std::string& oneEnd, const std::string& otherEnd, const Roughness& roughness);
    ~RoughWire();
    RoughWire(const RoughWire&) = delete;
    RoughWire& operator=(const RoughWire&) = delete;

    std::size_t carried() const { return carried_; }
    std::size_t lost() const { return lost_; }
    std::size_t overtaken() const { return overtaken_; }

  private:
    using Clock = std::chrono::steady_clock;

    struct Packet {
        Clock::time_point due;
        std::size_t number;
        int to;
        std::vector<std::uint8_t> bytes;

        bool operator>(const Packet& other) const { return due > other.due; }
    };

    void run();
    void take(int from, int to);
    void sendDue();

    Roughness roughness_;
    int ends_[2];
    std::mt19937 random_{1};
    std::priority_queue<Packet, std::vector<Packet>, std::greater<>> underWay_;
    std::size_t taken_ = 0;
    std::size_t newest_ = 0; ///< number of the packet that has come furthest
    std::atomic<std::size_t> carried_ = 0;
    std::atomic<std::size_t> lost_ = 0;
    std::atomic<std::size_t> overtaken_ = 0;
    std::atomic<bool> isOver_ = false;
    std::thread thread_;
};

} // namespace support

#endif
