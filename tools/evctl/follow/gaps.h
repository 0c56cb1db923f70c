/**
 * @file
 * Gaps in the sequence ids of events that come one after the other: what got lost on the way.
 */
#ifndef EVCTL_GAPS_H
#define EVCTL_GAPS_H

#include "evctl/views/event_view.h"
#include "evctl/wire/inquiry.h"

#include <map>
#include <optional>

namespace evctl {

/** Sequence ids of one log that have not come. */
struct Gap {
    LogIdentity log;
    U32_t first = 0;
    U32_t last = 0; ///< at least first

    bool operator==(const Gap&) const = default;
};

/** "gap: 8360 to 15000" */
std::string gapLine(const Gap& gap);

/** {"gap": ...} */
Json gapJson(const Gap& gap);

/** Sees the events of any number of logs go by. The first event of a log, and one whose id is not
 * above that of the one before, say nothing about what is missing. */
class GapWatch {
  public:
    /**
     * @param replayed it comes from an alternate event file: numbered in the log of the blade that
     *                 replays it, but with the identity that was in the file
     * @return the gap before this event
     */
    std::optional<Gap> take(const EmpEvLogHeader_t& header, bool replayed = false);

  private:
    struct ById {
        bool operator()(const LogIdentity& left, const LogIdentity& right) const;
    };

    // Logs that are known by heart; whoever invents more does not fill the memory.
    static constexpr size_t LOGS_MAX = 1024;

    std::map<LogIdentity, U32_t, ById> last_;
};

} // namespace evctl

#endif
