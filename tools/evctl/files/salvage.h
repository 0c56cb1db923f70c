/**
 * @file
 * Logs put together from files that are damaged: what salvage and guard share.
 */
#ifndef EVCTL_SALVAGE_H
#define EVCTL_SALVAGE_H

#include "evctl/listing/passed_over.h"
#include "evlog/predict.h"
#include "evlog/salvage.h"

#include <deque>
#include <string>
#include <vector>

namespace evctl {

/** Files that events are wanted of, in memory. */
class SalvageInputs {
  public:
    /** A log or its debugging copy; an alternate event file, which its name tells; a bundle; or a
     * directory: its log, the debugging copy, logs that were set aside, and the alternate event
     * files in it and in its aelfiles, in the order of their replay. */
    void add(const std::string& path);

    /** What could not be read. */
    const PassedOver& passedOver() const { return passedOver_; }

    std::span<const EvlogSource_t> sources() const { return sources_; }
    const std::string& nameOf(size_t source) const { return names_.at(source); }

  private:
    void add(const std::string& name, std::vector<U8_t> bytes, bool waiting);
    void addFile(const std::string& path);
    void addDirectory(const std::string& path);
    void addAlternates(const std::string& directory);

    std::deque<std::vector<U8_t>> bytes_; // where they are, they stay
    std::vector<EvlogSource_t> sources_;
    std::vector<std::string> names_;
    PassedOver passedOver_;
};

/** evlogSalvage(), tried: throws unless the event manager would take the result as it is, with
 * every event. An empty result is none of that. */
EvlogSalvage_t salvageTried(std::span<const EvlogSource_t> sources,
                            const EvlogSalvageRules_t& rules);

/** "4 events saved, ids 0 to 5, 2 of them marks for lost events" */
std::string savedText(const EvlogSalvage_t& salvage);

} // namespace evctl

#endif
