/**
 * @file
 * A storage in memory, owned by one archive or shared by several as by several processes. What a
 * crash would lose and what others would see is exact: a transaction works on a copy of its own.
 */
#ifndef MEMORY_STORE_H
#define MEMORY_STORE_H

#include "store.h"

#include <map>
#include <mutex>
#include <set>

namespace evarchive {

/** What is committed. */
struct MemoryDatabase {
    struct Generation {
        GenerationInfo info;
        std::map<U32_t, StoredEvent> events;
    };

    /** A commit that its connection did not live to see made. Until it is, its logs are locked. */
    struct Late {
        std::set<SeriesKey> logs;
        std::vector<std::function<void(MemoryDatabase&)>> changes;
    };

    std::map<SeriesKey, SeriesNumber> series;
    std::map<SeriesNumber, U64_t> epochs; ///< the highest claim of each series
    std::map<GenerationKey, Generation> generations;
    std::vector<AsideEvent> aside;
    U64_t runsNoted = 0;        ///< by calls of their own
    std::set<SeriesKey> locked; ///< by somebody who is no archiver
    std::optional<Late> late;
};

/** One connection to it. */
class MemoryStore : public Store {
  public:
    explicit MemoryStore(MemoryDatabase& database, bool isShared = false)
        : committed_(database), isShared_(isShared) {}

    bool isShared() const override { return isShared_; }

    /** All of them, or none. */
    std::vector<Claim> claimAll(const std::vector<Claimant>& claimants) override {
        if (work_) {
            throw std::logic_error("claimed within a transaction");
        }
        requireClaims();
        requireUnlocked([&claimants](const SeriesKey& locked) {
            return std::ranges::count(claimants, locked, &Claimant::key) > 0;
        });
        std::vector<Claim> claims;
        std::vector<SeriesKey> keys;
        for (const Claimant& claimant : claimants) {
            const SeriesNumber number = addTo(committed_, claimant.key);
            claims_[number] = ++committed_.epochs[number];
            last_.erase(number);
            claims.push_back({number, newestGeneration(number)});
            keys.push_back(claimant.key);
        }
        const std::lock_guard lock(mutex_);
        groups_.push_back(std::move(keys));
        return claims;
    }

    /** What was claimed together so far. Any thread may ask. */
    std::vector<std::vector<SeriesKey>> groups() {
        const std::lock_guard lock(mutex_);
        return groups_;
    }

    bool isHeld(SeriesNumber series, View image) override {
        for (const auto& [key, generation] : now().generations) {
            for (const auto& [id, event] : generation.events) {
                if (key.series == series && std::ranges::equal(event.image, image)) {
                    return true;
                }
            }
        }
        return false;
    }

    std::vector<SeriesKey> lockedOf(const std::vector<SeriesKey>& keys) override {
        const std::lock_guard lock(mutex_);
        std::vector<SeriesKey> locked;
        const auto all = allLocked();
        std::ranges::copy_if(keys, std::back_inserter(locked),
                             [&all](const SeriesKey& key) { return all.contains(key); });
        return locked;
    }

    /** Somebody keeps these series locked from now on, and no others. Any thread may say so. */
    void lock(const std::set<SeriesKey>& keys) {
        const std::lock_guard lock(mutex_);
        locked_ = keys;
    }

    void begin() override {
        requireClaims();
        work_ = committed_;
        changes_.clear();
        ours_.clear();
        removed_.clear();
        newEvents_.clear();
        newGenerations_.clear();
        confirmed_.clear();
        filed_.clear();
    }

    /** All changes are made to what is committed by now, or none. */
    void commit() override {
        requireNoConflict();
        if (std::exchange(failsBeforeCommit_, false)) {
            isUnchecked_ = isShared_;
            isLateOurs_ = true;
            committed_.late = MemoryDatabase::Late{keysOf(ours_), changes_};
            throw StoreError("nothing was heard of it", StoreError::Kind::PASSING);
        }
        for (const auto& change : changes_) {
            change(committed_);
        }
        work_.reset();
        if (std::exchange(failsAfterCommit_, false)) {
            isUnchecked_ = isShared_;
            throw StoreError("nothing was heard of it", StoreError::Kind::PASSING);
        }
        for (const auto& [key, id] : filed_) {
            last_[key.series] = {key, id};
        }
    }

    /** Ids, and newest generations, that were looked up. */
    U64_t looks() const { return looks_; }
    U64_t generationLooks() const { return generationLooks_; }

    /** The next commit that is made seems to have failed. */
    void failAfterCommit() { failsAfterCommit_ = true; }

    /** The same, but whoever has the database makes it later. */
    void failBeforeCommit() { failsBeforeCommit_ = true; }

    void rollback() noexcept override {
        work_.reset();
        failsAfterCommit_ = false;
        failsBeforeCommit_ = false;
    }

    SeriesNumber addSeries(const SeriesKey& key) override {
        change([key](MemoryDatabase& all) { addTo(all, key); });
        return work_->series.at(key);
    }

    void addGeneration(const GenerationKey& key, S64_t opened) override {
        newGenerations_.insert(key);
        ours_.insert(key.series);
        change([key, opened](MemoryDatabase& all) {
            all.generations[key].info = {{}, key, opened, 0, {}};
        });
    }

    void addEvent(const GenerationKey& key, const NewEvent& event) override {
        ours_.insert(key.series);
        filed_.emplace_back(key, event.sequenceId);
        if (!removed_.contains({key, event.sequenceId})) {
            newEvents_.emplace(key, event.sequenceId);
        }
        change([key,
                stored = StoredEvent{event.sequenceId, event.own,
                                     Bytes(event.image.begin(), event.image.end()), event.doubtful,
                                     event.received},
                notesRun = isClaimed(key)](MemoryDatabase& all) {
            all.generations[key].events[stored.sequenceId] = stored;
            if (notesRun && !stored.doubtful) {
                extendRun(all.generations[key].info.proven, stored.sequenceId);
            }
        });
    }

    /** It need not be there any more, or not with these bytes: the commit tells. */
    void confirmEvent(const GenerationKey& key, View image) override {
        const U32_t id = imageOf<EmpEvLogHeader_t>(image).evSequenceId;
        ours_.insert(key.series);
        if (!newEvents_.contains({key, id}) && !removed_.contains({key, id})) {
            confirmed_[{key, id}] = Bytes(image.begin(), image.end());
        }
        change([key, id, notesRun = isClaimed(key)](MemoryDatabase& all) {
            auto& [info, events] = all.generations[key];
            if (const auto event = events.find(id); event != events.end()) {
                event->second.doubtful = false;
            }
            if (notesRun) {
                extendRun(info.proven, id);
            }
        });
    }

    /** It must be what it was when the transaction began: the commit tells. */
    void removeEvent(const GenerationKey& key, U32_t id) override {
        ours_.insert(key.series);
        const auto held = eventsOf(key).find(id);
        if (held != eventsOf(key).end() && !newEvents_.contains({key, id}) &&
            !removed_.contains({key, id})) {
            confirmed_[{key, id}] = held->second.image;
        }
        removed_.emplace(key, id);
        change([key, id](MemoryDatabase& all) { all.generations[key].events.erase(id); });
    }

    U64_t removeOldest(const GenerationKey& key, S64_t before, U64_t most) override {
        U64_t removed = 0;
        auto& events = work_->generations[key].events;
        while (removed < most && events.size() > 1 && events.begin()->second.received < before) {
            ++removed;
            removeEvent(key, events.begin()->first);
        }
        return removed;
    }

    void countDuplicates(const GenerationKey& key, U64_t more) override {
        if (isClaimed(key)) {
            ours_.insert(key.series);
        }
        change([key, more](MemoryDatabase& all) { all.generations[key].info.duplicates += more; });
    }

    void noteProven(const GenerationKey& key, const IdRun& run) override {
        change([key, run](MemoryDatabase& all) {
            ++all.runsNoted;
            auto& proven = all.generations[key].info.proven;
            proven = run.first <= run.last ? std::optional(run) : std::nullopt;
        });
    }

    void noteOldest(const GenerationKey& key, U32_t id) override {
        change([key, id](MemoryDatabase& all) { all.generations[key].info.oldest = id; });
    }

    void setAside(const SeriesKey& key, Aside reason, const NewEvent& event) override {
        change([aside = AsideEvent{key, event.sequenceId, reason, event.received,
                                   Bytes(event.image.begin(), event.image.end())}](
                   MemoryDatabase& all) { all.aside.push_back(aside); });
    }

    U64_t removeAside(S64_t before) override {
        const auto isPast = [before](const AsideEvent& event) { return event.received < before; };
        const auto count = static_cast<U64_t>(std::ranges::count_if(now().aside, isPast));
        change([isPast](MemoryDatabase& all) { std::erase_if(all.aside, isPast); });
        return count;
    }

    std::optional<SeriesNumber> findSeries(const SeriesKey& key) override {
        const auto found = now().series.find(key);
        return found != now().series.end() ? std::optional(found->second) : std::nullopt;
    }

    std::optional<GenerationInfo> newestGeneration(SeriesNumber series) override {
        ++generationLooks_;
        std::optional<GenerationInfo> newest;
        for (const auto& [key, generation] : now().generations) {
            if (key.series == series) {
                newest = generation.info;
            }
        }
        return newest;
    }

    std::optional<StoredEvent> findEvent(const GenerationKey& key, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        std::optional<StoredEvent> found;
        for (const auto& [held, event] : eventsOf(key)) {
            const bool fits = event.own && (type == EMP_E_INQUIRY_TYPE_NEXT       ? held > id
                                            : type == EMP_E_INQUIRY_TYPE_EXACT    ? held == id
                                            : type == EMP_E_INQUIRY_TYPE_PREVIOUS ? held < id
                                                                                  : true);
            const bool isDown =
                type == EMP_E_INQUIRY_TYPE_PREVIOUS || type == EMP_E_INQUIRY_TYPE_LAST;
            if (fits && (isDown || !found)) {
                found = event;
            }
        }
        return found;
    }

    std::optional<StoredEvent> heldEvent(const GenerationKey& key, U32_t id) override {
        ++looks_;
        const auto& events = eventsOf(key);
        const auto found = events.find(id);
        return found != events.end() ? std::optional(found->second) : std::nullopt;
    }

    std::optional<StoredEvent> oldestEvent(const GenerationKey& key) override {
        const auto& events = eventsOf(key);
        return events.empty() ? std::nullopt : std::optional(events.begin()->second);
    }

    std::optional<U32_t> highestId(const GenerationKey& key) override {
        const auto& events = eventsOf(key);
        return events.empty() ? std::nullopt : std::optional(events.rbegin()->first);
    }

    U32_t endOfRun(const GenerationKey& key, U32_t from) override {
        U32_t last = from;
        for (auto next = heldEvent(key, last + 1); next && !next->doubtful;
             next = heldEvent(key, last + 1)) {
            ++last;
        }
        return last;
    }

    U64_t rowCount() override {
        U64_t rows = 0;
        for (const auto& [key, generation] : now().generations) {
            rows += generation.events.size();
        }
        return rows;
    }

    std::vector<GenerationInfo> listGenerations() override {
        std::vector<GenerationInfo> list;
        for (const auto& [key, number] : now().series) {
            for (const auto& [place, generation] : now().generations) {
                if (place.series == number) {
                    list.push_back(generation.info);
                    list.back().key = key;
                }
            }
        }
        return list;
    }

    void forEachRun(const GenerationKey& key, U32_t from,
                    const std::function<void(const IdRun&)>& take) override {
        std::optional<IdRun> run;
        for (const auto& [id, event] : eventsOf(key)) {
            if (id < from) {
                continue;
            }
            if (run && id == run->last + 1) {
                run->last = id;
                continue;
            }
            if (run) {
                take(*run);
            }
            run = IdRun{id, id};
        }
        if (run) {
            take(*run);
        }
    }

    void forEachEvent(const GenerationKey& key,
                      const std::function<void(const StoredEvent&)>& take) override {
        for (const auto& [id, event] : eventsOf(key)) {
            take(event);
        }
    }

    void forEachAside(const std::function<void(const AsideEvent&)>& take) override {
        std::ranges::for_each(now().aside, take);
    }

    U64_t bytesUsed() override { return 0; }

  private:
    // As after a new connection: another server may have taken over, without the last that was
    // committed. Retention may have taken it as well.
    void requireClaims() {
        if (!std::exchange(isUnchecked_, false)) {
            return;
        }
        std::vector<SeriesNumber> lost;
        for (const auto& [number, epoch] : claims_) {
            const auto last = last_.find(number);
            const bool isGone = last != last_.end() &&
                                committedAt(last->second.first, last->second.second) == nullptr;
            if (isGone || epoch != committed_.epochs[number]) {
                lost.push_back(number);
            }
        }
        for (const SeriesNumber number : lost) {
            claims_.erase(number);
        }
        if (!lost.empty()) {
            throw StoreConflict(lost);
        }
    }

    // A shared engine writes down how far a log's run goes with what its owner files.
    bool isClaimed(const GenerationKey& key) const {
        return isShared_ && claims_.contains(key.series);
    }
    static void extendRun(std::optional<IdRun>& run, U32_t id) {
        if (!run) {
            run = IdRun{id, id};
        } else if (id == run->last + 1) {
            run->last = id;
        }
    }

    static SeriesNumber addTo(MemoryDatabase& all, const SeriesKey& key) {
        return all.series.emplace(key, static_cast<SeriesNumber>(all.series.size()) + 1)
            .first->second;
    }

    const MemoryDatabase& now() const { return work_ ? *work_ : committed_; }

    const std::map<U32_t, StoredEvent>& eventsOf(const GenerationKey& key) const {
        static const std::map<U32_t, StoredEvent> NONE;
        const auto found = now().generations.find(key);
        return found != now().generations.end() ? found->second.events : NONE;
    }

    template <typename Change>
    void change(Change what) {
        what(*work_);
        changes_.push_back(std::move(what));
    }

    void requireNoConflict() {
        const auto newEvents = std::exchange(newEvents_, {});
        const auto newGenerations = std::exchange(newGenerations_, {});
        const auto confirmed = std::exchange(confirmed_, {});
        if (!isShared_) {
            return;
        }
        const std::set<SeriesKey> logs = keysOf(ours_);
        requireUnlocked([&logs](const SeriesKey& key) { return logs.contains(key); });
        std::vector<SeriesNumber> lost;
        for (const SeriesNumber number : ours_) {
            if (claims_.contains(number) && claims_[number] != committed_.epochs[number]) {
                lost.push_back(number);
                claims_.erase(number);
            }
        }
        std::vector<SeriesNumber> stale;
        for (const auto& [place, image] : confirmed) {
            const StoredEvent* held = committedAt(place.first, place.second);
            if (held == nullptr || held->image != image) {
                stale.push_back(place.first.series);
            }
        }
        for (const auto& [key, id] : newEvents) {
            if (committedAt(key, id) != nullptr) {
                stale.push_back(key.series);
            }
        }
        for (const GenerationKey& key : newGenerations) {
            if (committed_.generations.contains(key)) {
                stale.push_back(key.series);
            }
        }
        if (!lost.empty() || !stale.empty()) {
            throw StoreConflict(lost, stale);
        }
    }

    const StoredEvent* committedAt(const GenerationKey& key, U32_t id) const {
        const auto found = committed_.generations.find(key);
        if (found == committed_.generations.end()) {
            return nullptr;
        }
        const auto event = found->second.events.find(id);
        return event != found->second.events.end() ? &event->second : nullptr;
    }

    template <typename IsMeant>
    void requireUnlocked(IsMeant isMeant) {
        const std::lock_guard lock(mutex_);
        std::vector<SeriesKey> met;
        std::ranges::copy_if(allLocked(), std::back_inserter(met), isMeant);
        isLateOurs_ = isLateOurs_ && committed_.late;
        if (!met.empty() && isLateOurs_) {
            throw StoreError("an earlier commit still waits", StoreError::Kind::PASSING);
        }
        if (!met.empty()) {
            throw StoreLocked(met);
        }
    }

    std::set<SeriesKey> allLocked() const {
        std::set<SeriesKey> all = locked_;
        all.insert(committed_.locked.begin(), committed_.locked.end());
        if (committed_.late) {
            all.insert(committed_.late->logs.begin(), committed_.late->logs.end());
        }
        return all;
    }

    std::set<SeriesKey> keysOf(const std::set<SeriesNumber>& numbers) const {
        std::set<SeriesKey> keys;
        for (const auto& [key, number] : work_->series) {
            if (numbers.contains(number)) {
                keys.insert(key);
            }
        }
        return keys;
    }

    MemoryDatabase& committed_;
    bool isShared_;
    bool failsAfterCommit_ = false;
    bool failsBeforeCommit_ = false;
    bool isLateOurs_ = false; ///< the database's late commit
    U64_t looks_ = 0;
    U64_t generationLooks_ = 0;
    std::mutex mutex_;
    std::set<SeriesKey> locked_;
    std::vector<std::vector<SeriesKey>> groups_;
    std::optional<MemoryDatabase> work_; ///< within a transaction
    std::vector<std::function<void(MemoryDatabase&)>> changes_;
    std::set<SeriesNumber> ours_; ///< series with changes that need their claim
    std::set<std::pair<GenerationKey, U32_t>> newEvents_; ///< where there was none
    std::set<std::pair<GenerationKey, U32_t>> removed_;
    std::map<std::pair<GenerationKey, U32_t>, Bytes> confirmed_; ///< what was confirmed there
    std::set<GenerationKey> newGenerations_;
    std::map<SeriesNumber, U64_t> claims_;                         ///< what this connection claimed
    std::vector<std::pair<GenerationKey, U32_t>> filed_;           ///< in this transaction
    std::map<SeriesNumber, std::pair<GenerationKey, U32_t>> last_; ///< events committed here
    bool isUnchecked_ = false; ///< its claims are, since a commit had no answer
};

} // namespace evarchive

#endif
