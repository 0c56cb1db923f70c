#include "evfleet/content_check.h"

#include "../evarchiver/engine.h"

#include <map>
#include <optional>
#include <set>

namespace evfleet {
namespace {

using evarchive::GenerationInfo;
using evarchive::StoredEvent;

/** Goes over the generations of one blade, oldest first. */
class BladeCheck {
  public:
    BladeCheck(const SimulatedLog& log, CheckResult& result) : log_(log), result_(result) {}

    void check(evarchive::StoreReader& store, const std::vector<GenerationInfo>& generations) {
        for (const GenerationInfo& generation : generations) {
            present_.clear();
            doubtful_.clear();
            store.forEachEvent(generation.number,
                               [this](const StoredEvent& event) { take(event); });
        }
        tellMissing();
        tellUnkept();
        result_.unlooked += log_.claimsForgotten();
    }

  private:
    void take(const StoredEvent& event) {
        ++result_.held;
        const auto rebuilt = rebuiltOf(event);
        // Nothing is said of what is doubtful: it may be damaged, or there again for certain.
        if (!rebuilt && event.doubtful) {
            return;
        }
        if (!rebuilt) {
            ++result_.corrupt;
            tell("event " + std::to_string(event.sequenceId) + " has bytes that it never had");
            return;
        }
        if (!event.doubtful && !log_.isAlike(event.sequenceId) &&
            !seen_.emplace(*rebuilt, event.sequenceId).second) {
            ++result_.twice;
            tell("event " + std::to_string(event.sequenceId) + " is held twice");
        }
        if (*rebuilt == log_.rebuilt()) {
            present_.insert(event.sequenceId);
            if (event.doubtful) {
                doubtful_.insert(event.sequenceId);
            } else {
                certain_.insert(event.sequenceId);
            }
        }
    }

    // Which of the blade's logs, the present one first, has this event.
    std::optional<U32_t> rebuiltOf(const StoredEvent& event) {
        for (U32_t rebuilt = log_.rebuilt() + 1; rebuilt-- > 0;) {
            scratch_.clear();
            log_.appendEvent(scratch_, event.sequenceId, rebuilt);
            if (scratch_ == event.image) {
                return rebuilt;
            }
        }
        return std::nullopt;
    }

    void tellMissing() {
        for (U32_t id = log_.first(); id < log_.next(); ++id) {
            if (!present_.contains(id)) {
                ++result_.missing;
                tell("event " + std::to_string(id) + " is missing");
            }
        }
    }

    void tellUnkept() {
        for (const SimulatedLog::Claim& claim : log_.claims()) {
            for (U32_t id = claim.first; id <= claim.last; ++id) {
                if (!isKept(id)) {
                    ++result_.unkept;
                    tell("event " + std::to_string(id) +
                         " was claimed, and is not there for certain");
                }
            }
        }
    }

    // What the log has overwritten is not sent again, so it may stand in an earlier generation.
    bool isKept(U32_t id) const {
        return id < log_.first() ? certain_.contains(id)
                                 : present_.contains(id) && !doubtful_.contains(id);
    }

    void tell(const std::string& text) {
        if (result_.findings.size() < FINDINGS_TOLD) {
            result_.findings.push_back(log_.bladeName() + ": " + text);
        }
    }

    const SimulatedLog& log_;
    CheckResult& result_;
    Bytes scratch_;
    std::set<std::pair<U32_t, U32_t>> seen_; ///< rebuilt, id
    std::set<U32_t> present_;                ///< of the newest generation so far
    std::set<U32_t> doubtful_;               ///< among these
    std::set<U32_t> certain_;                ///< of the present log, in any generation
};

} // namespace

CheckResult checkContent(const std::string& database, const std::string& enclosure, U32_t blades,
                         const std::function<const SimulatedLog*(U32_t)>& logOf) {
    CheckResult result;
    const auto store = evarchive::readerOf(database);
    std::map<int, std::vector<GenerationInfo>> generations;
    for (GenerationInfo& generation : store->listGenerations()) {
        if (generation.key.blade.enclosure == enclosure) {
            const int blade = bladeNumberOf(generation.key.blade.blade);
            generations[blade].push_back(std::move(generation));
        }
    }
    for (U32_t blade = 0; blade < blades; ++blade) {
        if (const SimulatedLog* log = logOf(blade)) {
            BladeCheck(*log, result).check(*store, generations[static_cast<int>(blade)]);
        }
    }
    return result;
}

} // namespace evfleet
