/**
 * @file
 * The file that says how far events were handed on.
 */
#ifndef EVBRIDGE_CURSOR_FILE_H
#define EVBRIDGE_CURSOR_FILE_H

#include "fixed_width.h"

#include <optional>
#include <string>

namespace evbridge {

/** What stands in it. */
struct Cursor {
    U64_t suppressed = 0; ///< events that a receiver has not been told of, nor how many they are
    std::string position; ///< of the feed, as lines; empty: nothing was handed on

    bool operator==(const Cursor&) const = default;
};

/** The file of one bridge: while it is there, no other process has one of the same path. */
class CursorFile {
  public:
    /** Throws std::runtime_error when another process has it, or when it is no regular file
     * and no link to one, std::system_error when the lock beside it cannot be made. */
    explicit CursorFile(const std::string& path);
    ~CursorFile();
    CursorFile(const CursorFile&) = delete;
    CursorFile& operator=(const CursorFile&) = delete;

    /** Nothing when there is no file. Throws std::runtime_error when it is another file. */
    std::optional<Cursor> read() const;

    /** Replaces it, whole or not at all, so that it survives a loss of power; not when it says so
     * already; owner and mode stay. Throws std::runtime_error. */
    void write(const Cursor& cursor);

  private:
    std::string path_;
    int lock_ = -1;
    std::optional<Cursor> written_;
};

} // namespace evbridge

#endif
