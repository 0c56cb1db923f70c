/**
 * @file
 * The picture that `evctl top` shows: how fast which sources log, how full the ring is, and how the
 * archiver follows.
 */
#ifndef EVCTL_TOP_VIEW_H
#define EVCTL_TOP_VIEW_H

#include "evctl/files/file.h"
#include "evctl/views/event_view.h"

#include <optional>
#include <string>
#include <vector>

namespace evctl {

/** What is known beside the log. */
struct TopView {
    std::string place;                                ///< of the log, fit to be shown
    U32_t now = 0;                                    ///< seconds since 1970
    std::optional<EmpGetEvManagerStatusMsg_t> status; ///< of the event manager
    std::string whyNoStatus;                          ///< fit to be shown
    std::optional<U32_t> kept; ///< newest sequence id of this log that the archive holds
    std::string whyNoneKept;   ///< fit to be shown
};

/** The newest event of a log, or nullptr. */
const EmpEvRecord_t* newestOf(const LogContent& content);

/**
 * The lines of the picture, the busiest sources first. Rates are numbers of events by their times:
 * in the last ten seconds, minute and hour. Behind one that may be too small, since the ring does
 * not reach back so far, stands a "+".
 */
std::vector<std::string> topLines(const LogContent& content, const TopView& view);

} // namespace evctl

#endif
