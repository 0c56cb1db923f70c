#include "fleet_import.h"

#include "archive.h"
#include "fleet_hub.h"
#include "pg_store.h"

#include <functional>
#include <map>

namespace evarchive {
namespace {

// Events that are sent to the server together.
constexpr U64_t PART = 1000;

constexpr int MOST_TRIES = 5;

class Import {
  public:
    Import(StoreReader& from, const std::string& place) : from_(from) {
        const std::vector<std::string> nodes = nodesOf(place);
        const auto count = static_cast<U32_t>(nodes.size());
        for (U32_t node = 0; node < count; ++node) {
            stores_.push_back(openPgNode(nodes[node], node, count, Received::AS_TOLD));
        }
        if (nodes.empty()) {
            stores_.push_back(openPgArchive(place, Received::AS_TOLD));
        }
    }

    Imported run(std::ostream& out) {
        std::map<SeriesKey, std::vector<GenerationInfo>> logs;
        for (GenerationInfo& generation : from_.listGenerations()) {
            logs[generation.key].push_back(std::move(generation));
        }
        for (const auto& log : logs) {
            const auto take = [&] { return takeLog(log.first, log.second); };
            if (again(storeOf(log.first), take)) {
                ++imported_.logs;
            } else {
                ++imported_.leftOut;
                out << nameOf(log.first) << ": left out, the shared archive has it already\n";
            }
        }
        from_.forEachAside([this](const AsideEvent& event) { takeAside(event); });
        return imported_;
    }

  private:
    Store& storeOf(const SeriesKey& key) {
        const auto nodes = static_cast<U32_t>(stores_.size());
        return *stores_.at(nodes == 1 ? 0 : nodeOfLog(key, nodes));
    }

    // An archiver may be in the way for a moment.
    static bool again(Store& store, const std::function<bool()>& work) {
        for (int left = MOST_TRIES;; --left) {
            try {
                return work();
            } catch (const StoreConflict&) {
                store.rollback();
                if (left == 0) {
                    throw StoreError("an archiver files into the logs that are taken over");
                }
            }
        }
    }

    bool takeLog(const SeriesKey& key, const std::vector<GenerationInfo>& generations) {
        Store& store = storeOf(key);
        const auto there = store.findSeries(key);
        if (there && store.newestGeneration(*there)) {
            return false; // a claim would take the blade from its archiver
        }
        const Claim claim = store.claim(key, 0);
        if (claim.newest) {
            return false;
        }
        U64_t events = 0;
        store.begin();
        GenerationKey to{claim.series, 0};
        for (const GenerationInfo& generation : generations) {
            ++to.generation;
            store.addGeneration(to, generation.opened);
            events += takeGeneration(store, generation.number, to);
            if (generation.proven) {
                store.noteProven(to, *generation.proven);
            }
            if (generation.duplicates > 0) {
                store.countDuplicates(to, generation.duplicates);
            }
        }
        store.commit();
        imported_.events += events;
        return true;
    }

    U64_t takeGeneration(Store& store, const GenerationKey& from, const GenerationKey& to) {
        U64_t events = 0;
        from_.forEachEvent(from, [&](const StoredEvent& event) {
            store.addEvent(
                to, {event.sequenceId, event.image, event.own, event.doubtful, event.received});
            if (++events % PART == 0) {
                store.highestId(to); // what was handed over goes to the server
            }
        });
        return events;
    }

    void takeAside(const AsideEvent& event) {
        Store& store = storeOf(event.key);
        again(store, [&] {
            store.begin();
            store.setAside(event.key, event.reason,
                           {event.sequenceId, event.image, true, true, event.received});
            store.commit();
            return true;
        });
        ++imported_.setAside;
    }

    StoreReader& from_;
    std::vector<std::unique_ptr<Store>> stores_;
    Imported imported_;
};

} // namespace

Imported importArchive(StoreReader& from, const std::string& place, std::ostream& out) {
    return Import(from, place).run(out);
}

} // namespace evarchive
