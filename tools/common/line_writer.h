/**
 * @file
 * Lines for a reader that may stall or vanish.
 */
#ifndef TOOLS_LINE_WRITER_H
#define TOOLS_LINE_WRITER_H

#include "fixed_width.h"

#include <string>
#include <string_view>

namespace tools {

/**
 * Writes whole lines and never waits: a line that the reader has no room for is dropped and
 * counted, as is every line once the reader is gone. SIGPIPE must be ignored.
 */
class LineWriter {
  public:
    /**
     * @param descriptor a file, which takes every line, or a pipe, terminal or socket. It stays the
     *                   caller's, and its flags, which it may share with other programs, stay as
     *                   they are.
     * @param name       begins the line that tells how many were dropped before it
     */
    LineWriter(int descriptor, std::string name);
    ~LineWriter();
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    /** Writes @p line and a line feed. */
    void write(std::string_view line);

    U64_t dropped() const { return dropped_; } ///< lines, since construction

  private:
    bool put(std::string_view bytes);
    bool finishRest();
    ssize_t writeNow(std::string_view bytes) const;

    int descriptor_;
    int own_ = -1; ///< the same pipe or terminal, opened once more so as not to wait; -1: none
    bool isSocket_ = false;
    std::string name_;
    std::string text_; ///< the line that is being written
    std::string rest_; ///< of a line that went out in part
    U64_t dropped_ = 0;
    U64_t told_ = 0; ///< of dropped_
};

} // namespace tools

#endif
