/**
 * @file
 * How large a pattern is for the library that matches it.
 */
#ifndef EVCTL_PATTERN_SIZE_H
#define EVCTL_PATTERN_SIZE_H

#include "fixed_width.h"

#include <string_view>

namespace evctl {

/** Larger ones may take gigabytes and half a minute; these at most about a second. */
constexpr U64_t PATTERN_SIZE_MAX = 10'000;

/** The characters, classes and groups of an extended regular expression once its repetitions are
 * written out, as the library does: 6 of "(ab){2}". Not much above PATTERN_SIZE_MAX it stops
 * counting. Of what is no expression: any number. */
U64_t patternSize(std::string_view pattern);

} // namespace evctl

#endif
