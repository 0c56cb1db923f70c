#include "catalog/catalog.h"

#include "common/text.h"

#include <algorithm>

namespace catalog {
namespace {

U64_t numberOf(std::span<const U8_t> bytes, Order order) {
    U64_t big = 0;
    U64_t little = 0;
    for (size_t at = 0; at < bytes.size(); at++) {
        big = big << 8 | bytes[at];
        little |= U64_t{bytes[at]} << (8 * at);
    }
    switch (order) {
    case Order::BIG:
        return big;
    case Order::LITTLE:
        return little;
    default:
        return std::min(big, little);
    }
}

bool isNumber(const Field& field) {
    return field.kind == Kind::UNSIGNED || field.kind == Kind::SIGNED;
}

/** The bytes of a field; nothing when the data ends before it. A text may be cut. */
std::optional<std::span<const U8_t>> bytesOf(const Field& field, std::span<const U8_t> data) {
    bool mayBeCut = field.kind == Kind::TEXT;
    if (data.size() < field.offset + size_t{mayBeCut ? 1 : field.width}) {
        return std::nullopt;
    }
    return data.subspan(field.offset, std::min<size_t>(field.width, data.size() - field.offset));
}

U64_t rawNumber(const Field& field, std::span<const U8_t> bytes) {
    U64_t number = numberOf(bytes, field.order);
    unsigned bits = static_cast<unsigned>(bytes.size()) * 8;
    bool negative = field.kind == Kind::SIGNED && bits < 64 && (number >> (bits - 1) & 1) != 0;
    return negative ? number | ~U64_t{0} << bits : number;
}

/** @param isSaid within a sentence, where the name of a value is enough */
std::string numberText(const Field& field, std::span<const U8_t> bytes, bool isSaid) {
    U64_t number = rawNumber(field, bytes);
    auto value = static_cast<S64_t>(number);
    std::string digits =
        field.kind == Kind::SIGNED ? std::to_string(value) : std::to_string(number);
    auto name = field.names.find(value);
    if (name != field.names.end()) {
        return isSaid ? name->second : name->second + "(" + digits + ")";
    }
    return field.unit.empty() ? digits : digits + " " + field.unit;
}

std::string hexText(std::span<const U8_t> bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (U8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string_view viewOf(std::span<const U8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

} // namespace

namespace {

std::string textOf(const Field& field, std::span<const U8_t> data, bool isSaid) {
    std::optional<std::span<const U8_t>> bytes = bytesOf(field, data);
    if (!bytes) {
        return "?";
    }
    switch (field.kind) {
    case Kind::TEXT: {
        std::string_view text = viewOf(*bytes);
        return tools::escapedUtf8(text.substr(0, text.find('\0')));
    }
    case Kind::HEX:
        return hexText(*bytes);
    case Kind::IPV4:
        return std::to_string((*bytes)[0]) + "." + std::to_string((*bytes)[1]) + "." +
               std::to_string((*bytes)[2]) + "." + std::to_string((*bytes)[3]);
    default:
        return numberText(field, *bytes, isSaid);
    }
}

} // namespace

bool hasValue(const Field& field, std::span<const U8_t> data) {
    return bytesOf(field, data).has_value();
}

std::string valueText(const Field& field, std::span<const U8_t> data) {
    return textOf(field, data, false);
}

std::optional<S64_t> valueNumber(const Field& field, std::span<const U8_t> data) {
    std::optional<std::span<const U8_t>> bytes = bytesOf(field, data);
    if (!bytes || !isNumber(field)) {
        return std::nullopt;
    }
    return static_cast<S64_t>(rawNumber(field, *bytes));
}

std::string messageOf(const Entry& entry, std::span<const U8_t> data) {
    std::string message;
    const std::string& text = entry.text;
    for (size_t at = 0; at < text.size(); at++) {
        size_t end = text[at] == '{' ? text.find('}', at) : std::string::npos;
        const Field* field = end == std::string::npos
                                 ? nullptr
                                 : entry.field(std::string_view(text).substr(at + 1, end - at - 1));
        if (field == nullptr) {
            message += text[at];
            continue;
        }
        message += textOf(*field, data, true);
        at = end;
    }
    return message;
}

namespace {

/** Bytes of data that are no part of a text: neither shown as they are nor line ends or tabulators.
 * @return nothing when a NUL is among them */
std::optional<size_t> strangeBytes(std::string_view text) {
    size_t strange = 0;
    for (size_t at = 0; at < text.size();) {
        bool isPlain = text[at] >= 0x20 && text[at] < 0x7F; // most are
        bool isLayout = text[at] == '\n' || text[at] == '\r' || text[at] == '\t';
        size_t length = isPlain || isLayout ? 1 : tools::utf8CharacterAt(text, at);
        if (text[at] == '\0') {
            return std::nullopt;
        }
        strange += length == 0 ? 1 : 0;
        at += std::max<size_t>(length, 1);
    }
    return strange;
}

} // namespace

std::optional<std::string> plainText(std::span<const U8_t> data) {
    std::string_view text = viewOf(data);
    size_t last = text.find_last_not_of('\0');
    if (last == std::string_view::npos) {
        return std::nullopt;
    }
    text = text.substr(0, last + 1);
    const std::optional<size_t> strange = strangeBytes(text);
    // Few bytes may look like a text by chance: all of them must then be of one.
    const size_t most = text.size() < PLAIN_TEXT_SHORT ? 0 : text.size() / PLAIN_TEXT_SHARE;
    if (!strange || *strange > most) {
        return std::nullopt;
    }
    return tools::escapedUtf8(text);
}

} // namespace catalog
