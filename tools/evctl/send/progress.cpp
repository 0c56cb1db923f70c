#include "evctl/send/progress.h"

#include <iostream>
#include <unistd.h>

namespace evctl {
namespace {

constexpr U64_t BAR_WIDTH = 40;
constexpr std::chrono::milliseconds FIRST_SHOWN{1000};
constexpr std::chrono::milliseconds BETWEEN{100};
constexpr char CLEAR_LINE[] = "\r\x1B[K";

} // namespace

std::string progressBar(U64_t done, U64_t total) {
    auto filled = static_cast<size_t>(static_cast<double>(done) / static_cast<double>(total) *
                                      static_cast<double>(BAR_WIDTH));
    std::string bar = "[";
    bar.append(filled, '#').append(BAR_WIDTH - filled, ' ').append("] ");
    return bar.append(std::to_string(done)).append("/").append(std::to_string(total));
}

Progress::Progress(U64_t total)
    : total_(total), terminal_(isatty(STDERR_FILENO) != 0),
      next_(std::chrono::steady_clock::now() + FIRST_SHOWN) {}

Progress::~Progress() {
    if (shown_) {
        std::cerr << CLEAR_LINE << std::flush;
    }
}

void Progress::show(U64_t done) {
    if (!terminal_) {
        return;
    }
    auto now = std::chrono::steady_clock::now();
    if (now < next_) {
        return;
    }
    next_ = now + BETWEEN;
    shown_ = true;
    std::cerr << CLEAR_LINE << progressBar(done, total_) << std::flush;
}

} // namespace evctl
