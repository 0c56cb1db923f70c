#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdint>

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

bool mayBeShown(uint32_t code) {
    bool control = code < 0xA0; // the longer forms begin at 0x80
    bool surrogate = code >= 0xD800 && code < 0xE000;
    // Marks that turn the direction of what follows, or break lines, forge a listing.
    bool invisible = (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
                     (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
    return !control && !surrogate && !invisible && code <= 0x10FFFF;
}

} // namespace

std::string escapedText(std::string_view text) {
    std::string shown;
    for (char letter : text.substr(0, text.find('\0'))) {
        shown += isPrintable(letter) && letter != '\\' ? std::string(1, letter) : escape(letter);
    }
    return shown;
}

size_t utf8CharacterAt(std::string_view text, size_t at) {
    auto byte = [text](size_t place) { return static_cast<uint8_t>(text[place]); };
    if (byte(at) < 0x80) {
        return isPrintable(text[at]) ? 1 : 0;
    }
    for (size_t form = 0; form < LONG_FORMS.size(); form++) {
        const Form& shape = LONG_FORMS[form];
        size_t length = form + 2;
        if ((byte(at) & shape.mask) != shape.bits || text.size() - at < length) {
            continue;
        }
        uint32_t code = byte(at) & static_cast<uint8_t>(~shape.mask);
        for (size_t next = 1; next < length; next++) {
            if ((byte(at + next) & 0xC0) != 0x80) {
                return 0;
            }
            code = code << 6 | (byte(at + next) & 0x3F);
        }
        return code >= shape.least && mayBeShown(code) ? length : 0;
    }
    return 0;
}

std::string escapedUtf8(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    size_t kept = 0; // what comes from here on is shown as it is
    for (size_t at = 0; at < text.size();) {
        size_t length = 0;
        if (text[at] != '\\') {
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

size_t columnsOf(std::string_view text) {
    size_t columns = 0;
    for (char letter : text) {
        columns += (static_cast<unsigned char>(letter) & 0xC0) != 0x80 ? 1 : 0;
    }
    return columns;
}

std::string cutToColumns(const std::string& text, size_t columns) {
    if (text.size() <= columns || columnsOf(text) <= columns || columns == 0) {
        return columns == 0 ? "" : text;
    }
    size_t end = 0;
    for (size_t column = 0; column + 1 < columns; column++) {
        do {
            end++;
        } while ((static_cast<unsigned char>(text[end]) & 0xC0) == 0x80);
    }
    return text.substr(0, end) + "\u2026";
}

} // namespace tools
