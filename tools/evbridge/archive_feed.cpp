#include "archive.h"
#include "engine.h"
#include "feed.h"
#include "id_runs.h"

#include <chrono>

namespace evbridge {
namespace {

using evarchive::Level;
using evarchive::Say;
using Clock = std::chrono::steady_clock;

// Events can come behind later ones of their log: so often all of it is looked through.
constexpr std::chrono::seconds WHOLE_LOOK{60};

/** An archive in a file: of each generation of each log the ids that were handed on. */
class ArchiveFeed final : public Feed {
  public:
    ArchiveFeed(const std::string& archive, const std::string& position, Say say,
                std::chrono::milliseconds opening)
        : archive_(archive), opening_(opening), store_(evarchive::readerOf(archive)),
          say_(std::move(say)), done_(parseLogRuns(position)) {}

    Entries more(std::size_t most) override {
        for (;;) {
            Entries entries = look(most);
            if (!entries.empty() || given_.empty()) {
                return entries;
            }
            taken(); // nothing of it is handed on
        }
    }

    void taken() override {
        for (const auto& [name, id] : given_) {
            done_[name].add(id);
        }
        given_.clear();
    }

    std::string position() const override { return textOf(done_); }

  private:
    Entries look(std::size_t most) {
        given_.clear();
        Entries entries;
        if (Clock::now() >= nextOpening_) {
            store_ = evarchive::readerOf(archive_);
            nextOpening_ = Clock::now() + opening_;
        }
        const auto generations = store_->listGenerations();
        for (const auto& generation : generations) {
            addNewest(generation, most, entries);
        }
        if (given_.size() < most && Clock::now() >= nextWholeLook_) {
            for (const auto& generation : generations) {
                addLate(generation, most, entries);
            }
            if (given_.size() < most) {
                nextWholeLook_ = Clock::now() + WHOLE_LOOK;
            }
        }
        return entries;
    }

    static std::string nameOf(const evarchive::GenerationInfo& generation) {
        return evbridge::nameOf(generation.key, generation.number.generation);
    }

    // What has come behind the last event that was handed on.
    void addNewest(const evarchive::GenerationInfo& generation, std::size_t most,
                   Entries& entries) {
        const std::string name = nameOf(generation);
        const auto known = done_.find(name);
        std::optional<U32_t> last;
        if (known != done_.end() && !known->second.empty()) {
            last = known->second.last();
        }
        while (given_.size() < most) {
            auto event = store_->findEvent(
                generation.number, last ? EMP_E_INQUIRY_TYPE_NEXT : EMP_E_INQUIRY_TYPE_FIRST,
                last.value_or(0));
            // An id that damage made too large for one leads back.
            if (!event || (last && event->sequenceId <= *last)) {
                return;
            }
            last = event->sequenceId;
            give(generation, std::move(*event), entries);
        }
    }

    // What has come late, before it.
    void addLate(const evarchive::GenerationInfo& generation, std::size_t most, Entries& entries) {
        const std::string name = nameOf(generation);
        IdRuns done = done_[name];
        for (const auto& [log, id] : given_) { // in this look
            if (log == name) {
                done.add(id);
            }
        }
        std::vector<IdRun> held; // the store must not be called meanwhile
        store_->forEachRun(generation.number, 0,
                           [&held](const IdRun& run) { held.push_back(run); });
        for (const IdRun& run : held) {
            done.forEachMissing(run, [&](U32_t id) {
                if (auto event = store_->heldEvent(generation.number, id)) {
                    give(generation, std::move(*event), entries);
                }
                return given_.size() < most;
            });
        }
    }

    void give(const evarchive::GenerationInfo& generation, evarchive::StoredEvent event,
              Entries& entries) {
        if (event.doubtful) {
            return; // it is certain later, or gone
        }
        const std::string name = nameOf(generation);
        given_.emplace_back(name, event.sequenceId);
        if (!evarchive::isWholeEvent(event.image)) {
            say_(Level::WARNING,
                 name + ": event " + std::to_string(event.sequenceId) + " is damaged, left out");
        } else if (event.own) { // else it is handed on with its own log
            entries.push_back(
                {.image = std::move(event.image), .generation = generation.number.generation});
        }
    }

    std::string archive_;
    std::chrono::milliseconds opening_;
    std::unique_ptr<evarchive::StoreReader> store_;
    Say say_;
    LogRuns done_;
    std::vector<std::pair<std::string, U32_t>> given_;
    Clock::time_point nextWholeLook_;
    Clock::time_point nextOpening_ = Clock::now() + opening_;
};

} // namespace

std::unique_ptr<Feed> archiveFeed(const std::string& archive, const std::string& position,
                                  const Say& say, std::chrono::milliseconds opening) {
    return std::make_unique<ArchiveFeed>(archive, position, say, opening);
}

} // namespace evbridge
