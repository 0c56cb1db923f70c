#include "wait.h"

#include "temp_directory.h"

#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace support {
namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL{2};

} // namespace

bool waitUntil(const std::function<bool()>& reached, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!reached()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    return true;
}

void requireSoon(const std::function<bool()>& reached, const std::string& what,
                 std::chrono::milliseconds deadline) {
    if (!waitUntil(reached, deadline)) {
        throw std::runtime_error("waited in vain for " + what);
    }
}

void waitForFile(const std::string& path) {
    requireSoon([&] { return access(path.c_str(), F_OK) == 0; }, path);
}

void waitForNoFile(const std::string& path) {
    requireSoon([&] { return access(path.c_str(), F_OK) != 0; }, path + " to be gone");
}

std::string waitForLine(const std::string& path, const std::string& text) {
    std::string line;
    bool found = waitUntil([&] {
        line = findLine(readFile(path), text);
        return !line.empty();
    });
    if (!found) {
        throw std::runtime_error("waited in vain for \"" + text + "\" in " + path +
                                 ", which holds:\n" + readFile(path));
    }
    return line;
}

std::string findLine(const std::string& content, const std::string& text) {
    size_t start = 0;
    for (size_t end = content.find('\n'); end != std::string::npos;
         end = content.find('\n', start)) {
        std::string line = content.substr(start, end - start);
        if (line.find(text) != std::string::npos) {
            return line;
        }
        start = end + 1;
    }
    return {};
}

} // namespace support
