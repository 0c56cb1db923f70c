/**
 * @file
 * The log file by positional reads and writes: done whole, or the bug-check of the caller's site.
 *
 * The file position is empLogFilePosition, a number. A seek is noted only, and meets the file with
 * the read or write behind it: an error that only a seek can meet (ESPIPE, EINVAL, EOVERFLOW) is
 * the seek's bug-check, and the position is then the one before it.
 */
#ifndef EMP_STORE_LOG_FILE_H
#define EMP_STORE_LOG_FILE_H

#include "emp_mesgs.h"
#include "fault/bugcheck.h"
#include "fixed_width.h"

inline constexpr char EMP_LSEEK_FAILS[] = "Linux lseek function fails for Event Log File!";
inline constexpr char EMP_READ_FAILS[] = "Linux read function fails for Event Log File!";
inline constexpr char EMP_WRITE_FAILS[] = "Linux write function fails for Event Log File!";

/** Takes an open file as the log file, at position 0. */
void empLogTake(S32_t fd);

/** Bug-check unless the log file is one that can be sought. */
void empLogRequireSeekable(EmpSite_t site);

/** Moves the position to @p offset from the start. @param text message of the bug-check */
void empLogSeek(S64_t offset, EmpSite_t site, const char* text = EMP_LSEEK_FAILS);

/** Moves the position where no call is to follow: back to a noted one, or to where reads that were
 * served from memory would have led. */
void empLogMoveTo(S64_t position);

/** Moves the position to the end of the file. @return that end */
S64_t empLogSeekEnd(EmpSite_t site);

/** Reads up to @p length bytes at the position. @return the bytes that arrived; -1: none, an error
 */
S64_t empLogReadSome(void* to, U32_t length);

/** Reads @p length bytes at the position; what a short read brought is dumped before the
 * bug-check. */
void empLogRead(void* to, U32_t length, EmpSite_t site);

/** empLogRead() of a record's header, which brings the data behind it along: the next empLogRead()
 * finds it in memory. The record that was written last is not read at all. */
void empLogReadHeader(EmpEvRecord_t* to, EmpSite_t site);

/** empLogRead() by way of the window (store/window.h), for those who go through the file in order.
 */
void empLogReadInOrder(void* to, U32_t length, EmpSite_t site);

/** Reads up to @p size bytes, at most EMP_WINDOW_SIZE, at the position into the window; the
 * position stays. @return the bytes that arrived; -1: none, an error */
S64_t empLogFillWindow(U32_t size);

/** Writes @p length bytes at the position. @return the bytes that were taken; -1: none, an error */
S64_t empLogWriteSome(const void* from, U32_t length);

/** Writes a record and its data at the position, in one piece that stays in memory.
 * A batch may hold it back. @return as empLogWriteSome() */
S64_t empLogWriteRecord(const EmpEvRecord_t* header, const void* data, U32_t dataLength);

/** Writes the records that are held back (state/held.h). @return false when not all of them were
 * taken; what is known of the file is then what was known before */
bool empLogWriteHeld();

/** Judges a write of @p length bytes, of which @p written were taken: the bytes of a short one are
 * dumped before the bug-check. */
void empLogRequireWritten(const void* from, S64_t written, U32_t length, EmpSite_t site);

/** Writes @p length bytes at the position; what a short write took is dumped before the
 * bug-check. */
void empLogWrite(const void* from, U32_t length, EmpSite_t site);

#endif
