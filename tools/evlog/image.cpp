#include "evlog/evlog.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Reads until the buffer is full or the file ends. @return the bytes read, or -1 with errno */
ssize_t readAll(int fd, std::span<U8_t> buffer) {
    size_t total = 0;
    while (total < buffer.size()) {
        ssize_t count = read(fd, buffer.data() + total, buffer.size() - total);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        total += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(total);
}

} // namespace

int evlogLoadDescriptor(int descriptor, EvlogImage_t* image) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    auto size = static_cast<U64_t>(status.st_size);
    std::vector<U8_t> bytes(static_cast<size_t>(std::min<U64_t>(size, EVLOG_REACHABLE)));
    ssize_t count = readAll(descriptor, bytes);
    if (count < 0) {
        return errno;
    }
    if (static_cast<size_t>(count) < bytes.size()) { // it shrank meanwhile
        bytes.resize(static_cast<size_t>(count));
        size = bytes.size();
    }
    image->bytes = std::move(bytes);
    image->fileSize = size;
    return 0;
}

int evlogLoadFile(const char* path, EvlogImage_t* image) {
    // Not blocking: a FIFO must not hang the reader before it is refused.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    int result = evlogLoadDescriptor(fd, image);
    close(fd);
    return result;
}

EvlogImage_t evlogImageOf(std::span<const U8_t> bytes) {
    size_t kept = std::min<size_t>(bytes.size(), EVLOG_REACHABLE);
    return {.bytes = {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kept)},
            .fileSize = bytes.size()};
}
