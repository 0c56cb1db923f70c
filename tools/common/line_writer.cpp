#include "common/line_writer.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

LineWriter::LineWriter(int descriptor, std::string name)
    : descriptor_(descriptor), name_(std::move(name)) {
    struct stat status {};
    if (fstat(descriptor_, &status) != 0) {
        return;
    }
    isSocket_ = S_ISSOCK(status.st_mode);
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        std::string path = "/proc/self/fd/" + std::to_string(descriptor_);
        own_ = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
}

LineWriter::~LineWriter() {
    if (own_ >= 0) {
        close(own_);
    }
}

void LineWriter::write(std::string_view line) {
    text_.clear();
    if (U64_t count = dropped_ - told_; count > 0) {
        text_.append(name_).append(": ").append(std::to_string(count));
        text_.append(" lines were dropped here: nobody read\n");
    }
    text_.append(line).append("\n");
    if (finishRest() && put(text_)) {
        told_ = dropped_;
    } else {
        ++dropped_;
    }
}

/** The rest of a line that went out in part comes before all others. */
bool LineWriter::finishRest() {
    if (rest_.empty()) {
        return true;
    }
    std::string rest = std::exchange(rest_, "");
    if (!put(rest)) {
        rest_ = std::move(rest);
    }
    return rest_.empty();
}

/** @return false when nothing could be written; what is only part of @p bytes is finished later */
bool LineWriter::put(std::string_view bytes) {
    ssize_t written = 0;
    do {
        written = writeNow(bytes);
    } while (written < 0 && errno == EINTR);
    if (written > 0 && static_cast<size_t>(written) < bytes.size()) {
        rest_ = bytes.substr(static_cast<size_t>(written));
    }
    return written > 0;
}

ssize_t LineWriter::writeNow(std::string_view bytes) const {
    if (isSocket_) {
        return send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (own_ >= 0) {
        return ::write(own_, bytes.data(), bytes.size());
    }
    // A file, or what may not be opened again, such as another user's pipe.
    struct pollfd entry {
        .fd = descriptor_, .events = POLLOUT, .revents = 0
    };
    if (poll(&entry, 1, 0) != 1) {
        errno = EAGAIN;
        return -1;
    }
    return ::write(descriptor_, bytes.data(), bytes.size());
}

} // namespace tools
