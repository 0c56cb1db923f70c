/** The logs of an archive. */
#include "archive.h"
#include "common/text.h"
#include "reader.h"
#include "sources/source.h"

#include <algorithm>
#include <deque>
#include <iterator>

namespace sources {
namespace {

using Reader = std::shared_ptr<evarchive::StoreReader>;

// Of all logs together that one reading merges.
constexpr size_t EVENTS_AHEAD = 100'000;

/** One log, its generations from old to new. Events of another identity that it holds have a log of
 * their own, and damaged ones are left out, which is a problem of the source. */
class ArchiveSource final : public Source {
  public:
    /** @param most events that it holds at a time */
    ArchiveSource(Origin origin, Reader store, std::vector<evarchive::GenerationKey> generations,
                  size_t most)
        : Source(std::move(origin)), store_(std::move(store)), generations_(std::move(generations)),
          most_(most) {}

    std::optional<Event> next() override;

    void rewind() override {
        generation_ = 0;
        shown_.reset();
        ahead_.clear();
        damaged_ = 0;
    }

  private:
    std::optional<evarchive::StoredEvent> step();
    void noteDamaged();

    Reader store_;
    std::vector<evarchive::GenerationKey> generations_;
    size_t generation_ = 0;
    std::optional<U32_t> shown_; // the last id of this generation
    size_t most_;
    std::deque<evarchive::StoredEvent> ahead_; // of this generation, read and not shown yet
    U64_t damaged_ = 0;
};

std::optional<evarchive::StoredEvent> ArchiveSource::step() {
    while (generation_ < generations_.size()) {
        if (ahead_.empty()) {
            std::ranges::move(store_->eventsBehind(generations_[generation_], shown_, most_),
                              std::back_inserter(ahead_));
        }
        if (!ahead_.empty()) {
            evarchive::StoredEvent event = std::move(ahead_.front());
            ahead_.pop_front();
            // An id that damage made too large for one leads back, again and again.
            if (!shown_ || event.sequenceId > *shown_) {
                shown_ = event.sequenceId;
                return event;
            }
            noteDamaged();
            ahead_.clear();
        }
        generation_++;
        shown_.reset();
    }
    return std::nullopt;
}

/** Whether it is whole, and the one that was asked for. */
bool isInPlace(const evarchive::StoredEvent& event) {
    return evarchive::isWholeEvent(event.image) &&
           eventOf(event.image).header->evSequenceId == event.sequenceId;
}

std::optional<Event> ArchiveSource::next() {
    while (std::optional<evarchive::StoredEvent> event = step()) {
        if (isInPlace(*event)) {
            auto image = std::make_shared<const Bytes>(std::move(event->image));
            return Event{.view = eventOf(*image),
                         .origin = &origin_,
                         .position = generations_[generation_].generation,
                         .storage = image};
        }
        noteDamaged();
    }
    return std::nullopt;
}

void ArchiveSource::noteDamaged() {
    damaged_++;
    problems_ = {std::to_string(damaged_) + " damaged events left out; see 'evctl archive check'"};
}

bool matches(const LogChoice& logs, const evarchive::SeriesKey& key) {
    return logs.enclosure.value_or(key.blade.enclosure) == key.blade.enclosure &&
           logs.blade.value_or(key.blade.blade) == key.blade.blade &&
           logs.slot.value_or(key.blade.slot) == key.blade.slot &&
           logs.instance.value_or(key.instance) == key.instance;
}

std::string nameOf(const std::string& path, const evarchive::SeriesKey& key) {
    return tools::escapedUtf8(evarchive::shownPlace(path)) + "/" +
           tools::escapedText(key.blade.enclosure) + "/" + tools::escapedText(key.blade.blade) +
           "/" + std::to_string(key.blade.slot) + "/" + std::to_string(key.instance);
}

} // namespace

Sources archiveSources(const std::string& path, const OpenOptions& options) {
    Reader store = evarchive::openForReading(path);
    std::vector<evarchive::GenerationInfo> listed = store->listGenerations();
    size_t most = std::clamp<size_t>(EVENTS_AHEAD / std::max<size_t>(listed.size(), 1), 1, 1000);
    Sources found;
    std::vector<evarchive::GenerationKey> generations;
    for (size_t at = 0; at < listed.size(); at++) {
        bool isNewest = at + 1 == listed.size() || listed[at + 1].key != listed[at].key;
        if (isNewest || options.allGenerations) {
            generations.push_back(listed[at].number);
        }
        if (isNewest && matches(options.logs, listed[at].key)) {
            found.push_back(std::make_unique<ArchiveSource>(
                Origin{.name = nameOf(path, listed[at].key), .kind = Kind::ARCHIVE}, store,
                std::move(generations), most));
        }
        if (isNewest) {
            generations.clear();
        }
    }
    return found;
}

} // namespace sources
