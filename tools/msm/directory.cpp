#include "directory.h"

#include "common/endpoint.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace msm {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw DirectoryError(what + ": " + strerror(error));
}

/** @return 0 when somebody listens on @p path, else the errno of connect */
int probe(const std::string& path) {
    int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        fail("cannot open a socket", errno);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int error = connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
                    ? 0
                    : errno;
    close(descriptor);
    return error;
}

} // namespace

DirectoryClaim::DirectoryClaim(const std::string& path) : descriptor_(-1) {
    for (U32_t endpoint = 0; endpoint < tools::ENDPOINT_COUNT; ++endpoint) {
        checkSocketPath(tools::endpointSocketPath(path, endpoint));
    }
    descriptor_ = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor_ < 0) {
        fail("cannot open directory " + path, errno);
    }
    // The lock decides between two switches that start at the same time, where looking at the
    // sockets would be too late.
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        close(descriptor_);
        if (error == EWOULDBLOCK) {
            throw DirectoryError("another msm already listens in " + path);
        }
        fail("cannot lock directory " + path, error);
    }
}

DirectoryClaim::~DirectoryClaim() {
    close(descriptor_);
}

void removeStaleSocket(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return;
        }
        fail("cannot look at " + path, errno);
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw DirectoryError(path + " is in the way: it is not a socket");
    }
    int error = probe(path);
    // A full queue of connections is a sign of life, too.
    if (error == 0 || error == EAGAIN) {
        throw DirectoryError("somebody already listens on " + path);
    }
    if (error != ECONNREFUSED) {
        fail("cannot tell whether somebody listens on " + path, error);
    }
    if (unlink(path.c_str()) != 0) {
        fail("cannot remove " + path, errno);
    }
}

void checkSocketPath(const std::string& path) {
    if (path.size() > tools::SOCKET_PATH_MAX) {
        throw DirectoryError("socket path of " + std::to_string(path.size()) +
                             " characters, more than " + std::to_string(tools::SOCKET_PATH_MAX) +
                             ": " + path);
    }
}

} // namespace msm
