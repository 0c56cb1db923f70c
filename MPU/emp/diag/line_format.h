/**
 * @file
 * The formats of debug lines: printf formats of a few conversions, taken apart by the compiler.
 */
#ifndef EMP_DIAG_LINE_FORMAT_H
#define EMP_DIAG_LINE_FORMAT_H

#include "fixed_width.h"

#include <type_traits>

/** How an argument is shown. */
enum EMP_CONVERSION_e : U8_t {
    EMP_E_CONVERSION_NONE,      ///< nothing: the end of the format
    EMP_E_CONVERSION_DECIMAL,   ///< %d
    EMP_E_CONVERSION_UPPER_HEX, ///< %X, %02X, %08X: filled with zeros
    EMP_E_CONVERSION_LOWER_HEX, ///< %x, %08x
    EMP_E_CONVERSION_TEXT,      ///< %s, %.64s, %-56s: cut, filled with blanks on the right
};

/** A piece of a format: text that stands as it is, and the conversion behind it. */
struct EmpFormatPiece_t {
    U8_t length;     ///< of the text
    U8_t conversion; ///< EMP_CONVERSION_e
    U8_t width;      ///< characters of the conversion at least
    U8_t precision;  ///< characters of a text at most; 0: all
    U8_t skipped;    ///< characters of the conversion in the format
};

/** Whether an argument of this type is shown by a number's conversion: what printf takes as an int
 * or an unsigned. */
template <typename Argument>
inline constexpr bool isLineNumber = (std::is_integral_v<Argument> ||
                                      std::is_enum_v<Argument>)&&sizeof(Argument) <= sizeof(int);

/**
 * A printf format for arguments of these types. Made of a literal, by the compiler, which refuses
 * a literal that does not fit them.
 */
template <typename... Arguments>
class EmpLineFormat_t {
    static_assert(sizeof...(Arguments) <= 8, "the format may need more than EMP_LINE_ROOM");

  public:
    consteval EmpLineFormat_t(const char* literal) : text(literal), pieces{} {
        const char* at = literal;
        constexpr bool numbers[] = {isLineNumber<Arguments>..., false};
        for (unsigned i = 0; i < sizeof...(Arguments); i++) {
            at = takeText(at, pieces[i]);
            at = takeConversion(at, pieces[i]);
            if ((pieces[i].conversion != EMP_E_CONVERSION_TEXT) != numbers[i]) {
                throw "a conversion does not fit its argument";
            }
        }
        if (*takeText(at, pieces[sizeof...(Arguments)]) != '\0') {
            throw "a conversion has no argument";
        }
    }

    const char* text;
    EmpFormatPiece_t pieces[sizeof...(Arguments) + 1]; ///< the last one without a conversion

  private:
    static consteval const char* takeText(const char* at, EmpFormatPiece_t& piece) {
        const char* from = at;
        while (*at != '%' && *at != '\0') {
            at++;
        }
        if (at - from > 255) {
            throw "the text is too long";
        }
        piece.length = static_cast<U8_t>(at - from);
        return at;
    }

    static consteval const char* takeNumber(const char* at, U8_t& number) {
        while (*at >= '0' && *at <= '9') {
            number = static_cast<U8_t>(number * 10 + (*at - '0'));
            at++;
        }
        return at;
    }

    static consteval const char* takeConversion(const char* percent, EmpFormatPiece_t& piece) {
        if (*percent != '%') {
            throw "an argument has no conversion";
        }
        const char* at = percent + 1;
        bool toTheLeft = *at == '-';
        bool zeros = *at == '0';
        at = takeNumber(toTheLeft ? at + 1 : at, piece.width);
        if (*at == '.') {
            at = takeNumber(at + 1, piece.precision);
        }
        piece.conversion = conversionOf(*at);
        bool text = piece.conversion == EMP_E_CONVERSION_TEXT;
        bool hex = !text && piece.conversion != EMP_E_CONVERSION_DECIMAL;
        // Of what printf knows, only what lines use.
        if ((piece.width != 0 && !(text ? toTheLeft : hex && zeros)) || piece.width > 64 ||
            (piece.precision != 0 && !text)) {
            throw "an unknown flag, width or precision";
        }
        piece.skipped = static_cast<U8_t>(at + 1 - percent);
        return at + 1;
    }

    static consteval U8_t conversionOf(char letter) {
        switch (letter) {
        case 'd':
            return EMP_E_CONVERSION_DECIMAL;
        case 'X':
            return EMP_E_CONVERSION_UPPER_HEX;
        case 'x':
            return EMP_E_CONVERSION_LOWER_HEX;
        case 's':
            return EMP_E_CONVERSION_TEXT;
        default:
            throw "an unknown conversion";
        }
    }
};

/** The format for these arguments, for a function template that deduces them from the arguments. */
template <typename... Arguments>
using EmpLineFormatFor_t = EmpLineFormat_t<std::type_identity_t<Arguments>...>;

#endif
