/**
 * @file
 * What the library's tests share: a directory and shared memory of their own, and children whose
 * end and output are looked at.
 */
#ifndef LIB_TEST_SUPPORT_H
#define LIB_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

// The library's own names.
namespace mpu {}
using namespace mpu;

/** A fresh directory, removed with all it holds. */
class TempDirectory {
  public:
    TempDirectory() {
        char name[] = "/tmp/mpuXXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDirectory() { std::filesystem::remove_all(path_); }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

/** A shared memory key that no other test process uses; its segment goes when the test ends. */
class PrivateKey {
  public:
    explicit PrivateKey(int number = 0) : key_(0x4D000000 + (getpid() & 0x3FFFFF) * 4 + number) {
        remove();
    }
    ~PrivateKey() { remove(); }
    PrivateKey(const PrivateKey&) = delete;
    PrivateKey& operator=(const PrivateKey&) = delete;

    operator int() const { return key_; }
    /** The segment that stands under the key, -1 when there is none. */
    int segment() const { return shmget(key_, 0, 0); }
    void remove() const {
        if (segment() >= 0) {
            shmctl(segment(), IPC_RMID, nullptr);
        }
    }

  private:
    int key_;
};

/** How many descriptors this process has open. */
inline int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; fd++) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

/** How a child process ended and what it printed. */
struct ChildEnd {
    int status;
    pid_t pid;
    std::string output;
    std::string errors;

    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool diedOf(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

/** Removes the line in which an emulator says that its program died of a signal. */
inline std::string withoutEmulator(std::string errors) {
    size_t begin = errors.find("qemu: uncaught target signal");
    return begin == std::string::npos ? errors
                                      : errors.erase(begin, errors.find('\n', begin) + 1 - begin);
}

/** Runs a body in a process of its own; a body that returns ends it with status 111. */
inline ChildEnd runInChild(const std::function<void()>& body) {
    TempDirectory directory;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        const struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        if (freopen((directory / "output").c_str(), "w", stdout) == nullptr ||
            freopen((directory / "errors").c_str(), "w", stderr) == nullptr) {
            _exit(112);
        }
        body();
        fflush(nullptr);
        _exit(111);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {status, pid, readFile(directory / "output"),
            withoutEmulator(readFile(directory / "errors"))};
}

/** What a body writes to standard error. */
inline std::string errorsOf(const std::function<void()>& body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

/** What a body writes to standard output. */
inline std::string outputOf(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

#endif
