/** What the archive knows by heart of series and links, and how it comes to be safe or forgotten.
 */
#include "archive.h"

#include <utility>

namespace evarchive {
void Archive::endLink(LinkNumber link) {
    ended_.push_back(link);
}

// Not before the commit: what came on the link may have to be done again.
void Archive::dropEnded() {
    for (const LinkNumber link : ended_) {
        const auto speaker = speakers_.find(link);
        if (speaker == speakers_.end()) {
            continue;
        }
        if (speaker->second.blade) {
            const auto owner = owners_.find(*speaker->second.blade);
            if (owner != owners_.end() && owner->second == link) {
                owners_.erase(owner);
            }
        }
        speakers_.erase(speaker);
    }
    ended_.clear();
}

Archive::Series& Archive::seriesOf(const SeriesKey& key) {
    if (Series* known = findSeries(key); known != nullptr) {
        return *known;
    }
    return series_.emplace(key, Series{.key = key, .isOurs = settings_.share.has(key)})
        .first->second;
}

Archive::Series* Archive::findSeries(const SeriesKey& key) {
    if (const auto known = series_.find(key); known != series_.end()) {
        return &known->second;
    }
    const auto number = store_.findSeries(key);
    if (!number) {
        return nullptr;
    }
    Series series = load(key, {*number, store_.newestGeneration(*number)});
    return &series_.emplace(key, std::move(series)).first->second;
}

Archive::Series Archive::load(const SeriesKey& key, const Claim& claim) {
    Series series{.key = key, .isOurs = settings_.share.has(key), .newest = {claim.series, 0}};
    if (const auto& newest = claim.newest) {
        series.newest = newest->number;
        series.highestId = newest->highest ? newest->highest : store_.highestId(series.newest);
        if (newest->proven && newest->proven->last <= series.highestId.value_or(0)) {
            series.proven = newest->proven;
            series.notedTo = newest->proven->last;
        }
    }
    return series;
}

void Archive::forget() {
    series_.clear();
    hasDuplicates_.clear();
    for (auto& [link, speaker] : speakers_) {
        speaker.series = nullptr;
    }
}

void Archive::writeDuplicates() {
    for (Series* series : hasDuplicates_) {
        store_.countDuplicates(series->newest, series->duplicates);
        series->duplicates = 0;
    }
    hasDuplicates_.clear();
}

void Archive::ensureTransaction() {
    if (!inTransaction_) {
        store_.begin();
        inTransaction_ = true;
    }
}

void Archive::commit() {
    if (inTransaction_) {
        writeDuplicates();
        store_.commit();
        inTransaction_ = false;
    }
    committed_ = counts_;
    committedRows_ = rows_;
    clearedNow_.clear();
    ownersBefore_.clear();
    dropEnded();
    for (const auto& [level, text] : std::exchange(lines_, {})) {
        say_(level, text);
    }
    if (series_.size() > settings_.knownSeries) {
        makeRoom();
    }
}

// A shared storage has the runs with what was filed; the little that a handshake found beyond is
// found again.
void Archive::makeRoom() {
    if (!store_.isShared()) {
        noteRuns();
        if (inTransaction_) {
            store_.commit();
            inTransaction_ = false;
        }
    }
    forget();
}

void Archive::abandon() noexcept {
    if (inTransaction_) {
        store_.rollback();
        inTransaction_ = false;
    }
    for (auto before = ownersBefore_.rbegin(); before != ownersBefore_.rend(); ++before) {
        owners_[before->first] = before->second;
    }
    ownersBefore_.clear();
    ended_.clear();
    for (const SeriesKey& key : clearedNow_) {
        cleared_.erase(key);
    }
    clearedNow_.clear();
    lines_.clear();
    counts_ = committed_;
    rows_ = committedRows_;
    forget();
}

U64_t Archive::countGaps() {
    U64_t gaps = 0;
    for (const GenerationKey& generation : touched_) {
        U64_t runs = 0;
        store_.forEachRun(generation, 0, [&runs](const IdRun&) { ++runs; });
        gaps += runs > 0 ? runs - 1 : 0;
    }
    return gaps;
}

void Archive::say(Level level, const std::string& text) {
    lines_.emplace_back(level, text);
}

} // namespace evarchive
