/**
 * @file
 * What is looked for in the text of events.
 */
#ifndef EVCTL_TEXT_PATTERN_H
#define EVCTL_TEXT_PATTERN_H

#include <array>
#include <memory>
#include <regex.h>
#include <string>

namespace evctl {

/** An extended regular expression. Text and pattern are UTF-8, whatever the locale of the user: a
 * dot is a character, and letters of any alphabet have two cases. On a system that has no locale
 * C.UTF-8 each byte beyond ASCII counts for itself. */
class TextPattern {
  public:
    /** Throws std::invalid_argument with the reason when @p text is no expression. */
    explicit TextPattern(const std::string& text);

    bool isIn(const std::string& text, bool inAnyCase) const;

    /** Whether characters beyond ASCII are known here. */
    static bool knowsCharacters();

  private:
    using Compiled = std::shared_ptr<const regex_t>;
    using InCase = std::array<Compiled, 2>; ///< as it is, in any case

    static InCase compile(const std::string& text);

    InCase ofCharacters_;
    InCase ofBytes_; ///< for texts of ASCII alone: as right there, and up to four times as fast
};

} // namespace evctl

#endif
