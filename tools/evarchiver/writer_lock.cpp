#include "writer_lock.h"

#include "store.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace evarchive {

WriterLock::WriterLock(const std::string& path) {
    if (path == ":memory:") {
        return;
    }
    const std::string name = path + "-lock";
    descriptor_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor_ < 0) {
        throw StoreError(name + ": " + strerror(errno));
    }
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        close(descriptor_);
        throw StoreError(path + ": another archiver has this archive open");
    }
}

WriterLock::~WriterLock() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

} // namespace evarchive
