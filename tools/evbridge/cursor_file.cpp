#include "cursor_file.h"

#include "common/replaced_file.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

namespace evbridge {
namespace {

constexpr std::string_view FIRST_LINE = "evbridge 1";
constexpr std::string_view SUPPRESSED = " suppressed ";

[[noreturn]] void failAt(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// "evbridge 1" or "evbridge 1 suppressed 12"
bool takeFirstLine(std::string_view line, Cursor& cursor) {
    if (!line.starts_with(FIRST_LINE)) {
        return false;
    }
    line.remove_prefix(FIRST_LINE.size());
    if (line.empty()) {
        return true;
    }
    if (!line.starts_with(SUPPRESSED)) {
        return false;
    }
    line.remove_prefix(SUPPRESSED.size());
    const auto [stop, error] =
        std::from_chars(line.data(), line.data() + line.size(), cursor.suppressed);
    return error == std::errc() && stop == line.data() + line.size();
}

std::string contentOf(const Cursor& cursor) {
    std::string content(FIRST_LINE);
    if (cursor.suppressed > 0) {
        content.append(SUPPRESSED).append(std::to_string(cursor.suppressed));
    }
    return content + "\n" + cursor.position;
}

} // namespace

// The lock stands beside the file, which is replaced again and again; of a link beside its target.
CursorFile::CursorFile(const std::string& path) : path_(tools::fileToReplace(path, "a cursor")) {
    const std::string beside = path_ + ".lock";
    lock_ = open(beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (lock_ < 0) {
        failAt(beside);
    }
    if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        close(lock_);
        if (error == EWOULDBLOCK) {
            throw std::runtime_error(path_ + ": another evbridge works with this cursor");
        }
        errno = error;
        failAt(beside);
    }
}

CursorFile::~CursorFile() {
    close(lock_);
}

std::optional<Cursor> CursorFile::read() const {
    // Something else may have taken its place since.
    std::ifstream file(tools::fileToReplace(path_, "a cursor"));
    if (!file) {
        if (access(path_.c_str(), F_OK) == 0) {
            throw std::runtime_error(path_ + ": it cannot be read");
        }
        return std::nullopt;
    }
    Cursor cursor;
    std::string first;
    if (!std::getline(file, first) || !takeFirstLine(first, cursor)) {
        throw std::runtime_error(path_ + ": it is no cursor of evbridge");
    }
    std::ostringstream rest;
    rest << file.rdbuf();
    cursor.position = rest.str();
    return cursor;
}

void CursorFile::write(const Cursor& cursor) {
    if (cursor == written_) {
        return;
    }
    const std::string content = contentOf(cursor);
    tools::replaceFile(tools::fileToReplace(path_, "a cursor"),
                       {reinterpret_cast<const U8_t*>(content.data()), content.size()},
                       tools::accessOf(path_ + ".lock").value_or(tools::FileAccess{}));
    written_ = cursor;
}

} // namespace evbridge
