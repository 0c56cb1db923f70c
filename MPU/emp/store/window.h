/**
 * @file
 * The stretch of the log file that is kept in memory for those who go through it in order: the
 * search for records, and the append, which reads the oldest records before it discards them.
 *
 * Nobody but the event manager writes the file, and each of its writes is repeated here. So what is
 * in the window is what a read of the file would bring.
 */
#ifndef EMP_STORE_WINDOW_H
#define EMP_STORE_WINDOW_H

#include "fixed_width.h"

/** Room of the window: more than a header and the longest data that one can announce. */
constexpr U32_t EMP_WINDOW_SIZE = 131'072;

/** As much is read at once, unless more is needed. */
constexpr U32_t EMP_WINDOW_STEP = 65'536;

/** Bytes in memory from @p offset on; none when the offset lies outside the window. */
U32_t empWindowAvailable(U64_t offset);

/** The bytes at an offset of the window. */
const U8_t* empWindowAt(U64_t offset);

/** Where the window's bytes are put that begin at @p offset of the file; it is empty until
 * empWindowHolds(). */
U8_t* empWindowOpen(U64_t offset);

/** The window holds @p length bytes now. */
void empWindowHolds(U32_t length);

/** Repeats a write to the file. */
void empWindowWrite(U64_t offset, const void* bytes, U32_t length);

#endif
