#include "evctl/hand_over.h"

#include "sources/source.h"

#include <filesystem>
#include <string>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char READER_OF_SERVERS[] = "evctl-pg";
constexpr char BELOW_PREFIX[] = "libexec/event-manager";

/** "--db=postgresql://..." too. */
bool namesServer(const std::string& argument) {
    bool isOption = argument.starts_with("--");
    return sources::isServer(isOption ? argument.substr(argument.find('=') + 1) : argument);
}

} // namespace

void handOverServers(char** argv) {
    bool isNeeded = false;
    for (char** argument = argv + 1; *argument != nullptr; argument++) {
        isNeeded = isNeeded || namesServer(*argument);
    }
    std::error_code error;
    std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!isNeeded || error) {
        return;
    }
    std::filesystem::path folder = program.parent_path();
    // Beside this program in a build folder, else where it is installed.
    for (const auto& place : {folder, folder.parent_path() / BELOW_PREFIX}) {
        execv((place / READER_OF_SERVERS).c_str(), argv);
    }
}

} // namespace evctl
