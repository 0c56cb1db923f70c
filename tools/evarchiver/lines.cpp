#include "lines.h"

#include "common/say.h"

#include <array>
#include <mutex>

namespace evarchive {
namespace {

constexpr std::array<const char*, 4> LEVEL_NAMES = {"info", "notice", "warning", "error"};

} // namespace

std::string stampedLine(Level level, const std::string& text, time_t now) {
    tm parts{};
    gmtime_r(&now, &parts);
    char stamp[32];
    const std::size_t size = strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ ", &parts);
    return std::string(stamp, size) + LEVEL_NAMES[static_cast<std::size_t>(level)] + ": " + text;
}

void writeLine(const std::string& line) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    tools::sayPlain(line);
}

} // namespace evarchive
