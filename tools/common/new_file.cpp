#include "common/new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

/** @return 0, or an errno value */
int writeAll(int descriptor, std::span<const U8_t> bytes) {
    while (!bytes.empty()) {
        ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        bytes = bytes.subspan(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return 0;
}

/** Gives @p from the name @p to, which nothing may have. @return 0, or an errno value */
int renameToNew(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // A file system without that: by a second name.
    if (link(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    unlink(from.c_str());
    return 0;
}

/** @return false: the file stays this user's */
bool giveAway(int descriptor, const FileAccess& access) {
    struct stat made {};
    return !access.owner || fchown(descriptor, *access.owner, access.group) == 0 ||
           (fstat(descriptor, &made) == 0 && made.st_uid == *access.owner);
}

} // namespace

std::optional<FileAccess> accessOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FileAccess{(status.st_mode & 0777U) | S_IRUSR | S_IWUSR, status.st_uid, status.st_gid};
}

void failWith(const std::string& path, int error) {
    throw std::runtime_error(path + ": " + strerror(error));
}

bool writeFileWhole(const std::string& path, std::span<const U8_t> bytes,
                    const FileAccess& access) {
    int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        failWith(path, errno);
    }
    int error = writeAll(descriptor, bytes);
    bool given = giveAway(descriptor, access); // before the mode, which it may change
    if (error == 0 && (fchmod(descriptor, access.mode) != 0 || fsync(descriptor) != 0)) {
        error = errno;
    }
    if (close(descriptor) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(path.c_str());
        failWith(path, error);
    }
    return given;
}

void syncDirectoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        failWith(directory, errno);
    }
    int error = fsync(descriptor) == 0 ? 0 : errno;
    close(descriptor);
    if (error != 0 && error != EINVAL) { // EINVAL: a file system that does not do that
        failWith(directory, error);
    }
}

bool writeNewFile(const std::string& path, std::span<const U8_t> bytes, const FileAccess& access) {
    std::string part = path + ".part" + std::to_string(getpid());
    bool given = writeFileWhole(part, bytes, access);
    if (int error = renameToNew(part, path); error != 0) {
        unlink(part.c_str());
        failWith(path, error);
    }
    syncDirectoryOf(path);
    return given;
}

} // namespace tools
