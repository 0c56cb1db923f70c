/**
 * @file
 * The standard output of a child, on its way to where it is kept.
 */
#ifndef BLADE_CHILD_OUTPUT_H
#define BLADE_CHILD_OUTPUT_H

#include "rotating_file.h"

#include <asio.hpp>

#include <optional>
#include <string>
#include <vector>

namespace blade {

/** Reads a pipe that a child writes to. It outlives the child, which may be started again. */
class ChildOutput {
  public:
    explicit ChildOutput(asio::io_context& loop) : pipe_(loop) {}
    ChildOutput(const ChildOutput&) = delete;
    ChildOutput& operator=(const ChildOutput&) = delete;

    /** Keeps it in a file; without this call it goes to this program's own standard output. */
    void keepIn(const std::string& path, U64_t sizeMax, U32_t keep);

    /** Somebody has renamed the file: the next lines go to one of its name. */
    void followName() {
        if (file_) {
            file_->followName();
        }
    }

    /** Makes a new pipe. @return its writing end, to be closed once the child has it. Throws
     * BladeError. */
    int open();

    /** Takes what the child that has ended left in the pipe. */
    void finish();

    /** The last of what the child that was given open() wrote: as much as a report needs. */
    const std::string& tail() const { return tail_; }

  private:
    void read();
    bool takeSome();
    void take(std::string_view piece);
    void sayLinesOf(std::string_view piece);

    asio::posix::stream_descriptor pipe_;
    U32_t run_ = 0; ///< of the child; what waits for an earlier one's pipe is void
    std::vector<char> buffer_;
    std::optional<RotatingFile> file_;
    std::string tail_;
    std::string line_; ///< what has come of a line for standard output
};

} // namespace blade

#endif
