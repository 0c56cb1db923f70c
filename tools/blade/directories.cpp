#include "directories.h"

#include "error.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace blade {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> made;

constexpr int LOOK = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(const std::string& path, int error) {
    throw BladeError("cannot use directory " + path + ": " + strerror(error));
}

/** A directory that is held open, so that what was looked at is what is used. */
class Place {
  public:
    // The root by another name: under emulation "/" is the tree of the board's libraries.
    Place() : path_("/"), descriptor_(open("/proc/..", LOOK)) {}
    ~Place() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    const std::string& path() const { return path_; }

    struct stat status() const {
        struct stat status {};
        if (fstat(descriptor_, &status) != 0) {
            fail(path_, errno);
        }
        return status;
    }

    /** Goes down into a directory, which is made if it is missing; never through a link. */
    void enter(const std::string& name) {
        std::string path = (path_ == "/" ? "" : path_) + "/" + name;
        if (mkdirat(descriptor_, name.c_str(), 0700) == 0) {
            noteMade(path);
        } else if (errno != EEXIST) {
            // Also what exists may be refused so, such as by a read-only file system.
            int error = errno;
            struct stat status {};
            if (fstatat(descriptor_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
                throw BladeError("cannot make directory " + path + ": " + strerror(error));
            }
        }
        int next = openat(descriptor_, name.c_str(), LOOK);
        if (next < 0) {
            int error = errno;
            struct stat status {};
            fstatat(descriptor_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
            if (S_ISLNK(status.st_mode)) {
                throw BladeError(path + " is a link: a blade's directories must not be");
            }
            if (error == ENOTDIR) {
                throw BladeError(path + " is not a directory");
            }
            fail(path, error);
        }
        close(std::exchange(descriptor_, next));
        path_ = std::move(path);
    }

    void openTo(gid_t group) const {
        std::string name = "/proc/self/fd/" + std::to_string(descriptor_);
        if (chown(name.c_str(), static_cast<uid_t>(-1), group) != 0 ||
            chmod(name.c_str(), 0710) != 0) {
            fail(path_, errno);
        }
    }

  private:
    std::string path_;
    int descriptor_;
};

void checkOwner(const std::string& path, const struct stat& status) {
    if (status.st_uid != geteuid()) {
        throw BladeError(path + " belongs to another user (uid " + std::to_string(status.st_uid) +
                         ")");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw BladeError(path + " is writable by others: chmod go-w " + path);
    }
}

/** @param administrator whom "/" belongs to: root, but for the inside of a user namespace */
void checkAbove(const std::string& path, const struct stat& status, uid_t administrator) {
    if (status.st_uid != geteuid() && status.st_uid != 0 && status.st_uid != administrator) {
        throw BladeError(path + " belongs to another user (uid " + std::to_string(status.st_uid) +
                         "), who could replace what is in it");
    }
    if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0) {
        throw BladeError(path + " is writable by everybody, who could replace what is in it");
    }
}

gid_t groupId(const std::string& name) {
    const struct group* entry = getgrnam(name.c_str());
    if (entry == nullptr) {
        throw BladeError("there is no group " + name);
    }
    return entry->gr_gid;
}

/** Cuts the last @p depth parts off @p path. @return them */
fs::path cutOff(fs::path& path, size_t depth) {
    fs::path own;
    for (; depth > 0 && path.has_relative_path(); --depth) {
        own = own.empty() ? path.filename() : path.filename() / own;
        path = path.parent_path();
    }
    return own;
}

} // namespace

void noteMade(const std::string& path) {
    made.push_back(path);
}

void takeBackMade() {
    for (; !made.empty(); made.pop_back()) {
        struct stat status {};
        const char* path = made.back().c_str();
        if (rmdir(path) != 0 && errno == ENOTDIR && lstat(path, &status) == 0 &&
            S_ISREG(status.st_mode) && status.st_size == 0) {
            unlink(path);
        }
    }
}

std::string ownDirectory(const std::string& path, size_t ownDepth, const std::string& group) {
    fs::path above = fs::absolute(path).lexically_normal();
    if (!above.has_filename()) {
        above = above.parent_path();
    }
    const fs::path own = cutOff(above, ownDepth);
    Place place;
    const uid_t administrator = place.status().st_uid;
    for (const fs::path& part : fs::weakly_canonical(above).relative_path()) {
        place.enter(part);
        checkAbove(place.path(), place.status(), administrator);
    }
    for (const fs::path& part : own) {
        place.enter(part);
        checkOwner(place.path(), place.status());
        if (!group.empty()) {
            place.openTo(groupId(group));
        }
    }
    return place.path();
}

void requireOwnFile(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISREG(status.st_mode)) {
        throw BladeError(path + " is not a regular file");
    }
    if (status.st_uid != geteuid()) {
        checkOwner(path, status);
    }
}

void requireOwnDirectory(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        throw BladeError(path + (S_ISLNK(status.st_mode) ? " is a link" : " is not a directory"));
    }
    checkOwner(path, status);
}

std::string defaultBase() {
    if (geteuid() == 0) {
        return "/run/blade";
    }
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime != '/') {
        throw BladeError("there is no place for the blade's directories: give one with --base "
                         "(XDG_RUNTIME_DIR is not set)");
    }
    return std::string(runtime) + "/blade";
}

} // namespace blade
