/**
 * @file
 * Compares an archive with the logs of simulated blades, byte for byte.
 */
#ifndef EVFLEET_CONTENT_CHECK_H
#define EVFLEET_CONTENT_CHECK_H

#include "evfleet/simulated_log.h"

#include <functional>

namespace evfleet {

/** What an archive holds of a fleet, and what is wrong with it. */
struct CheckResult {
    U64_t held = 0;     ///< events of simulated blades, all generations
    U64_t missing = 0;  ///< stand in a blade's log, but not in the newest generation
    U64_t unkept = 0;   ///< were claimed towards the blade, and are not there for certain
    U64_t unlooked = 0; ///< were claimed, and are not looked for: their logs are lost, for one
    U64_t twice = 0;    ///< the same event in two generations of one log
    U64_t corrupt = 0;  ///< bytes that no simulated blade ever logged
    std::vector<std::string> findings; ///< the first of them, as texts for people

    bool isClean() const { return missing + unkept + twice + corrupt == 0; }
};

/** Findings that are told as texts; all are counted. */
constexpr std::size_t FINDINGS_TOLD = 20;

/**
 * @param database an archive of an Event Archiver, which may be in use. Throws
 *                 evarchive::StoreError.
 * @param enclosure the blades' enclosure; others are not looked at
 * @param logOf    the log of a blade by its number, nullptr when there is no such blade
 * @param blades   how many blades there are
 */
CheckResult checkContent(const std::string& database, const std::string& enclosure, U32_t blades,
                         const std::function<const SimulatedLog*(U32_t)>& logOf);

} // namespace evfleet

#endif
