/** What the archive knows by heart of series and links, and how it comes to be safe or forgotten.
 */
#include "archive.h"

#include <algorithm>
#include <iterator>
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
                release(speaker->second);
            }
        }
        speakers_.erase(speaker);
    }
    ended_.clear();
}

// Else what was ever claimed here would be looked up after each loss of the storage.
void Archive::release(const Speaker& speaker) {
    if (speaker.claimed == 0) {
        return;
    }
    store_.release(speaker.claimed);
    const auto series = speaker.told ? series_.find(speaker.told->log) : series_.end();
    if (series != series_.end()) {
        series->second.isForgotten = true;
    }
}

Archive::Series& Archive::seriesOf(const SeriesKey& key) {
    if (Series* known = findSeries(key); known != nullptr) {
        return *known;
    }
    Series& series = series_.emplace(key, Series(key)).first->second;
    series.isOurs = settings_.share.has(key);
    return series;
}

Archive::Series* Archive::findSeries(const SeriesKey& key) {
    if (const auto known = series_.find(key); known != series_.end()) {
        reload(known->second);
        return &known->second;
    }
    const auto number = store_.findSeries(key);
    if (!number) {
        return nullptr;
    }
    Series series(key);
    load(series, {*number, store_.newestGeneration(*number)});
    return &series_.emplace(key, std::move(series)).first->second;
}

void Archive::lookAhead(const std::set<SeriesKey>& logs) {
    std::vector<SeriesKey> unknown;
    std::ranges::copy_if(logs, std::back_inserter(unknown), [this](const SeriesKey& log) {
        const auto known = series_.find(log);
        return known == series_.end() || known->second.isForgotten;
    });
    if (!store_.isShared() || unknown.empty()) {
        return;
    }
    const auto found = store_.findAll(unknown);
    for (std::size_t i = 0; i < found.size(); ++i) {
        Series& series = series_.try_emplace(unknown[i], unknown[i]).first->second;
        load(series, found[i].value_or(Claim{}));
    }
}

void Archive::load(Series& series, const Claim& claim) {
    Position position{.newest = {claim.series, 0}};
    if (const auto& newest = claim.newest) {
        position.newest = newest->number;
        position.oldest = newest->oldest;
        position.highestId = newest->highest ? newest->highest : store_.highestId(position.newest);
        if (newest->proven && newest->proven->last <= position.highestId.value_or(0)) {
            position.proven = newest->proven;
            position.notedTo = newest->proven->last;
        }
    }
    static_cast<Position&>(series) = std::move(position);
    series.isOurs = settings_.share.has(series.key);
    series.isForgotten = false;
    series.isSaved = false;
}

void Archive::reload(Series& series) {
    if (!series.isForgotten) {
        return;
    }
    const auto number = store_.findSeries(series.key);
    load(series, number ? Claim{*number, store_.newestGeneration(*number)} : Claim{});
}

// Before the first change of a transaction. An engine that nobody else files into has no conflicts.
void Archive::save(Series& series) {
    if (!series.isSaved && store_.isShared()) {
        saved_.emplace_back(&series, series);
        series.isSaved = true;
    }
}

// A series got its number, too, in the transaction: it is asked for by it first.
void Archive::recall(const std::vector<SeriesNumber>& lost,
                     const std::vector<SeriesNumber>& stale) {
    std::set<SeriesNumber> named(lost.begin(), lost.end());
    named.insert(stale.begin(), stale.end());
    for (auto& [series, before] : saved_) {
        if (named.erase(series->newest.series) > 0) {
            series->isForgotten = true;
        }
        if (series->isSaved) {
            static_cast<Position&>(*series) = std::move(before);
            series->isSaved = false;
        }
    }
    saved_.clear();
    hasDuplicates_.clear();
    if (named.empty()) {
        return;
    }
    for (auto& [key, series] : series_) {
        series.isForgotten = series.isForgotten || named.contains(series.newest.series);
    }
}

void Archive::forget() {
    series_.clear();
    saved_.clear();
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
    for (auto& [series, before] : saved_) {
        series->isSaved = false;
    }
    saved_.clear();
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
    undo();
    forget();
}

void Archive::abandon(const StoreConflict& conflict) noexcept {
    undo();
    recall(conflict.lost(), conflict.stale());
}

void Archive::abandon(const StoreLocked& /*locked*/) noexcept {
    undo();
    recall({}, {});
}

void Archive::abandon(const StoreRefused& /*refused*/) noexcept {
    undo();
    recall({}, {});
}

void Archive::undo() noexcept {
    if (inTransaction_) {
        store_.rollback();
        inTransaction_ = false;
    }
    ahead_.clear();
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
