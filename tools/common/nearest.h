/**
 * @file
 * The name that somebody who mistyped one may have meant.
 */
#ifndef TOOLS_NEAREST_H
#define TOOLS_NEAREST_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

/** How many characters must be put in, taken out, replaced or swapped with their neighbour to make
 * @p right of @p left. */
size_t editDistance(std::string_view left, std::string_view right);

/**
 * The nearest of @p names: the one that begins with @p text, or differs from it in at most a third
 * of its characters (and always in one or two).
 * @return nothing when none is near; the first of several that are equally near
 */
std::optional<std::string> nearestName(std::string_view text,
                                       const std::vector<std::string>& names);

/** "; did you mean 'NAME'?", or "" when no name is near. */
std::string didYouMean(std::string_view text, const std::vector<std::string>& names);

} // namespace tools

#endif
