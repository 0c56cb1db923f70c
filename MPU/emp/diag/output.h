/**
 * @file
 * Standard output: one buffer, which holds whole lines. It is written when it is full and when it
 * is flushed: whoever waits, loops on a receive or ends the process does that. A line is never torn
 * between two writes, unless it alone is larger than the buffer.
 */
#ifndef EMP_DIAG_OUTPUT_H
#define EMP_DIAG_OUTPUT_H

#include "diag/line_format.h"

#include <cstddef>
#include <cstring>

/** Begins to hold output back. Until then, stdio gets every line at once. */
void empBufferOutput();

/** Writes what is held back, and what stdio holds. errno is left as it was. */
void empFlushOutput();

/** Bytes that can be held back yet. */
size_t empOutputRoom();

/** How much is held back: whole lines only. */
size_t empOutputMark();

/** Forgets the lines behind a mark. Nothing may have been written since. */
void empOutputReturnTo(size_t mark);

// --- A line under construction -------------------------------------------------------------------

/** What empLineRoom() gives; enough for whatever a format's own text and its numbers come to. */
constexpr size_t EMP_LINE_ROOM = 4096;

/** A place for EMP_LINE_ROOM further bytes of the line. @return its first byte; what is written
 * there counts after empLineGrown() */
char* empLineRoom();

/** Takes what was written to empLineRoom() into the line. @param end behind its last byte */
void empLineGrown(char* end);

/** Ends a line, or whatever shall stand in one piece. @param end behind its last byte
 * @return whether it could be put out; a line that is held back has been */
bool empLineEnds(char* end);

/** Puts a number at a place that has room for it. @return behind it */
char* empPutDecimal(char* at, U32_t number);

/** The same in digits of base 16. @param width digits at least, with zeros in front */
char* empPutHex(char* at, U32_t number, U32_t width, const char* digits);

/**
 * Puts a text at a place, or where the line goes on when it is longer than the room.
 * @param precision characters at most; 0: all
 * @param width     characters at least, with blanks behind
 * @return where the line goes on, as empLineRoom()
 */
char* empPutText(char* at, const char* text, U32_t precision, U32_t width);

// --- Formatted texts -----------------------------------------------------------------------------

template <typename Argument>
[[gnu::always_inline]] inline char* empPutArgument(char* at, const EmpFormatPiece_t& piece,
                                                   Argument argument) {
    if constexpr (!isLineNumber<Argument>) {
        return empPutText(at, argument, piece.precision, piece.width);
    } else if (piece.conversion == EMP_E_CONVERSION_DECIMAL) {
        return empPutDecimal(at, static_cast<U32_t>(argument));
    } else {
        return empPutHex(at, static_cast<U32_t>(argument), piece.width,
                         piece.conversion == EMP_E_CONVERSION_UPPER_HEX ? "0123456789ABCDEF"
                                                                        : "0123456789abcdef");
    }
}

/** Puts a formatted text at a place. Inline, so that a format comes to a few moves of constants:
 * lines are most of what an event costs outside the kernel. @return behind it */
template <typename... Arguments>
[[gnu::always_inline]] inline char*
empPutFormatted(char* at, const EmpLineFormat_t<Arguments...>& format, Arguments... arguments) {
    const char* text = format.text;
    const EmpFormatPiece_t* piece = format.pieces;
    (
        [&](auto argument) __attribute__((always_inline)) {
            memcpy(at, text, piece->length);
            at = empPutArgument(at + piece->length, *piece, argument);
            text += piece->length + piece->skipped;
            piece++;
        }(arguments),
        ...);
    memcpy(at, text, piece->length);
    return at + piece->length;
}

/** Prints a text, whatever empDebug is. errno is left as it was. */
template <typename... Arguments>
void empPrint(EmpLineFormatFor_t<Arguments...> format, Arguments... arguments) {
    empLineEnds(empPutFormatted(empLineRoom(), format, arguments...));
}

#endif
