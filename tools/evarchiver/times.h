/**
 * @file
 * How long something took, many times over.
 */
#ifndef EVARCHIVER_TIMES_H
#define EVARCHIVER_TIMES_H

#include "emp_mesgs.h"

#include <algorithm>
#include <array>
#include <functional>

namespace evarchive {

/** Counts times by classes. */
struct Times {
    /** The longest time of each class, seconds; what takes longer than all is in a last one. */
    static constexpr std::array<double, 11> BOUNDS = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                      0.1,   0.25,   0.5,   1,    2.5};

    std::array<U64_t, BOUNDS.size() + 1> counts{}; ///< each class's own
    double sum = 0;                                ///< seconds

    void add(double seconds) {
        const auto* bound = std::ranges::lower_bound(BOUNDS, seconds);
        ++counts[static_cast<std::size_t>(bound - BOUNDS.begin())];
        sum += seconds;
    }

    Times& operator+=(const Times& other) {
        std::ranges::transform(counts, other.counts, counts.begin(), std::plus());
        sum += other.sum;
        return *this;
    }
};

} // namespace evarchive

#endif
