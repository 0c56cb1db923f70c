#include "pg_engine.h"

#include <set>
#include <utility>

namespace evarchive {

// What two transactions that are in each other's way tell of the logs: nothing when one was to wait
// for the other, the fences tell the rest; when a row is there that was not, that there is more.
void PgStore::giveWay(const PgError& error) {
    if (error.isConflict()) {
        meet({}, error.isTaken() ? involved() : std::vector<SeriesNumber>());
    }
    if (!error.isAboutLocks()) {
        return;
    }
    if (std::exchange(isOnServer_, false)) {
        connection_.execute("ROLLBACK");
    }
    auto locked = findLocked(involved());
    if (!locked.empty() && isInItsOwnWay()) {
        throw PgError("an earlier commit of this archiver still waits, perhaps for a standby",
                      error.state(), StoreError::Kind::PASSING);
    }
    if (!locked.empty()) {
        throw StoreLocked(std::move(locked));
    }
}

// A server goes on with a commit that nobody waits for any more, and its logs are locked until
// then: that is no log in somebody's hands, but an archive that cannot be written.
bool PgStore::isInItsOwnWay() {
    if (unheard_.empty()) {
        return false;
    }
    PgArray numbers(PgType::BIGINT);
    PgArray begun(PgType::TIMESTAMPTZ);
    for (const Session& session : unheard_) {
        numbers.addNumber(session.number);
        begun.addNumber(session.began);
    }
    const PgRows rows = connection_.run(pg::SESSIONS, PgParameters().array(numbers).array(begun));
    const bool isThere = rows.integer(0, 0) > 0;
    if (!isThere) {
        unheard_.clear();
    }
    return isThere;
}

std::vector<SeriesNumber> PgStore::involved() const {
    std::set<SeriesNumber> logs(touched_);
    for (const Saved& saved : saved_) {
        logs.insert(saved.series);
    }
    logs.insert(claiming_.begin(), claiming_.end());
    return {logs.begin(), logs.end()};
}

std::vector<SeriesKey> PgStore::findLocked(const std::vector<SeriesNumber>& logs) {
    PgArray asked(PgType::BIGINT);
    for (const SeriesNumber series : logs) {
        asked.addNumber(series);
    }
    const PgRows rows = connection_.run(pg::LOCKED, PgParameters().array(asked));
    std::vector<SeriesKey> locked;
    for (int row = 0; row < rows.count(); ++row) {
        locked.push_back(reads_.keyOf(rows.integer(row, 0)));
    }
    return locked;
}

std::vector<SeriesKey> PgStore::lockedOf(const std::vector<SeriesKey>& keys) {
    return guarded([&] {
        std::vector<SeriesNumber> logs;
        for (const SeriesKey& key : keys) {
            bool isKnown = false;
            const SeriesNumber number = reads_.numberOf(key, isKnown);
            if (isKnown) {
                logs.push_back(number);
            }
        }
        return findLocked(logs);
    });
}

} // namespace evarchive
