#include "pg_engine.h"

#include <algorithm>

namespace evarchive {

// Neighbours in the index are filed one after the other.
void PgStore::sortPending() {
    std::ranges::sort(pending_, [](const PendingEvent& left, const PendingEvent& right) {
        return std::tie(left.generation, left.row.sequenceId) <
               std::tie(right.generation, right.row.sequenceId);
    });
}

// What the logs' rows say of the newest generation when the events are there.
void PgStore::advance() {
    for (const ConfirmedEvent& event : confirmed_) {
        Known& log = changing(event.generation.series);
        if (log.generation == event.generation.generation) {
            log.hold(event.sequenceId, false);
        }
    }
    for (const PendingEvent& event : pending_) {
        Known& log = changing(event.generation.series);
        if (log.generation == event.generation.generation) {
            log.hold(event.row.sequenceId, event.doubtful);
        }
    }
}

void PgStore::queueFences() {
    PgFence owned;
    PgFence free;
    std::vector<SeriesNumber> ownedLogs;
    std::vector<SeriesNumber> freeLogs;
    for (const SeriesNumber series : std::exchange(touched_, {})) {
        const Known& log = changing(series);
        (log.isOwned ? owned : free).add(series, log.highest, log.run);
        (log.isOwned ? ownedLogs : freeLogs).push_back(series);
    }
    if (!ownedLogs.empty()) {
        connection_.queue(pg::FENCE, owned.parameters(true));
        fences_.push_back(std::move(ownedLogs));
    }
    if (!freeLogs.empty()) {
        connection_.queue(pg::VISIT, free.parameters(false));
        fences_.push_back(std::move(freeLogs));
    }
}

// Of logs that are not owned: are the ids still free?
void PgStore::queueTaken() {
    PgArray logs(PgType::BIGINT);
    PgArray generations(PgType::BIGINT);
    PgArray ids(PgType::BIGINT);
    for (const PendingEvent& event : pending_) {
        if (!known_.at(event.generation.series).isOwned) {
            logs.addNumber(event.generation.series);
            generations.addNumber(event.generation.generation);
            ids.addNumber(event.row.sequenceId);
        }
    }
    connection_.queue(pg::TAKEN, PgParameters().array(logs).array(generations).array(ids));
}

void PgStore::queueConfirmed() {
    PgArray logs(PgType::BIGINT);
    PgArray generations(PgType::BIGINT);
    PgArray ids(PgType::BIGINT);
    PgArray times(PgType::TIMESTAMPTZ);
    for (const ConfirmedEvent& event : confirmed_) {
        logs.addNumber(event.generation.series);
        generations.addNumber(event.generation.generation);
        ids.addNumber(event.sequenceId);
        times.addNumber(pgTime(event.time));
    }
    connection_.queue(pg::CONFIRM,
                      PgParameters().array(logs).array(generations).array(ids).array(times));
}

// A number for each of some generations, if there are any.
void PgStore::queueNumbers(const PgStatement& statement,
                           const std::map<GenerationKey, U64_t>& numbers) {
    if (numbers.empty()) {
        return;
    }
    PgArray logs(PgType::BIGINT);
    PgArray generations(PgType::BIGINT);
    PgArray column(PgType::BIGINT);
    for (const auto& [generation, number] : numbers) {
        logs.addNumber(generation.series);
        generations.addNumber(generation.generation);
        column.addNumber(static_cast<S64_t>(number));
    }
    connection_.queue(statement, PgParameters().array(logs).array(generations).array(column));
}

// Whether a log's row is as it was when its events were looked at.
void PgStore::judge(const PgRows& rows, int row, Verdict& verdict) {
    const SeriesNumber series = rows.integer(row, 0);
    Known& log = known_.at(series);
    log.unclaimed += log.isOwned ? 0 : 1; // the mark that was just left
    if (log.isOwned && (rows.integer(row, 1) != log.epoch || rows.integer(row, 2) != log.owner)) {
        verdict.lost.push_back(series);
    } else if (rows.integer(row, 3) != log.generation || rows.integer(row, 4) != log.unclaimed) {
        verdict.stale.push_back(series);
    }
}

// Files what was handed over. Until the commit it may still be undone.
void PgStore::flush() {
    if (!hasWork()) {
        return;
    }
    std::vector<SeriesNumber> unknown;
    for (const SeriesNumber series : touched_) {
        if (!known_[series].isFresh) {
            unknown.push_back(series);
        }
    }
    if (!unknown.empty()) {
        look(unknown);
    }
    sortPending();
    doubtful_.clear();
    const bool looksAgain = std::ranges::any_of(pending_, [this](const PendingEvent& event) {
        return !known_.at(event.generation.series).isOwned;
    });
    const bool begins = !std::exchange(isOnServer_, true);
    const bool files = !pending_.empty() && !isCareful_;
    if (begins) {
        connection_.queue(pg::BEGIN);
    }
    advance();
    queueFences();
    if (looksAgain) {
        queueTaken();
    }
    if (!confirmed_.empty()) {
        queueConfirmed();
    }
    queueNumbers(pg::DUPLICATES, duplicates_);
    queueNumbers(pg::NOTE_OLDEST, oldest_);
    if (files) {
        connection_.queue(pg::FILE, parametersOf(0, pending_.size()));
    }
    connection_.sync();
    if (begins) {
        connection_.take();
    }
    takeAnswers(looksAgain, files);
}

// A log without a row, too, is not what it was.
void PgStore::takeFences(Verdict& verdict) {
    for (const auto& asked : std::exchange(fences_, {})) {
        const PgRows rows = connection_.take();
        for (int row = 0; row < rows.count(); ++row) {
            judge(rows, row, verdict);
        }
        requireRows(asked, rows, verdict);
    }
}

void PgStore::takeAnswers(bool looksAgain, bool files) {
    Verdict verdict;
    takeFences(verdict);
    if (looksAgain) {
        const PgRows taken = connection_.take();
        for (int row = 0; row < taken.count(); ++row) {
            verdict.stale.push_back(taken.integer(row, 0));
        }
    }
    if (const auto confirmed = std::exchange(confirmed_, {}); !confirmed.empty()) {
        if (connection_.take().affected() != confirmed.size()) {
            for (const ConfirmedEvent& event : confirmed) {
                verdict.stale.push_back(event.generation.series);
            }
        }
    }
    for (auto* numbers : {&duplicates_, &oldest_}) {
        if (!std::exchange(*numbers, {}).empty()) {
            connection_.take();
        }
    }
    if (files) {
        takeFiled(verdict);
    }
    connection_.finish();
    if (!verdict.stale.empty() || !verdict.lost.empty()) {
        meet(verdict.lost, verdict.stale);
    }
    if (!files && !pending_.empty()) {
        fileByHalves(0, pending_.size());
    }
    for (const PendingEvent& event : pending_) {
        filed_.emplace_back(event.generation, event.row.sequenceId);
    }
    pending_.clear();
}

// An id that is not free is one to look at again.
void PgStore::takeFiled(Verdict& verdict) {
    try {
        connection_.take();
    } catch (const PgError& error) {
        if (!error.isAboutData() && !error.isConflict()) {
            throw;
        }
        isCareful_ = error.isAboutData();
        for (std::size_t i = 0; error.isTaken() && i < pending_.size(); ++i) {
            verdict.stale.push_back(pending_[i].generation.series);
        }
        meet(verdict.lost, verdict.stale);
    }
}

PgParameters PgStore::parametersOf(std::size_t first, std::size_t count) {
    batch_.clear();
    for (std::size_t i = first; i < first + count; ++i) {
        batch_.add(pending_[i]);
    }
    return batch_.parameters();
}

// Finds the event whose values the engine does not take, and sets it aside.
void PgStore::fileByHalves(std::size_t first, std::size_t count) {
    connection_.execute("SAVEPOINT half");
    try {
        connection_.run(pg::FILE, parametersOf(first, count));
        connection_.execute("RELEASE SAVEPOINT half");
        return;
    } catch (const PgError& error) {
        if (!error.isAboutData()) {
            throw;
        }
    }
    connection_.execute("ROLLBACK TO SAVEPOINT half");
    if (count == 1) {
        refuse(pending_[first]);
        return;
    }
    fileByHalves(first, count / 2);
    fileByHalves(first + count / 2, count - count / 2);
}

void PgStore::refuse(const PendingEvent& event) {
    const SeriesKey key = reads_.keyOf(event.generation.series);
    known_.at(event.generation.series).lose(event.row.sequenceId);
    touched_.insert(event.generation.series); // its row has said more than is true
    const Bytes image = imageOfRow(event.row, key);
    setAside(key, Aside::REFUSED,
             {event.row.sequenceId, image, event.own, event.doubtful, event.received});
}

void PgStore::commit() {
    guarded([&] {
        while (hasWork()) {
            flush();
        }
        isCommitting_ = isOnServer_;
        if (isOnServer_ && connection_.run(pg::COMMIT).tag() != "COMMIT") {
            throw PgError("the server did not commit", "40000", StoreError::Kind::PASSING);
        }
    });
    for (const auto& [generation, id] : filed_) {
        Known& log = known_.at(generation.series);
        log.lastGeneration = generation.generation;
        log.lastId = id;
    }
    isCareful_ = false;
    unheard_.clear();
    endTransaction();
}

void PgStore::rollback() noexcept {
    if (isCommitting_ && !connection_.isOpen()) {
        unheard_.push_back(session_);
    }
    try {
        if (isOnServer_ && connection_.isOpen()) {
            connection_.execute("ROLLBACK");
        }
    } catch (const std::exception&) {
        connection_.close(); // which does it as well
    }
    for (Saved& saved : saved_) {
        if (saved.log->isSaved) { // a claim that was lost is so for good
            *saved.log = saved.before;
            saved.log->isFresh = saved.before.isFresh && !isCommitting_;
        }
    }
    for (const SeriesNumber series : stale_) {
        known_[series].isFresh = false;
    }
    for (const SeriesNumber series : named_) {
        known_[series].isFresh = false;
        reads_.forget(series);
    }
    endTransaction();
}

void PgStore::endTransaction() {
    for (const Saved& saved : saved_) {
        saved.log->isSaved = false;
    }
    saved_.clear();
    stale_.clear();
    named_.clear();
    claiming_.clear();
    touched_.clear();
    pending_.clear();
    doubtful_.clear();
    confirmed_.clear();
    duplicates_.clear();
    oldest_.clear();
    filed_.clear();
    fences_.clear();
    looked_.clear();
    isBegun_ = false;
    isOnServer_ = false;
    isCommitting_ = false;
}

} // namespace evarchive
