#include "database_file.h"

#include "store.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace evarchive {
namespace {

void requireLastingName(const std::string& path) {
    if (path.empty()) {
        throw StoreError("the archive has no name: events would be gone with the process");
    }
    if (path == ":memory:" || path.starts_with("file:")) {
        throw StoreError("'" + path + "' is no plain file: events could be gone with the process");
    }
}

} // namespace

DatabaseFile::DatabaseFile(std::string path) : path_(std::move(path)) {
    requireLastingName(path_);
    open();
    struct stat state {};
    fstat(descriptor_, &state);
    device_ = state.st_dev;
    inode_ = state.st_ino;
    if (!S_ISREG(state.st_mode)) {
        close(descriptor_);
        throw StoreError(path_ + ": not a file");
    }
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        close(descriptor_);
        throw StoreError(path_ + ": another archiver has this archive open");
    }
}

void DatabaseFile::open() {
    const int flags = O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    descriptor_ = ::open(path_.c_str(), flags | O_CREAT | O_EXCL, 0600);
    isMade_ = descriptor_ >= 0;
    if (!isMade_ && errno == EEXIST) {
        descriptor_ = ::open(path_.c_str(), flags);
    }
    if (descriptor_ < 0) {
        throw StoreError(path_ + ": " + strerror(errno));
    }
}

DatabaseFile::~DatabaseFile() {
    if (isMade_ && isInPlace()) {
        for (const char* suffix : {"", "-wal", "-shm"}) {
            unlink((path_ + suffix).c_str());
        }
    }
    close(descriptor_);
}

bool DatabaseFile::isInPlace() const {
    struct stat state {};
    return stat(path_.c_str(), &state) == 0 && state.st_dev == device_ && state.st_ino == inode_;
}

void DatabaseFile::requireInPlace() const {
    if (!isInPlace()) {
        throw StoreError(path_ + ": the file was deleted or replaced while it was in use");
    }
}

} // namespace evarchive
