/**
 * @file
 * Texts from elsewhere, made fit to be shown.
 */
#ifndef TOOLS_TEXT_H
#define TOOLS_TEXT_H

#include "emp_mesgs.h"

#include <span>
#include <string>
#include <string_view>

namespace tools {

/** Up to the first NUL, with everything but printable ASCII, and the backslash, as \\xNN. */
std::string escapedText(std::string_view text);

/** escapedText() that leaves UTF-8 characters but control ones as they are, and does not end at a
 * NUL. */
std::string escapedUtf8(std::string_view text);

/** escapedUtf8() that leaves the backslash: a line in which parts are escaped already, and others,
 * such as names of files, are not. */
std::string shownLine(std::string_view text);

/** Bytes of the UTF-8 character that begins at @p at: 1 to 4; 0 when none that may be shown does
 * (control characters, surrogates, over-long forms and the rest of what is no UTF-8). */
size_t utf8CharacterAt(std::string_view text, size_t at);

/** Columns that @p text takes on a terminal, whatever the locale: two for an East Asian character,
 * none for a mark that stands on the one before it, one for each other (also for a byte that is no
 * UTF-8). */
size_t columnsOf(std::string_view text);

/** Text of a fixed-size field that may hold no NUL. */
std::string fieldText(const void* field, size_t size);

/** "192.0.2.7" */
std::string hostText(const IpAddr_t& host);

/** The key of a shared memory segment, as people read it: 0x1234. */
std::string keyText(int key);

/** Two hexadecimal digits a byte. */
std::string hexDigits(std::span<const U8_t> bytes);

/** As much of @p text as @p columns hold; when more was there, with an ellipsis at its end. */
std::string cutToColumns(const std::string& text, size_t columns);

} // namespace tools

#endif
