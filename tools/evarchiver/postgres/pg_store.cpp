#include "pg_store.h"

#include "common/text.h"
#include "log_number.h"
#include "pg_engine.h"

#include <array>
#include <random>

namespace evarchive {
namespace {

S64_t drawNumber() {
    std::random_device device;
    return static_cast<S64_t>((U64_t{device()} << 31) ^ device()) & INT64_MAX;
}

} // namespace

PgStore::PgStore(const std::string& place, const PgPatience& patience)
    : connection_(place, patience), reads_(connection_), owner_(drawNumber()) {
    requireLayout();
}

void PgStore::connect() {
    if (connection_.isOpen()) {
        return;
    }
    if (isOnServer_) {
        throw PgError("the connection was lost", "08006", StoreError::Kind::PASSING);
    }
    reads_.forget();
    connection_.reopen();
    requireLayout();
    requireClaims();
}

void PgStore::requireLayout() {
    std::string layout;
    try {
        const PgRows rows = connection_.run(pg::LAYOUT);
        layout = rows.count() > 0 ? rows.text(0, 0) : "unknown";
    } catch (const PgError& error) {
        if (error.state() == "42P01") {
            throw StoreError(connection_.placeShown() +
                             ": no event archive; \"evarchiver db create\" makes one");
        }
        throw;
    }
    if (layout != std::to_string(PG_LAYOUT)) {
        throw StoreError(connection_.placeShown() + ": layout " + layout +
                         " of the archive is not known; \"evarchiver db upgrade\" brings an "
                         "earlier one up to date");
    }
}

// A server that took the place of another may lack the last that the other one had.
void PgStore::requireClaims() {
    std::array<PgArray, 5> columns{PgArray{PgType::BIGINT}, PgArray{PgType::BIGINT},
                                   PgArray{PgType::BIGINT}, PgArray{PgType::BIGINT},
                                   PgArray{PgType::BIGINT}};
    for (const auto& [series, known] : known_) {
        if (known.isOwned) {
            columns[0].addNumber(series);
            columns[1].addNumber(known.epoch);
            columns[2].addNumber(known.owner);
            columns[3].addNumber(known.lastGeneration);
            columns[4].addNumber(known.lastId);
        }
    }
    if (columns[0].size() == 0) {
        return;
    }
    PgParameters parameters;
    for (PgArray& column : columns) {
        parameters.array(column);
    }
    const PgRows rows = connection_.run(pg::LOST, parameters);
    std::vector<S64_t> lost;
    for (int row = 0; row < rows.count(); ++row) {
        lost.push_back(rows.integer(row, 0));
        known_.erase(lost.back());
    }
    if (!lost.empty()) {
        throw StoreConflict(lost);
    }
}

void PgStore::beginOnServer() {
    if (!isOnServer_) {
        isOnServer_ = true;
        connection_.run(pg::BEGIN);
    }
}

PgRows PgStore::change(const PgStatement& statement, const PgParameters& parameters) {
    return guarded([&] {
        beginOnServer();
        return connection_.run(statement, parameters);
    });
}

// What a log's epoch and generation are before something is filed in it.
Known& PgStore::known(SeriesNumber series) {
    Known& known = known_[series];
    if (!known.isFresh) {
        const PgRows rows = connection_.run(pg::LOOK, PgParameters().integer(series));
        if (rows.count() == 0) {
            throw StoreConflict();
        }
        if (!known.isOwned) {
            known.epoch = rows.integer(0, 0);
            known.owner = rows.integer(0, 1);
        }
        known.generation = rows.integer(0, 2);
        known.visits = rows.integer(0, 3);
        known.isFresh = true;
    }
    return known;
}

void PgStore::queueName(const SeriesKey& key, SeriesNumber number) {
    connection_.queue(pg::NAME, PgParameters()
                                    .integer(number)
                                    .bytes(identityOf(key))
                                    .text(tools::escapedUtf8(key.blade.enclosure))
                                    .text(tools::escapedUtf8(key.blade.blade))
                                    .integer(key.blade.slot)
                                    .integer(key.instance));
}

// Another process may name another log with the same number at the same time: one of the two is
// first, and the other one looks again.
SeriesNumber PgStore::nameSeries(const SeriesKey& key) {
    for (;;) {
        bool isKnown = false;
        const SeriesNumber number = reads_.numberOf(key, isKnown);
        if (isKnown) {
            return number;
        }
        queueName(key, number);
        connection_.sync();
        connection_.take();
        connection_.finish();
    }
}

Claim PgStore::claim(const SeriesKey& key) {
    return guarded([&] {
        const SeriesNumber number = nameSeries(key);
        connection_.queue(pg::CLAIM, PgParameters().integer(number).integer(owner_));
        connection_.queue(pg::NEWEST, PgParameters().integer(number));
        connection_.sync();
        const PgRows claimed = connection_.take();
        const PgRows newest = connection_.take();
        connection_.finish();
        if (claimed.count() == 0) {
            reads_.forget(); // a server took over that has no row of it yet
            throw StoreConflict();
        }
        Known& known = known_[number];
        known = {true, claimed.integer(0, 0), owner_, claimed.integer(0, 1), claimed.integer(0, 2),
                 true};
        return Claim{number, newest.count() > 0 ? std::optional(generationOf(newest, 0, 0, number))
                                                : std::nullopt};
    });
}

std::optional<GenerationInfo> PgStore::newestGeneration(SeriesNumber series) {
    return guarded([&] {
        flush();
        known(series);
        return reads_.newestGeneration(series);
    });
}

SeriesNumber PgStore::addSeries(const SeriesKey& key) {
    return guarded([&] {
        beginOnServer();
        hasNamed_ = true;
        return nameSeries(key);
    });
}

void PgStore::addGeneration(const GenerationKey& generation, S64_t opened) {
    guarded([&] {
        Known& log = known(generation.series);
        beginOnServer();
        PgParameters parameters;
        parameters.integer(generation.series).integer(generation.generation).time(opened);
        if (log.isOwned) {
            parameters.integer(log.epoch).integer(log.owner);
        } else {
            ++log.visits;
        }
        const PgRows rows =
            connection_.run(log.isOwned ? pg::OPEN_OWNED : pg::OPEN_FREE, parameters);
        touched_.insert(generation.series);
        if (rows.affected() == 0) {
            flush(); // says whether the claim is lost
            throw StoreConflict();
        }
        log.generation = generation.generation;
    });
}

void PgStore::addEvent(const GenerationKey& generation, const NewEvent& event) {
    touched_.insert(generation.series);
    pending_.push_back({generation, rowOf(event.image, reads_.keyOf(generation.series)), event.own,
                        event.doubtful, event.received});
}

void PgStore::changeEvent(const PgStatement& statement, const GenerationKey& generation, U32_t id) {
    guarded([&] { flush(); });
    touched_.insert(generation.series);
    const PgRows rows = change(
        statement,
        PgParameters().integer(generation.series).integer(generation.generation).integer(id));
    if (rows.affected() == 0) {
        throw StoreConflict();
    }
}

U64_t PgStore::removeOldest(const GenerationKey& generation, S64_t before, U64_t most) {
    return change(pg::REMOVE_OLDEST, PgParameters()
                                         .integer(generation.series)
                                         .integer(generation.generation)
                                         .time(before)
                                         .integer(static_cast<S64_t>(most)))
        .affected();
}

void PgStore::noteProven(const GenerationKey& generation, const IdRun& run) {
    PgParameters parameters;
    parameters.integer(generation.series).integer(generation.generation);
    if (run.first > run.last) {
        change(pg::FORGET_RUN, parameters);
    } else {
        change(pg::NOTE_RUN, parameters.integer(run.first).integer(run.last));
    }
}

void PgStore::setAside(const SeriesKey& key, Aside reason, const NewEvent& event) {
    const SeriesNumber number = addSeries(key);
    change(pg::ASIDE, PgParameters()
                          .integer(number)
                          .integer(event.sequenceId)
                          .bytes(digestOf(event.image))
                          .integer(static_cast<S64_t>(reason))
                          .time(event.received)
                          .bytes(event.image));
}

std::unique_ptr<Store> openPgArchive(const std::string& place) {
    return std::make_unique<PgStore>(place, PgPatience());
}

std::unique_ptr<StoreReader> openPgArchiveForReading(const std::string& place) {
    return std::make_unique<PgStore>(place, PgPatience::endless());
}

} // namespace evarchive
