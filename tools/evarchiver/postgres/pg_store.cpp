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

PgStore::PgStore(const std::string& place, const PgPatience& patience,
                 std::optional<std::string> node)
    : connection_(place, patience), node_(std::move(node)), reads_(connection_),
      owner_(drawNumber()) {
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
    looked_.clear();
    glance_.reset();
    connection_.reopen();
    requireLayout();
    requireClaims();
}

void PgStore::requireLayout() {
    std::string layout;
    std::string node;
    try {
        const PgRows rows = connection_.run(pg::LAYOUT);
        layout = rows.count() > 0 ? rows.text(0, 0) : "unknown";
        node = rows.count() > 0 ? rows.text(0, 1) : "";
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
    if (node_ && *node_ != node) {
        throw StoreError(connection_.placeShown() + ": " +
                         (node.empty() ? "it is not spread over servers"
                                       : "it is server " + node + " of a spread archive") +
                         (node_->empty() ? "; file through its hub" : ", not " + *node_));
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

Claim PgStore::claim(const SeriesKey& key, U32_t first) {
    return guarded([&] {
        looked_.clear();
        glance_.reset();
        if (const auto claimed = tryClaim(key, reads_.likelyNumberOf(key), first, false)) {
            return *claimed;
        }
        bool isKnown = false;
        const SeriesNumber number = reads_.numberOf(key, isKnown);
        if (const auto claimed = tryClaim(key, number, first, !isKnown)) {
            return *claimed;
        }
        // A server took over that has no row of it yet, or another log has just taken the number.
        reads_.forget();
        throw StoreConflict();
    });
}

// The claim and all that a handshake asks next, in one round trip; nothing when there is no such
// row.
std::optional<Claim> PgStore::tryClaim(const SeriesKey& key, SeriesNumber number, U32_t first,
                                       bool isNew) {
    if (isNew) {
        queueName(key, number);
    }
    PgParameters claim;
    connection_.queue(pg::CLAIM, claim.integer(number).integer(owner_).bytes(identityOf(key)));
    connection_.queue(pg::NEWEST, PgParameters().integer(number));
    connection_.queue(pg::GLANCE_HIGHEST, PgParameters().integer(number));
    connection_.queue(pg::GLANCE_HELD, PgParameters().integer(number).integer(first));
    connection_.queue(pg::GLANCE_RUN,
                      PgParameters().integer(number).integer(first).integer(pg::FIRST_RUN_PAGE));
    connection_.sync();
    if (isNew) {
        connection_.take();
    }
    const PgRows claimed = connection_.take();
    const PgRows newest = connection_.take();
    if (claimed.count() == 0 || newest.count() == 0) {
        connection_.finish();
    } else {
        glance({number, static_cast<U32_t>(newest.integer(0, 0))}, key, first);
    }
    if (claimed.count() == 0) {
        return std::nullopt;
    }
    reads_.remember(number, key);
    known_[number] = {
        true, claimed.integer(0, 0), owner_, claimed.integer(0, 1), claimed.integer(0, 2), true};
    return Claim{number, newest.count() > 0 ? std::optional(generationOf(newest, 0, 0, number))
                                            : std::nullopt};
}

void PgStore::glance(const GenerationKey& generation, const SeriesKey& key, U32_t first) {
    const PgRows highest = connection_.take();
    const PgRows held = connection_.take();
    const PgRows run = connection_.take();
    connection_.finish();
    glance_.emplace();
    glance_->generation = generation;
    if (highest.count() > 0) {
        glance_->highest = static_cast<U32_t>(highest.integer(0, 0));
    }
    looked_.put(generation, first, std::nullopt);
    for (int row = 0; row < held.count(); ++row) {
        StoredEvent event = PgReads::eventOf(held, row, key);
        const U32_t id = event.sequenceId;
        looked_.put(generation, id, std::move(event));
    }
    if (run.count() > 0 && !run.isNull(0, 1)) {
        glance_->runFrom = run.integer(0, 0);
        glance_->runTo = static_cast<U32_t>(run.integer(0, 1));
    }
}

std::optional<StoredEvent> PgStore::heldEvent(const GenerationKey& generation, U32_t id) {
    return guarded([&] {
        if (const auto* known = looked_.find(generation, id)) {
            return *known;
        }
        flush();
        if (!isBegun_) {
            return reads_.heldEvent(generation, id);
        }
        const U32_t page = looked_.pageFrom(generation, id);
        looked_.putPage(generation, id, page, reads_.heldEvents(generation, id, page));
        return *looked_.find(generation, id);
    });
}

U32_t PgStore::endOfRun(const GenerationKey& generation, U32_t from) {
    if (!glance_ || glance_->generation != generation || glance_->runFrom != from) {
        return read(&PgReads::endOfRun, generation, from);
    }
    const bool isPageFull = glance_->runTo >= glance_->runFrom + pg::FIRST_RUN_PAGE - 1;
    return isPageFull ? read(&PgReads::endOfRun, generation, glance_->runTo) : glance_->runTo;
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
    looked_.forget(generation, event.sequenceId);
    touched_.insert(generation.series);
    pending_.push_back({generation, rowOf(event.image, reads_.keyOf(generation.series)), event.own,
                        event.doubtful, event.received});
}

void PgStore::changeEvent(const PgStatement& statement, const GenerationKey& generation, U32_t id) {
    guarded([&] { flush(); });
    looked_.forget(generation);
    touched_.insert(generation.series);
    const PgRows rows = change(
        statement,
        PgParameters().integer(generation.series).integer(generation.generation).integer(id));
    if (rows.affected() == 0) {
        throw StoreConflict();
    }
}

U64_t PgStore::removeOldest(const GenerationKey& generation, S64_t before, U64_t most) {
    looked_.forget(generation);
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
    return std::make_unique<PgStore>(place, PgPatience(), "");
}

std::string nodeName(U32_t node, U32_t nodes) {
    return std::to_string(node + 1) + " of " + std::to_string(nodes);
}

std::unique_ptr<Store> openPgNode(const std::string& place, U32_t node, U32_t nodes) {
    return std::make_unique<PgStore>(place, PgPatience(), nodeName(node, nodes));
}

std::unique_ptr<StoreReader> openPgArchiveForReading(const std::string& place) {
    return std::make_unique<PgStore>(place, PgPatience::endless(), std::nullopt);
}

} // namespace evarchive
