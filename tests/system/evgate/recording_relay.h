/**
 * @file
 * A wire between the two ends of a gate that writes down what passes, and can be cut.
 */
#ifndef TEST_RECORDING_RELAY_H
#define TEST_RECORDING_RELAY_H

#include "fixed_width.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace support {

/** Takes connections on a port of the loopback and carries them to another one, one at a time. */
class RecordingRelay {
  public:
    explicit RecordingRelay(U16_t to);
    ~RecordingRelay();
    RecordingRelay(const RecordingRelay&) = delete;
    RecordingRelay& operator=(const RecordingRelay&) = delete;

    U16_t port() const { return port_; }

    /** What passed towards the archive, or back, over all connections. */
    std::vector<U8_t> sent();
    std::vector<U8_t> returned();

    /** Cuts the connection once so many more bytes have come back. */
    void cutAfterReturned(size_t bytes) { left_ = bytes; }

  private:
    void run();
    void carry(int near, int far);
    bool move(int from, int to, std::vector<U8_t>& record, bool isBack);

    int listener_;
    int stop_; ///< becomes readable at the end
    U16_t to_;
    U16_t port_ = 0;
    std::mutex mutex_;
    std::vector<U8_t> sent_;
    std::vector<U8_t> returned_;
    std::atomic<size_t> left_{SIZE_MAX};
    std::thread thread_;
};

} // namespace support

#endif
