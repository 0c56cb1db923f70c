/**
 * @file
 * Seek, read and write on the log file: done whole, or the bug-check of the caller's site.
 */
#ifndef EMP_STORE_LOG_FILE_H
#define EMP_STORE_LOG_FILE_H

#include "fault/bugcheck.h"
#include "fixed_width.h"

inline constexpr char EMP_LSEEK_FAILS[] = "Linux lseek function fails for Event Log File!";
inline constexpr char EMP_READ_FAILS[] = "Linux read function fails for Event Log File!";
inline constexpr char EMP_WRITE_FAILS[] = "Linux write function fails for Event Log File!";

/** The current file position. */
S64_t empLogPosition(EmpSite_t site);

/** Moves the file position to @p offset from the start. @param text message of the bug-check */
void empLogSeek(S64_t offset, EmpSite_t site, const char* text = EMP_LSEEK_FAILS);

/** Reads @p length bytes at the file position; what a short read brought is dumped before the
 * bug-check. */
void empLogRead(void* to, U32_t length, EmpSite_t site);

/** Writes @p length bytes at the file position; what a short write took is dumped before the
 * bug-check. */
void empLogWrite(const void* from, U32_t length, EmpSite_t site);

#endif
