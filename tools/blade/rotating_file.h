/**
 * @file
 * A log file that never grows beyond a size.
 */
#ifndef BLADE_ROTATING_FILE_H
#define BLADE_ROTATING_FILE_H

#include "fixed_width.h"

#include <string>
#include <string_view>

namespace blade {

/**
 * Lines that go to the end of a file. A line that would make it too large goes to a new file of
 * that name; the old ones get the names <path>.1 (the youngest), <path>.2 and so on. No line is
 * lost or torn; one that is larger than a whole file has a file of its own. What is no regular
 * file, such as /dev/null, only takes lines.
 */
class RotatingFile {
  public:
    /**
     * Opens the file, or makes it with mode 0600. Throws BladeError when it cannot.
     * @param sizeMax bytes, at least 1
     * @param keep    files in all, at least 1
     */
    RotatingFile(std::string path, U64_t sizeMax, U32_t keep);
    ~RotatingFile();
    RotatingFile(const RotatingFile&) = delete;
    RotatingFile& operator=(const RotatingFile&) = delete;

    /** Takes a piece of the stream of lines, cut anywhere. */
    void write(std::string_view piece);

    /** Somebody has renamed the file: from the next line on, whatever has its name now takes the
     * lines, or else a new file. */
    void followName();

  private:
    size_t fitting(std::string_view piece) const;
    void put(std::string_view bytes);
    void rotate();
    void openNamed();
    bool reopen(int flags);

    std::string path_;
    U64_t sizeMax_;
    U32_t keep_;
    int descriptor_ = -1;
    bool isRegular_ = false;
    U64_t size_ = 0;
    bool atLineStart_ = true;
    bool renamed_ = false;    ///< followName() waits for the end of a line
    bool complained_ = false; ///< a write that failed was said
};

} // namespace blade

#endif
