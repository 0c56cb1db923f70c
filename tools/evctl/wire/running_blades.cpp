#include "evctl/wire/running_blades.h"

#include "common/text.h"
#include "mpu_gbl.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace evctl {

namespace {

std::string whatToDo(const KeyOptions& options) {
    const char* other = options.otherName;
    return std::string("; name one with ") +
           (other != nullptr ? other : "--key, or give its directory");
}

/** The blade that a line of the table tells of, if it does. */
std::optional<RunningBlade> bladeOf(const std::string& line) {
    std::istringstream columns(line);
    S64_t key = 0;
    std::array<U64_t, 9> rest{}; // id mode size cpid lpid nattch uid gid cuid
    columns >> key;
    for (U64_t& column : rest) {
        columns >> column;
    }
    const auto& [id, mode, size, creatorPid, lastPid, attached, owner, group, creator] = rest;
    if (!columns || size != MPU_PARAMS_SIZE || attached == 0 || key < KEY_MIN || key > INT32_MAX) {
        return std::nullopt;
    }
    return RunningBlade{static_cast<int>(key), static_cast<uid_t>(owner),
                        static_cast<uid_t>(creator)};
}

bool isTrusted(const RunningBlade& blade) {
    auto trusted = [](uid_t user) { return user == 0 || user == geteuid(); };
    return trusted(blade.owner) && trusted(blade.creator);
}

std::string keysText(const std::vector<RunningBlade>& blades) {
    std::string text;
    for (const RunningBlade& blade : blades) {
        text += " " + tools::keyText(blade.key);
    }
    return text;
}

} // namespace

std::vector<RunningBlade> runningBlades(std::istream& table) {
    std::vector<RunningBlade> blades;
    std::string line;
    std::getline(table, line); // names of the columns
    while (std::getline(table, line)) {
        if (std::optional<RunningBlade> blade = bladeOf(line)) {
            blades.push_back(*blade);
        }
    }
    return blades;
}

int onlyRunningBlade(const KeyOptions& options) {
    std::ifstream table(SHARED_MEMORY_TABLE);
    if (!table) {
        throw std::runtime_error(std::string("which blades run here cannot be told: ") +
                                 SHARED_MEMORY_TABLE + ": " + strerror(errno) + whatToDo(options));
    }
    std::vector<RunningBlade> blades = runningBlades(table);
    size_t all = blades.size();
    if (!options.anyOwner) {
        std::erase_if(blades, [](const RunningBlade& blade) { return !isTrusted(blade); });
    }
    if (blades.size() == 1) {
        return blades.front().key;
    }
    if (blades.empty() && all > 0) {
        throw std::runtime_error(std::string("only other users' blades run here") +
                                 (options.otherName == nullptr ? "; --any-owner takes one" : ""));
    }
    throw std::runtime_error((blades.empty()
                                  ? "no blade runs here"
                                  : "several blades run here, with keys" + keysText(blades)) +
                             whatToDo(options));
}

} // namespace evctl
