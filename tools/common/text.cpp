#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace tools {
namespace {

bool isPrintable(char letter) {
    return letter >= 0x20 && letter < 0x7F;
}

std::string escape(char letter) {
    constexpr char digits[] = "0123456789ABCDEF";
    auto byte = static_cast<unsigned char>(letter);
    return {'\\', 'x', digits[byte >> 4], digits[byte & 0x0F]};
}

struct Form {
    uint8_t mask;
    uint8_t bits;
    uint32_t least; // smaller ones have a shorter form
};

constexpr std::array<Form, 3> LONG_FORMS = {
    {{0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}}};

struct Range {
    uint32_t first;
    uint32_t last;
};

template <typename Ranges>
bool contains(const Ranges& ranges, uint32_t code) {
    return std::ranges::any_of(
        ranges, [code](const Range& range) { return code >= range.first && code <= range.last; });
}

// Marks that turn the direction of what follows, break lines or cannot be seen forge a listing.
constexpr std::array<Range, 9> INVISIBLE = {{{0x00AD, 0x00AD},
                                             {0x061C, 0x061C},
                                             {0x180E, 0x180E},
                                             {0x200B, 0x200F},
                                             {0x2028, 0x202E},
                                             {0x2060, 0x206F},
                                             {0xFEFF, 0xFEFF},
                                             {0xFFF9, 0xFFFB},
                                             {0xE0000, 0xE007F}}};

bool mayBeShown(uint32_t code) {
    bool control = code < 0xA0; // the longer forms begin at 0x80
    bool surrogate = code >= 0xD800 && code < 0xE000;
    return !control && !surrogate && !contains(INVISIBLE, code) && code <= 0x10FFFF;
}

struct Character {
    uint32_t code = 0;
    size_t length = 0; ///< bytes; 0: it is none
};

/** A character of two bytes or more. */
Character longCharacterAt(std::string_view text, size_t at) {
    auto byte = [text](size_t place) { return static_cast<uint8_t>(text[place]); };
    for (size_t form = 0; form < LONG_FORMS.size(); form++) {
        const Form& shape = LONG_FORMS[form];
        size_t length = form + 2;
        if ((byte(at) & shape.mask) != shape.bits || text.size() - at < length) {
            continue;
        }
        uint32_t code = byte(at) & static_cast<uint8_t>(~shape.mask);
        for (size_t next = 1; next < length; next++) {
            if ((byte(at + next) & 0xC0) != 0x80) {
                return {};
            }
            code = code << 6 | (byte(at + next) & 0x3F);
        }
        return code >= shape.least ? Character{code, length} : Character{};
    }
    return {};
}

// Of two columns: East Asian characters and pictures, by blocks, as the standard library's format()
// takes them, and a few blocks of pictures more.
constexpr std::array<Range, 12> WIDE = {{{0x1100, 0x115F},
                                         {0x2329, 0x232A},
                                         {0x2E80, 0x303E},
                                         {0x3040, 0xA4CF},
                                         {0xAC00, 0xD7A3},
                                         {0xF900, 0xFAFF},
                                         {0xFE10, 0xFE19},
                                         {0xFE30, 0xFE6F},
                                         {0xFF00, 0xFF60},
                                         {0xFFE0, 0xFFE6},
                                         {0x1F300, 0x1FAFF},
                                         {0x20000, 0x3FFFD}}};

// Of none: marks that stand on the character before them.
constexpr std::array<Range, 18> COMBINING = {{{0x0300, 0x036F},
                                              {0x0483, 0x0489},
                                              {0x0591, 0x05BD},
                                              {0x0610, 0x061A},
                                              {0x064B, 0x065F},
                                              {0x093C, 0x093C},
                                              {0x0941, 0x0948},
                                              {0x0E34, 0x0E3A},
                                              {0x0E47, 0x0E4E},
                                              {0x1160, 0x11FF},
                                              {0x1AB0, 0x1AFF},
                                              {0x1DC0, 0x1DFF},
                                              {0x20D0, 0x20FF},
                                              {0x302A, 0x302D},
                                              {0x3099, 0x309A},
                                              {0xFE00, 0xFE0F},
                                              {0xFE20, 0xFE2F},
                                              {0xE0100, 0xE01EF}}};

/** Whatever the locale: logs come from elsewhere, and the board may have no other than C. */
size_t columnsOf(const Character& character) {
    if (contains(COMBINING, character.code)) {
        return 0;
    }
    return contains(WIDE, character.code) ? 2 : 1;
}

/** The columns of the character that begins at @p at, which is moved behind it. */
size_t takeColumns(std::string_view text, size_t& at) {
    if (static_cast<unsigned char>(text[at]) < 0x80) {
        at++;
        return 1;
    }
    const Character character = longCharacterAt(text, at);
    at += std::max<size_t>(character.length, 1);
    return columnsOf(character);
}

} // namespace

std::string escapedText(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    auto isShown = [](char letter) { return isPrintable(letter) && letter != '\\'; };
    if (std::ranges::all_of(text, isShown)) {
        return std::string(text); // most are
    }
    std::string shown;
    for (char letter : text) {
        shown += isShown(letter) ? std::string(1, letter) : escape(letter);
    }
    return shown;
}

size_t utf8CharacterAt(std::string_view text, size_t at) {
    if (static_cast<unsigned char>(text[at]) < 0x80) {
        return isPrintable(text[at]) ? 1 : 0;
    }
    const Character character = longCharacterAt(text, at);
    return mayBeShown(character.code) ? character.length : 0;
}

namespace {

/** Everything but what may be shown as \\xNN, a backslash too if it is asked for. */
template <bool WITH_BACKSLASHES>
std::string escaped(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    size_t kept = 0; // what comes from here on is shown as it is
    for (size_t at = 0; at < text.size();) {
        size_t length = 0;
        if (!WITH_BACKSLASHES || text[at] != '\\') {
            length = isPrintable(text[at]) ? 1 : utf8CharacterAt(text, at);
        }
        if (length == 0) {
            shown.append(text, kept, at - kept).append(escape(text[at]));
            kept = at + 1;
        }
        at += std::max<size_t>(length, 1);
    }
    return shown.append(text, kept);
}

} // namespace

std::string escapedUtf8(std::string_view text) {
    return escaped<true>(text);
}

std::string shownLine(std::string_view text) {
    return escaped<false>(text);
}

size_t columnsOf(std::string_view text) {
    size_t columns = 0;
    for (size_t at = 0; at < text.size();) {
        columns += takeColumns(text, at);
    }
    return columns;
}

std::string fieldText(const void* field, size_t size) {
    const auto* text = static_cast<const char*>(field);
    return {text, strnlen(text, size)};
}

std::string hostText(const IpAddr_t& host) {
    std::string text;
    for (U8_t byte : host.bytes) {
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    }
    return text;
}

std::string keyText(int key) {
    std::array<char, 16> text{};
    snprintf(text.data(), text.size(), "0x%x", static_cast<unsigned>(key));
    return text.data();
}

std::string hexDigits(std::span<const U8_t> bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text(bytes.size() * 2, '0');
    char* place = text.data();
    for (U8_t byte : bytes) {
        *place++ = digits[byte >> 4];
        *place++ = digits[byte & 0x0F];
    }
    return text;
}

std::string cutToColumns(const std::string& text, size_t columns) {
    if (text.size() <= columns || columnsOf(text) <= columns || columns == 0) {
        return columns == 0 ? "" : text;
    }
    size_t end = 0; // as much as fits beside the ellipsis
    size_t taken = 0;
    for (size_t at = 0; taken < columns;) {
        end = at;
        taken += takeColumns(text, at);
    }
    return text.substr(0, end) + "\u2026";
}

} // namespace tools
