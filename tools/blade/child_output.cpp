#include "child_output.h"

#include "common/say.h"
#include "error.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace blade {
namespace {

constexpr size_t BUFFER_SIZE = size_t{256} * 1024;
/** A child that is faster than this process need not wait for every piece. */
constexpr int PIPE_SIZE = 1 << 20;
/** The report of a bug-check is about 300 KB; its frame comes first. */
constexpr size_t TAIL_MIN = size_t{512} * 1024;

} // namespace

void ChildOutput::keepIn(const std::string& path, U64_t sizeMax, U32_t keep) {
    file_.emplace(path, sizeMax, keep);
}

int ChildOutput::open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw BladeError(std::string("cannot make a pipe: ") + strerror(errno));
    }
    fcntl(ends[0], F_SETPIPE_SZ, PIPE_SIZE); // as it is where that is not allowed
    buffer_.resize(BUFFER_SIZE);
    tail_.clear();
    ++run_;
    pipe_.assign(ends[0]);
    pipe_.non_blocking(true);
    read();
    return ends[1];
}

/** Waits first and reads then, so that nothing is on its way when finish() reads. */
void ChildOutput::read() {
    pipe_.async_wait(asio::posix::stream_descriptor::wait_read,
                     [this, run = run_](std::error_code error) {
                         if (!error && run == run_ && takeSome()) {
                             read();
                         }
                     });
}

/** @return false at the end of the stream */
bool ChildOutput::takeSome() {
    std::error_code error;
    size_t bytes = pipe_.read_some(asio::buffer(buffer_), error);
    take({buffer_.data(), bytes});
    return bytes > 0 || error == asio::error::would_block;
}

void ChildOutput::finish() {
    if (!pipe_.is_open()) {
        return;
    }
    std::error_code error;
    while (size_t bytes = pipe_.read_some(asio::buffer(buffer_), error)) {
        take({buffer_.data(), bytes});
    }
    pipe_.close(error);
    if (!line_.empty()) {
        sayLinesOf("\n");
    }
}

void ChildOutput::take(std::string_view piece) {
    if (tail_.size() > 2 * TAIL_MIN) {
        tail_.erase(0, tail_.size() - TAIL_MIN);
    }
    tail_.append(piece);
    if (file_) {
        file_->write(piece);
    } else {
        sayLinesOf(piece);
    }
}

void ChildOutput::sayLinesOf(std::string_view piece) {
    for (size_t end = 0; (end = piece.find('\n')) != std::string_view::npos;
         piece.remove_prefix(end + 1)) {
        line_.append(piece.substr(0, end));
        tools::sayPlain(line_);
        line_.clear();
    }
    line_.append(piece);
}

} // namespace blade
