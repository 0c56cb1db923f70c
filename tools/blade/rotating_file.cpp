#include "rotating_file.h"

#include "common/say.h"
#include "directories.h"
#include "error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace blade {
namespace {

/** With its end, if that is there. */
size_t lengthOfLine(std::string_view piece) {
    size_t end = piece.find('\n');
    return end == std::string_view::npos ? piece.size() : end + 1;
}

} // namespace

RotatingFile::RotatingFile(std::string path, U64_t sizeMax, U32_t keep)
    : path_(std::move(path)), sizeMax_(sizeMax), keep_(keep) {
    if (access(path_.c_str(), F_OK) != 0) {
        noteMade(path_);
    }
    if (!reopen(0)) {
        throw BladeError("cannot write " + path_ + ": " + strerror(errno));
    }
}

RotatingFile::~RotatingFile() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool RotatingFile::reopen(int flags) {
    int descriptor = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | flags, 0600);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        return false;
    }
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    descriptor_ = descriptor;
    isRegular_ = S_ISREG(status.st_mode);
    size_ = static_cast<U64_t>(status.st_size);
    return true;
}

void RotatingFile::followName() {
    renamed_ = true;
    if (atLineStart_) {
        openNamed();
    }
}

void RotatingFile::openNamed() {
    renamed_ = false;
    if (!reopen(0)) {
        tools::say("cannot open " + path_ + ": " + strerror(errno) + "; the renamed file goes on");
    }
}

void RotatingFile::write(std::string_view piece) {
    if (renamed_) {
        size_t length = lengthOfLine(piece);
        put(piece.substr(0, length));
        piece.remove_prefix(length);
        if (atLineStart_) {
            openNamed();
        }
    }
    while (!piece.empty()) {
        size_t length = fitting(piece);
        if (length == 0) {
            rotate();
            length = fitting(piece);
        }
        put(piece.substr(0, length));
        piece.remove_prefix(length);
    }
}

/** @return how much of @p piece goes into this file; 0: it begins with a line for the next */
size_t RotatingFile::fitting(std::string_view piece) const {
    U64_t room = size_ < sizeMax_ ? sizeMax_ - size_ : 0;
    if (!isRegular_ || piece.size() <= room) {
        return piece.size();
    }
    size_t lastEnd =
        room == 0 ? std::string_view::npos : piece.rfind('\n', static_cast<size_t>(room - 1));
    if (lastEnd != std::string_view::npos) {
        return lastEnd + 1;
    }
    if (atLineStart_ && size_ > 0) {
        return 0;
    }
    // Never torn: a line that has begun here ends here.
    return lengthOfLine(piece);
}

void RotatingFile::put(std::string_view bytes) {
    atLineStart_ = bytes.ends_with('\n');
    while (!bytes.empty()) {
        ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            if (!std::exchange(complained_, true)) {
                tools::say("cannot write " + path_ + ": " + strerror(errno) + "; lines are lost");
            }
            return;
        }
        complained_ = false;
        size_ += static_cast<U64_t>(written);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

void RotatingFile::rotate() {
    for (U32_t number = keep_ - 1; number > 0; --number) {
        std::string from = number == 1 ? path_ : path_ + "." + std::to_string(number - 1);
        rename(from.c_str(), (path_ + "." + std::to_string(number)).c_str());
    }
    if (!reopen(keep_ == 1 ? O_TRUNC : 0)) {
        // It goes on growing, but nothing is lost.
        tools::say("cannot begin a new " + path_ + ": " + strerror(errno));
    }
    // Also when it could not be renamed: a line must go somewhere.
    size_ = 0;
}

} // namespace blade
