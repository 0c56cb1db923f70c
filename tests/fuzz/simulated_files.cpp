// The event manager's calls on files, directories, the clock and its streams.
#include "simulated_blade.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

using fuzz::Blade;
using fuzz::running;

namespace {

using Descriptor = Blade::Descriptor;

/** A file longer than this is a fault of whoever makes it so. */
constexpr size_t FILE_MAX = size_t{8} << 20;

int failed(int error) {
    errno = error;
    return -1;
}

/** The open file of a descriptor; NULL, with errno, when there is none or the call is to fail. */
Descriptor* fileOf(int fd) {
    if (running->fails()) {
        return nullptr;
    }
    Descriptor* descriptor = running->descriptor(fd);
    if (descriptor != nullptr && descriptor->kind != Descriptor::FILE) {
        errno = ESPIPE;
        return nullptr;
    }
    return descriptor;
}

ssize_t readAt(const Descriptor& descriptor, void* to, size_t length, size_t offset) {
    const fuzz::Bytes& bytes = *descriptor.file;
    if (offset >= bytes.size()) {
        return 0;
    }
    size_t given = std::min(length, bytes.size() - offset);
    std::memcpy(to, bytes.data() + offset, given);
    return static_cast<ssize_t>(given);
}

ssize_t writeAt(const Descriptor& descriptor, const void* from, size_t length, size_t offset) {
    fuzz::Bytes& bytes = *descriptor.file;
    fuzz::expect(offset + length <= FILE_MAX, "a file grows without bound");
    bytes.resize(std::max(bytes.size(), offset + length));
    std::memcpy(bytes.data() + offset, from, length);
    return static_cast<ssize_t>(length);
}

} // namespace

extern "C" {

int simulated_open(const char* path, int flags, ...) {
    if (std::strcmp(path, "/dev/null") == 0) {
        return running->newDescriptor({.kind = Descriptor::STANDARD});
    }
    if (running->fails()) {
        return -1;
    }
    auto found = running->files.find(path);
    if (found == running->files.end()) {
        if ((flags & O_CREAT) == 0) {
            return failed(ENOENT);
        }
        found = running->files.emplace(path, std::make_shared<fuzz::Bytes>()).first;
    }
    return running->newDescriptor({.kind = Descriptor::FILE, .file = found->second});
}

int simulated_close(int fd) {
    Descriptor* descriptor = running->descriptor(fd);
    fuzz::expect(descriptor != nullptr, "close() of a descriptor that is not open");
    *descriptor = {};
    return 0;
}

off64_t simulated_lseek(int fd, off64_t offset, int whence) {
    Descriptor* descriptor = fileOf(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    auto base = static_cast<off64_t>(whence == SEEK_SET   ? 0
                                     : whence == SEEK_CUR ? descriptor->position
                                                          : descriptor->file->size());
    if (base + offset < 0) {
        return failed(EINVAL);
    }
    descriptor->position = static_cast<size_t>(base + offset);
    return base + offset;
}

ssize_t simulated_pread(int fd, void* to, size_t length, off64_t offset) {
    Descriptor* descriptor = fileOf(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    return offset < 0 ? failed(EINVAL)
                      : readAt(*descriptor, to, length, static_cast<size_t>(offset));
}

ssize_t simulated_pwrite(int fd, const void* from, size_t length, off64_t offset) {
    Descriptor* descriptor = fileOf(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    return offset < 0 ? failed(EINVAL)
                      : writeAt(*descriptor, from, length, static_cast<size_t>(offset));
}

ssize_t simulated_read(int fd, void* to, size_t length) {
    Descriptor* descriptor = fileOf(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    ssize_t result = readAt(*descriptor, to, length, descriptor->position);
    descriptor->position += static_cast<size_t>(result);
    return result;
}

ssize_t simulated_write(int fd, const void* from, size_t length) {
    if (fd <= STDERR_FILENO) {
        return static_cast<ssize_t>(length);
    }
    Descriptor* descriptor = fileOf(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    ssize_t result = writeAt(*descriptor, from, length, descriptor->position);
    descriptor->position += static_cast<size_t>(result);
    return result;
}

int simulated_fsync(int /*fd*/) {
    return 0;
}

int simulated_access(const char* /*path*/, int /*mode*/) {
    return running->fails() ? -1 : 0;
}

int simulated_mkdir(const char* /*path*/, mode_t /*mode*/) {
    return running->fails() ? -1 : 0;
}

int simulated_mkstemp(char* path) {
    if (running->fails()) {
        return -1;
    }
    std::snprintf(path + std::strlen(path) - 6, 7, "%06u", running->temporaryFiles++);
    return simulated_open(path, O_RDWR | O_CREAT);
}

int simulated_remove(const char* path) {
    if (running->fails()) {
        return -1;
    }
    return running->files.erase(path) == 1 ? 0 : failed(ENOENT);
}

int simulated_rename(const char* from, const char* to) {
    if (running->fails()) {
        return -1;
    }
    auto found = running->files.find(from);
    if (found == running->files.end()) {
        return failed(ENOENT);
    }
    running->files[to] = found->second;
    running->files.erase(from);
    return 0;
}

/** Sizes and times of files; each is as old as its name says that it is: by its last character. */
int simulated_statx(int fd, const char* path, int flags, unsigned /*mask*/, struct statx* status) {
    if (running->fails()) {
        return -1;
    }
    *status = {};
    status->stx_mode = S_IFREG | 0600;
    if ((flags & AT_EMPTY_PATH) != 0) {
        return fileOf(fd) == nullptr ? -1 : 0;
    }
    auto found = running->files.find(path);
    if (found == running->files.end()) {
        return failed(ENOENT);
    }
    status->stx_size = found->second->size();
    status->stx_mtime.tv_sec = found->first.back();
    return 0;
}

DIR* simulated_opendir(const char* path) {
    if (running->fails()) {
        return nullptr;
    }
    std::string prefix = std::string(path) + "/";
    running->listing = {".", ".."};
    running->listed = 0;
    for (const auto& file : running->files) {
        if (file.first.starts_with(prefix)) {
            running->listing.push_back(file.first.substr(prefix.size()));
        }
    }
    return reinterpret_cast<DIR*>(&running->listing);
}

struct dirent64* simulated_readdir(DIR* /*directory*/) {
    static struct dirent64 entry;
    if (running->fails() || running->listed == running->listing.size()) {
        return nullptr;
    }
    const std::string& name = running->listing[running->listed++];
    std::snprintf(entry.d_name, sizeof(entry.d_name), "%s", name.c_str());
    return &entry;
}

int simulated_closedir(DIR* /*directory*/) {
    return 0;
}

time_t simulated_time(time_t* /*to*/) {
    return running->clock;
}

int simulated_gettimeofday(struct timeval* now, void* /*zone*/) {
    *now = {running->clock, 0};
    return 0;
}

// Standard output and standard error are not read by anybody.
size_t simulated_fwrite(const void* /*from*/, size_t /*size*/, size_t count, FILE* /*file*/) {
    return count;
}
int simulated_fflush(FILE* /*file*/) {
    return 0;
}
int simulated_printf(const char* /*format*/, ...) {
    return 0;
}
int simulated_fprintf(FILE* /*file*/, const char* /*format*/, ...) {
    return 0;
}
int simulated_fputs(const char* /*text*/, FILE* /*file*/) {
    return 0;
}
int simulated_puts(const char* /*text*/) {
    return 0;
}

// What the process asks of its own life.
int simulated_atexit(void (* /*function*/)()) {
    return 0;
}
void simulated_signal(int /*number*/, void (* /*handler*/)(int)) {}
int simulated_prctl(int /*option*/, ...) {
    return 0;
}
}
