#include "evctl/filters/pattern_size.h"

#include <algorithm>
#include <vector>

namespace evctl {
namespace {

/** Where a class in brackets ends: behind "]" that neither comes first nor ends a "[:name:]". */
size_t behindClass(std::string_view pattern, size_t at) {
    at += pattern.substr(at + 1).starts_with('^') ? 2 : 1;
    at += pattern.substr(std::min(at, pattern.size())).starts_with(']') ? 1 : 0;
    while (at < pattern.size() && pattern[at] != ']') {
        std::string_view rest = pattern.substr(at);
        bool isNamed = rest.starts_with("[:") || rest.starts_with("[.") || rest.starts_with("[=");
        const char end[] = {isNamed ? rest[1] : '\0', ']', '\0'};
        at = isNamed ? std::min(pattern.find(end, at + 2), pattern.size()) + 2 : at + 1;
    }
    return at + 1;
}

/** The larger number of "3,7". */
U64_t largestOf(std::string_view numbers) {
    U64_t largest = 1;
    U64_t number = 0;
    for (char letter : numbers) {
        bool isDigit = letter >= '0' && letter <= '9';
        number = isDigit ? number * 10 + static_cast<U64_t>(letter - '0') : 0;
        number = std::min(number, PATTERN_SIZE_MAX + 1);
        largest = std::max(largest, number);
    }
    return largest;
}

} // namespace

U64_t patternSize(std::string_view pattern) {
    std::vector<U64_t> groups = {0}; // those that are open, with the whole
    U64_t last = 0;                  // what a repetition would repeat
    auto add = [&groups](U64_t size) {
        groups.back() = std::min(groups.back() + size, PATTERN_SIZE_MAX + 1);
    };
    auto repeat = [&add, &last](U64_t copies) {
        add(last * (copies - 1));
        last = std::min(last * copies, PATTERN_SIZE_MAX + 1);
    };
    for (size_t at = 0; at < pattern.size();) {
        const char letter = pattern[at];
        size_t behind = at + (letter == '\\' ? 2 : 1);
        if (letter == '(') {
            groups.push_back(1);
            last = 0;
        } else if (letter == ')' && groups.size() > 1) {
            last = groups.back();
            groups.pop_back();
            add(last);
        } else if (letter == '{') {
            behind = std::min(pattern.find('}', at), pattern.size()) + 1;
            repeat(largestOf(pattern.substr(at, behind - at)));
        } else if (letter == '+') {
            repeat(2); // once, and with a star
        } else if (letter != '*' && letter != '?') {
            behind = letter == '[' ? behindClass(pattern, at) : behind;
            last = 1;
            add(last);
        }
        at = behind;
    }
    for (last = 0; !groups.empty(); groups.pop_back()) {
        last += groups.back();
    }
    return last;
}

} // namespace evctl
