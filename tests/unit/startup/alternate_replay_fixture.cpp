#include "alternate_replay_fixture.h"

#include "mmsg.h"

#include <cerrno>

std::vector<std::string> dispatched;
std::function<void()> duringDispatch;
bool descending;
std::vector<struct dirent> listed;
size_t nextListed;
int readdirError;
std::string hiddenFrom;
std::string failingCall;
int openFlags;
std::map<std::string, int64_t> farTimes;

namespace {

bool fails(const char* call, const char* path) {
    return failingCall == call && std::string(path).find(hiddenFrom) != std::string::npos;
}

} // namespace

extern "C" void __wrap__Z19empProcEventMmsgMsgP6MMSG_s(MMSG_t* msg) {
    const char* bytes = reinterpret_cast<const char*>(msg);
    size_t length =
        static_cast<size_t>(static_cast<U8_t>(bytes[208]) << 8 | static_cast<U8_t>(bytes[209]));
    dispatched.emplace_back(bytes, 216 + length);
    printf("dispatch\n");
    if (duringDispatch) {
        duringDispatch();
    }
}

extern "C" DIR* __real_opendir(const char* name);
extern "C" DIR* __wrap_opendir(const char* name) {
    return failingCall == "opendir" ? nullptr : __real_opendir(name);
}

extern "C" struct dirent* __real_readdir64(DIR* directory);
extern "C" struct dirent* __wrap_readdir64(DIR* directory) {
    if (listed.empty()) {
        while (const struct dirent* found = __real_readdir64(directory)) {
            listed.insert(listed.end(), *found);
        }
        std::sort(listed.begin(), listed.end(), [](const auto& left, const auto& right) {
            int order = strcmp(left.d_name, right.d_name);
            return descending ? order > 0 : order < 0;
        });
    }
    if (nextListed < listed.size()) {
        EXPECT_EQ(errno, 0) << "a stale error would be taken for one of readdir";
        return &listed[nextListed++];
    }
    if (readdirError != 0) {
        errno = readdirError;
    }
    return nullptr;
}

extern "C" int __real_statx(int directory, const char* path, int flags, unsigned mask,
                            struct statx* status);
extern "C" int __wrap_statx(int directory, const char* path, int flags, unsigned mask,
                            struct statx* status) {
    if (fails("stat", path)) {
        errno = EOVERFLOW;
        return -1;
    }
    int result = __real_statx(directory, path, flags, mask, status);
    if (auto dated = farTimes.find(fs::path(path).filename()); dated != farTimes.end()) {
        status->stx_mtime.tv_sec = dated->second;
    }
    return result;
}

extern "C" int __real_open64(const char* path, int flags);
extern "C" int __wrap_open64(const char* path, int flags) {
    openFlags = flags;
    if (fails("open", path)) {
        errno = EACCES;
        return -1;
    }
    return __real_open64(path, flags);
}

extern "C" ssize_t __real_read(int fd, void* to, size_t length);
extern "C" ssize_t __wrap_read(int fd, void* to, size_t length) {
    if (failingCall == "read") {
        errno = EIO;
        return -1;
    }
    return __real_read(fd, to, length);
}

extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    if (failingCall == "calloc" && size == sizeof(EmpAelFileNameEntry_t)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

off_t realSizeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_size;
}
