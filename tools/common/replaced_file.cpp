#include "common/replaced_file.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

std::string fileToReplace(const std::string& path, const std::string& use) {
    struct stat status {};
    const bool isThere = stat(path.c_str(), &status) == 0;
    if (!isThere && errno != ENOENT) {
        failWith(path, errno);
    }
    if (isThere && !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + ": not a regular file, which " + use + " needs");
    }
    if (lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) {
        return path;
    }
    if (!isThere) {
        throw std::runtime_error(path + ": a link that leads nowhere");
    }
    return std::filesystem::canonical(path);
}

void replaceFile(const std::string& path, std::span<const U8_t> bytes, const FileAccess& access) {
    const std::string draft = path + ".new" + std::to_string(getpid());
    unlink(draft.c_str()); // of another one of this number, which was stopped half-way
    writeFileWhole(draft, bytes, accessOf(path).value_or(access));
    if (rename(draft.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(draft.c_str());
        failWith(path, error);
    }
    syncDirectoryOf(path);
}

} // namespace tools
