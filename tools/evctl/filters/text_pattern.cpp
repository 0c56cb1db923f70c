#include "evctl/filters/text_pattern.h"

#include "evctl/filters/pattern_size.h"

#include <algorithm>
#include <clocale>
#include <stdexcept>

namespace evctl {
namespace {

/** Kept until the program ends; nothing when the system has none. */
locale_t utf8Locale() {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
    return utf8;
}

/** As long as it lives, the library takes this thread's texts for UTF-8. */
class InUtf8 {
  public:
    InUtf8() : before_(uselocale(utf8Locale())) {}
    ~InUtf8() { uselocale(before_); }
    InUtf8(const InUtf8&) = delete;
    InUtf8& operator=(const InUtf8&) = delete;

  private:
    locale_t before_;
};

bool isAscii(const std::string& text) {
    return std::ranges::all_of(text, [](char letter) { return (letter & 0x80) == 0; });
}

/** The library's own expressions are matched by recursion, which a long text makes too deep. */
std::shared_ptr<const regex_t> compiled(const std::string& text, int flags) {
    auto pattern = std::make_unique<regex_t>();
    const int error = regcomp(pattern.get(), text.c_str(), REG_EXTENDED | REG_NOSUB | flags);
    if (error != 0) {
        std::array<char, 128> reason{};
        regerror(error, pattern.get(), reason.data(), reason.size());
        throw std::invalid_argument(reason.data());
    }
    return {pattern.release(), [](regex_t* done) {
                regfree(done);
                delete done;
            }};
}

} // namespace

TextPattern::InCase TextPattern::compile(const std::string& text) {
    return {compiled(text, 0), compiled(text, REG_ICASE)};
}

TextPattern::TextPattern(const std::string& text) {
    if (patternSize(text) > PATTERN_SIZE_MAX) {
        throw std::invalid_argument("more than " + std::to_string(PATTERN_SIZE_MAX) +
                                    " characters when its repetitions are written out");
    }
    {
        const InUtf8 characters;
        ofCharacters_ = compile(text);
    }
    ofBytes_ = isAscii(text) ? compile(text) : ofCharacters_;
}

bool TextPattern::isIn(const std::string& text, bool inAnyCase) const {
    const InCase& patterns = isAscii(text) ? ofBytes_ : ofCharacters_;
    const InUtf8 characters; // a pattern beyond ASCII has no other form
    return regexec(patterns.at(inAnyCase ? 1 : 0).get(), text.c_str(), 0, nullptr, 0) == 0;
}

bool TextPattern::knowsCharacters() {
    return utf8Locale() != locale_t{};
}

} // namespace evctl
