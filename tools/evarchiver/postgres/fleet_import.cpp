#include "fleet_import.h"

#include "archive.h"
#include "fleet_hub.h"
#include "import_target.h"
#include "pg_store.h"

#include <algorithm>
#include <map>
#include <thread>

namespace evarchive {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Events in a statement; and in a transaction, about, so that nobody waits for a log for long.
constexpr U32_t BATCH = 1000;
constexpr U64_t GROUP_EVENTS = 10'000;
constexpr std::size_t MOST_LOGS = 200;

constexpr int MOST_IMPORT_TRIES = 5;

constexpr milliseconds FIRST_IMPORT_PAUSE{100};
constexpr milliseconds LONGEST_IMPORT_PAUSE{2000};

// A server that fails over again and again.
constexpr int MOST_PASSES = 10;

using Logs = std::span<ImportedLog* const>;

/** What goes to one server. */
class NodeImport {
  public:
    /** @param store opens the archive there for filing */
    NodeImport(StoreReader& from, const std::string& place,
               std::function<std::unique_ptr<Store>()> store, milliseconds patience,
               std::ostream& out)
        : from_(from), store_(std::move(store)), target_(place, [this] { store_(); }),
          patience_(patience), out_(out) {}

    void add(ImportedLog log) { logs_.push_back(std::move(log)); }

    void add(AsideEvent event) { asides_.push_back(std::move(event)); }

    /** What a server that took over does not know any more is brought there again. */
    void run() {
        for (int pass = 0; pass < MOST_PASSES; ++pass) {
            wasLost_ = false;
            takeLogs();
            takeAsides();
            if (!wasLost_) {
                return;
            }
        }
        throw StoreError("the server is lost again and again", StoreError::Kind::PASSING);
    }

    void countInto(Imported& all) const {
        for (const ImportedLog& log : logs_) {
            const bool isTaken = log.fate == LogFate::TAKEN;
            all.logs += isTaken ? 1 : 0;
            all.events += isTaken ? log.events : 0;
            all.there += log.fate == LogFate::THERE ? 1 : 0;
            if (log.fate == LogFate::OTHER) {
                ++all.leftOut;
                out_ << nameOf(log.key) << ": left out, the shared archive has it already, without "
                     << log.missing << " of its events\n";
            }
        }
        all.setAside += asides_.size();
        all.refused += refused_;
    }

  private:
    // Tries again what a server that goes away, or somebody who is in the way, has ended.
    template <typename Work>
    void again(Work work) {
        const auto end = Clock::now() + patience_;
        for (auto pause = FIRST_IMPORT_PAUSE;; pause = std::min(2 * pause, LONGEST_IMPORT_PAUSE)) {
            try {
                wasLost_ = target_.connect() || wasLost_;
                work();
                return;
            } catch (const StoreConflict&) {
                target_.undo();
                if (Clock::now() > end) {
                    throw StoreError("an archiver files into the logs that are taken over",
                                     StoreError::Kind::PASSING);
                }
            } catch (const StoreError& error) {
                target_.undo();
                const auto* refusal = dynamic_cast<const PgError*>(&error);
                const bool isConflict = refusal != nullptr && refusal->isConflict();
                if (!(isConflict || error.isPassing()) || Clock::now() > end) {
                    throw;
                }
                if (pause == FIRST_IMPORT_PAUSE) {
                    out_ << error.what() << "; tried again\n" << std::flush;
                }
            }
            std::this_thread::sleep_for(pause);
        }
    }

    void takeLogs() {
        std::vector<ImportedLog*> all;
        for (ImportedLog& log : logs_) {
            all.push_back(&log);
        }
        U64_t events = 0;
        std::size_t size = 1; // as many logs as have about so many events
        for (std::size_t first = 0; first < all.size();) {
            const Logs group = Logs(all).subspan(first, std::min(size, all.size() - first));
            again([&] { takeGroup(group); });
            for (const ImportedLog* log : group) {
                events += log->events;
            }
            first += group.size();
            const U64_t usual = GROUP_EVENTS * first / std::max<U64_t>(events, 1);
            size = std::clamp<std::size_t>(std::min<U64_t>(usual, 2 * size), 1, MOST_LOGS);
        }
    }

    void takeGroup(Logs logs) {
        target_.name(logs);
        std::vector<ImportedLog*> taken;
        try {
            target_.begin();
            taken = target_.claim(logs);
            inBatches(taken, [this](PgBatch& batch) { target_.file(batch); });
            for (ImportedLog* log : taken) {
                log->isTried = true;
            }
            target_.commit();
        } catch (const PgError& error) {
            if (!error.isAboutData()) {
                throw;
            }
            target_.undo();
            for (ImportedLog* log : logs) {
                takeAlone(*log);
            }
            return;
        }
        for (ImportedLog* log : taken) {
            log->fate = LogFate::TAKEN;
        }
        for (ImportedLog* log : logs) {
            compare(*log);
        }
    }

    // The events of these logs, so many at a time.
    void inBatches(Logs logs, const std::function<void(PgBatch&)>& use) {
        PgBatch batch(Received::AS_TOLD);
        for (ImportedLog* log : logs) {
            log->events = 0;
            GenerationKey to{log->number, 0};
            for (const GenerationInfo& generation : log->generations) {
                ++to.generation;
                from_.forEachEvent(generation.number, [&](const StoredEvent& event) {
                    ++log->events;
                    batch.add({to, rowOf(event.image, log->key), event.own, event.doubtful,
                               event.received});
                    if (batch.size() == BATCH) {
                        use(batch);
                        batch.clear();
                    }
                });
            }
        }
        if (batch.size() > 0) {
            use(batch);
        }
    }

    // A log that was there: also after a commit whose outcome is not known.
    void compare(ImportedLog& log) {
        if (log.fate == LogFate::TAKEN) {
            return;
        }
        U64_t held = 0;
        ImportedLog* const one = &log;
        inBatches(Logs(&one, 1), [&](PgBatch& batch) { held += target_.countHeld(batch); });
        log.missing = log.events - held;
        log.fate = log.missing > 0 ? LogFate::OTHER : log.isTried ? LogFate::TAKEN : LogFate::THERE;
    }

    // A log of a group of which the server has refused a value: the store finds which one it is,
    // when it is handed the same once more.
    void takeAlone(ImportedLog& log) {
        const auto store = store_();
        for (int left = MOST_IMPORT_TRIES;; --left) {
            try {
                takeBy(*store, log);
                break;
            } catch (const StoreConflict&) {
                store->rollback();
                if (left == 0) {
                    throw;
                }
            }
        }
        compare(log);
    }

    void takeBy(Store& store, ImportedLog& log) {
        const auto there = store.findSeries(log.key);
        if (there && store.newestGeneration(*there)) {
            return;
        }
        const Claim claim = store.claim(log.key, 0);
        GenerationKey to{claim.series, 0};
        log.events = 0;
        store.begin();
        for (const GenerationInfo& generation : log.generations) {
            ++to.generation;
            store.addGeneration(to, generation.opened);
            from_.forEachEvent(generation.number, [&](const StoredEvent& event) {
                store.addEvent(
                    to, {event.sequenceId, event.image, event.own, event.doubtful, event.received});
                if (++log.events % BATCH == 0) {
                    store.highestId(to); // what was handed over goes to the server
                }
            });
            if (generation.proven) {
                store.noteProven(to, *generation.proven);
            }
            if (generation.oldest) {
                store.noteOldest(to, *generation.oldest);
            }
            if (generation.duplicates > 0) {
                store.countDuplicates(to, generation.duplicates);
            }
        }
        log.isTried = true;
        store.commit();
        log.fate = LogFate::TAKEN;
        refused_ += target_.countRefused(claim.series);
    }

    void takeAsides() {
        for (std::size_t first = 0; first < asides_.size(); first += BATCH) {
            const auto part = std::span(asides_).subspan(
                first, std::min<std::size_t>(BATCH, asides_.size() - first));
            again([&] { takeAsidePart(part); });
        }
    }

    void takeAsidePart(std::span<const AsideEvent> part) {
        std::map<SeriesKey, ImportedLog> logs;
        for (const AsideEvent& event : part) {
            logs[event.key].key = event.key;
        }
        std::vector<ImportedLog*> all;
        for (auto& [key, log] : logs) {
            all.push_back(&log);
        }
        target_.name(all);
        std::vector<std::pair<SeriesNumber, const AsideEvent*>> events;
        for (const AsideEvent& event : part) {
            events.emplace_back(logs.at(event.key).number, &event);
        }
        target_.setAside(events);
    }

    StoreReader& from_;
    std::function<std::unique_ptr<Store>()> store_;
    ImportTarget target_;
    milliseconds patience_;
    std::ostream& out_;
    std::vector<ImportedLog> logs_;
    std::vector<AsideEvent> asides_;
    U64_t refused_ = 0;
    bool wasLost_ = false;
};

/** All servers of an archive. */
class Import {
  public:
    Import(StoreReader& from, const std::string& place, milliseconds patience, std::ostream& out)
        : from_(from) {
        const std::vector<std::string> nodes = nodesOf(place);
        const auto count = static_cast<U32_t>(nodes.size());
        for (U32_t node = 0; node < count; ++node) {
            const auto open = [there = nodes[node], node, count] {
                return openPgNode(there, node, count, Received::AS_TOLD);
            };
            nodes_.push_back(std::make_unique<NodeImport>(from, nodes[node], open, patience, out));
        }
        if (nodes.empty()) {
            const auto open = [place] { return openPgArchive(place, Received::AS_TOLD); };
            nodes_.push_back(std::make_unique<NodeImport>(from, place, open, patience, out));
        }
    }

    Imported run() {
        std::map<SeriesKey, ImportedLog> logs;
        for (GenerationInfo& generation : from_.listGenerations()) {
            ImportedLog& log = logs[generation.key];
            log.key = generation.key;
            log.generations.push_back(std::move(generation));
        }
        for (auto& [key, log] : logs) {
            const GenerationInfo& newest = log.generations.back();
            log.highest = from_.highestId(newest.number);
            if (newest.proven) {
                log.highest = std::max(log.highest.value_or(0), newest.proven->last);
            }
            nodeOf(key).add(std::move(log));
        }
        from_.forEachAside([this](const AsideEvent& event) { nodeOf(event.key).add(event); });
        for (const auto& node : nodes_) {
            node->run();
        }
        Imported all;
        for (const auto& node : nodes_) {
            node->countInto(all);
        }
        return all;
    }

  private:
    NodeImport& nodeOf(const SeriesKey& key) {
        const auto nodes = static_cast<U32_t>(nodes_.size());
        return *nodes_.at(nodes == 1 ? 0 : nodeOfLog(key, nodes));
    }

    StoreReader& from_;
    std::vector<std::unique_ptr<NodeImport>> nodes_;
};

} // namespace

Imported importArchive(StoreReader& from, const std::string& place, std::ostream& out,
                       milliseconds patience) {
    return Import(from, place, patience, out).run();
}

} // namespace evarchive
