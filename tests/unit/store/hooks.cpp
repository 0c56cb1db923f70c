#include "hooks.h"

#include "state/control.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace hooks {

State state;

void reset() {
    uint32_t clock = state.clock;
    state = State{};
    state.clock = clock;
}

void resetCounts() {
    state.reads.count = 0;
    state.writes.count = 0;
    state.seeks.count = 0;
    state.opens = 0;
}

} // namespace hooks

namespace {

using hooks::state;

bool isLog(int fd) {
    return fd > 2 && fd == empControl.eventLogFileFd;
}

bool endsWith(const char* path, const std::string& end) {
    std::string text(path);
    return !end.empty() && text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/** Notes an open. @return whether it is to fail */
bool noteOpen(const char* path, int flags, unsigned mode) {
    if (strstr(path, "kelta") != nullptr) {
        state.opened.push_back({path, flags, mode});
    }
    return endsWith(path, state.openName) && ++state.opens == state.failOpenAt;
}

template <typename Result>
Result failed(int error) {
    errno = error;
    return static_cast<Result>(-1);
}

} // namespace

extern "C" {

#define WRAP_SEEK(name, offset_type)                                                               \
    offset_type __real_##name(int fd, offset_type offset, int whence);                             \
    offset_type __wrap_##name(int fd, offset_type offset, int whence) {                            \
        if (isLog(fd) && state.seeks.due()) {                                                      \
            return failed<offset_type>(ESPIPE);                                                    \
        }                                                                                          \
        return __real_##name(fd, offset, whence);                                                  \
    }
WRAP_SEEK(lseek, off_t)
WRAP_SEEK(lseek64, off64_t)

#define WRAP_PREAD(name, offset_type)                                                              \
    ssize_t __real_##name(int fd, void* data, size_t length, offset_type offset);                  \
    ssize_t __wrap_##name(int fd, void* data, size_t length, offset_type offset) {                 \
        if (isLog(fd) && state.seeks.due()) {                                                      \
            return failed<ssize_t>(ESPIPE);                                                        \
        }                                                                                          \
        if (isLog(fd) && state.reads.due()) {                                                      \
            return failed<ssize_t>(EIO);                                                           \
        }                                                                                          \
        return __real_##name(fd, data, length, offset);                                            \
    }
WRAP_PREAD(pread, off_t)
WRAP_PREAD(pread64, off64_t)

#define WRAP_PWRITE(name, offset_type)                                                             \
    ssize_t __real_##name(int fd, const void* data, size_t length, offset_type offset);            \
    ssize_t __wrap_##name(int fd, const void* data, size_t length, offset_type offset) {           \
        if (!isLog(fd)) {                                                                          \
            return __real_##name(fd, data, length, offset);                                        \
        }                                                                                          \
        if (state.seeks.due()) {                                                                   \
            return failed<ssize_t>(ESPIPE);                                                        \
        }                                                                                          \
        if (state.writes.due()) {                                                                  \
            return failed<ssize_t>(state.writeError);                                              \
        }                                                                                          \
        int call = state.writes.count;                                                             \
        if (call == state.exitBeforeWrite) {                                                       \
            _exit(hooks::EXIT_STATUS);                                                             \
        }                                                                                          \
        if (call == state.exitInWrite) {                                                           \
            __real_##name(fd, data, static_cast<size_t>(state.exitInWriteBytes), offset);          \
            _exit(hooks::EXIT_STATUS);                                                             \
        }                                                                                          \
        if (call == state.shortWriteAt) {                                                          \
            length = static_cast<size_t>(state.shortWriteBytes);                                   \
        }                                                                                          \
        return __real_##name(fd, data, length, offset);                                            \
    }
WRAP_PWRITE(pwrite, off_t)
WRAP_PWRITE(pwrite64, off64_t)

#define WRAP_OPEN(name)                                                                            \
    int __real_##name(const char* path, int flags, unsigned mode);                                 \
    int __wrap_##name(const char* path, int flags, ...) {                                          \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;                  \
        va_end(arguments);                                                                         \
        if (noteOpen(path, flags, mode)) {                                                         \
            return failed<int>(EACCES);                                                            \
        }                                                                                          \
        return __real_##name(path, flags, mode);                                                   \
    }
WRAP_OPEN(open)
WRAP_OPEN(open64)

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    return state.failRename ? failed<int>(EXDEV) : __real_rename(from, to);
}

int __real_gettimeofday(struct timeval* time, void* zone);
int __wrap_gettimeofday(struct timeval* time, void* zone) {
    if (state.clock == 0) {
        return __real_gettimeofday(time, zone);
    }
    time->tv_sec = static_cast<time_t>(state.clock);
    time->tv_usec = 123456;
    return 0;
}

} // extern "C"
