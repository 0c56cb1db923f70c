/**
 * @file
 * Lines for the operator, each with its weight.
 */
#ifndef EVARCHIVER_SAY_H
#define EVARCHIVER_SAY_H

#include <functional>
#include <string>

namespace evarchive {

/** How much a line matters. */
enum class Level : unsigned char {
    INFO,    ///< the course of things
    NOTICE,  ///< worth a look, nothing is wrong
    WARNING, ///< something is not as it should be
    FAILURE, ///< the archive does not do its work now
};

/** Where a line goes. */
using Say = std::function<void(Level level, const std::string& line)>;

} // namespace evarchive

#endif
