#include "failing_files.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

FailingCall failingAccess;
FailingCall failingMkdir;
FailingCall failingMkstemp;
FailingCall failingLseek;
FailingCall failingWrite;
FailingCall failingFsync;
FailingCall failingSigaction;
int closeCalls;
struct timeval wallClock;
long writeLimit = -1;
void (*beforeWrite)();
const char* procFile;
std::string openedPath;

extern "C" {

int __real_access(const char* path, int mode);
int __wrap_access(const char* path, int mode) {
    return failingAccess.fails() ? -1 : __real_access(path, mode);
}

int __real_mkdir(const char* path, mode_t mode);
int __wrap_mkdir(const char* path, mode_t mode) {
    return failingMkdir.fails() ? -1 : __real_mkdir(path, mode);
}

int __real_mkstemp64(char* path);
int __wrap_mkstemp64(char* path) {
    return failingMkstemp.fails() ? -1 : __real_mkstemp64(path);
}

off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    return failingLseek.fails() ? -1 : __real_lseek64(fd, offset, whence);
}

ssize_t __real_write(int fd, const void* from, size_t length);
ssize_t __wrap_write(int fd, const void* from, size_t length) {
    if (beforeWrite != nullptr) {
        auto* hook = beforeWrite;
        beforeWrite = nullptr;
        hook();
    }
    if (failingWrite.fails()) {
        return -1;
    }
    return __real_write(fd, from, writeLimit < 0 ? length : std::min(length, size_t(writeLimit)));
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    return failingFsync.fails() ? -1 : __real_fsync(fd);
}

int __real_close(int fd);
int __wrap_close(int fd) {
    closeCalls++;
    return __real_close(fd);
}

int __real_gettimeofday(struct timeval* now, void* zone);
int __wrap_gettimeofday(struct timeval* now, void* zone) {
    if (wallClock.tv_sec == 0) {
        return __real_gettimeofday(now, zone);
    }
    *now = wallClock;
    return 0;
}

int __real_sigaction(int number, const struct sigaction* action, struct sigaction* old);
int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* old) {
    return failingSigaction.fails() ? -1 : __real_sigaction(number, action, old);
}

int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    openedPath = path;
    bool isReplaced = procFile != nullptr && strncmp(path, "/proc/", 6) == 0;
    return __real_open64(isReplaced ? procFile : path, flags, mode);
}
}
