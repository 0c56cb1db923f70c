#include "common/nearest.h"

#include <algorithm>
#include <cctype>

namespace tools {
namespace {

// Nothing that is longer is a mistyped name, and the work stays small.
constexpr size_t LONGEST = 64;
constexpr size_t ALWAYS_NEAR = 2;

} // namespace

size_t editDistance(std::string_view left, std::string_view right) {
    std::vector<size_t> before(right.size() + 1);
    std::vector<size_t> above(right.size() + 1);
    std::vector<size_t> row(right.size() + 1);
    for (size_t j = 0; j <= right.size(); j++) {
        above[j] = j;
    }
    for (size_t i = 1; i <= left.size(); i++) {
        row[0] = i;
        for (size_t j = 1; j <= right.size(); j++) {
            bool same = left[i - 1] == right[j - 1];
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before.swap(above);
        above.swap(row);
    }
    return above.back();
}

std::optional<std::string> nearestName(std::string_view text,
                                       const std::vector<std::string>& names) {
    if (text.empty() || text.size() > LONGEST) {
        return std::nullopt;
    }
    std::optional<std::string> nearest;
    size_t least = std::max(ALWAYS_NEAR, text.size() / 3) + 1;
    std::string lower(text); // as names are
    std::ranges::transform(text, lower.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    for (const std::string& name : names) {
        size_t distance = name.starts_with(lower) ? 1 : editDistance(lower, name);
        // As many changes as characters make any name of any other.
        if (distance < least && distance < std::min(text.size(), name.size())) {
            least = distance;
            nearest = name;
        }
    }
    return nearest;
}

std::string didYouMean(std::string_view text, const std::vector<std::string>& names) {
    std::optional<std::string> nearest = nearestName(text, names);
    return nearest ? "; did you mean '" + *nearest + "'?" : "";
}

} // namespace tools
