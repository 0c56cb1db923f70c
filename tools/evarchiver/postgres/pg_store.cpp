#include "pg_store.h"

#include "common/text.h"
#include "log_number.h"
#include "pg_engine.h"

#include <algorithm>
#include <array>
#include <random>

namespace evarchive {
namespace {

S64_t drawNumber() {
    std::random_device device;
    return static_cast<S64_t>((U64_t{device()} << 31) ^ device()) & INT64_MAX;
}

// A statement has its time, and each of them is a look into all partitions.
constexpr U32_t LOGS_AT_A_TIME = 500;

} // namespace

void Known::read(const PgRows& rows, int row, int column) {
    const auto idAt = [&](int place) -> std::optional<U32_t> {
        return rows.isNull(row, column + place)
                   ? std::nullopt
                   : std::optional(static_cast<U32_t>(rows.integer(row, column + place)));
    };
    if (!isOwned) {
        epoch = rows.integer(row, column);
        owner = rows.integer(row, column + 1);
    }
    generation = rows.integer(row, column + 2);
    unclaimed = rows.integer(row, column + 3);
    highest = idAt(4);
    const auto first = idAt(5);
    const auto last = idAt(6);
    run = first && last ? std::optional(IdRun{*first, *last}) : std::nullopt;
    isFresh = true;
}

void Known::hold(U32_t id, bool isDoubtful) {
    highest = std::max(highest.value_or(0), id);
    if (isDoubtful || !isOwned) {
        return; // the run is its owner's business
    }
    if (!run) {
        run = IdRun{id, id};
    } else if (id == U64_t{run->last} + 1) {
        run->last = id;
    }
}

void Known::lose(U32_t id) {
    if (run && run->contains(id)) {
        run = id > run->first ? std::optional(IdRun{run->first, id - 1}) : std::nullopt;
    }
}

PgStore::PgStore(const std::string& place, const PgPatience& patience,
                 std::optional<std::string> node, Received received)
    : connection_(place, patience), node_(std::move(node)), reads_(connection_),
      owner_(drawNumber()), batch_(received) {}

// What is to be checked stays so until it was: a server that has just taken over may be too slow at
// first.
void PgStore::connect() {
    if (connection_.isOpen() && !isUnchecked_) {
        return;
    }
    if (isOnServer_) {
        throw PgError("the connection was lost", "08006", StoreError::Kind::PASSING);
    }
    isUnchecked_ = true;
    reads_.forget();
    looked_.clear();
    if (!connection_.isOpen()) {
        connection_.reopen();
    }
    for (auto& [series, log] : known_) {
        log.isFresh = false;
    }
    requireLayout();
    requireClaims();
    isUnchecked_ = false;
}

void PgStore::requireLayout() {
    std::string layout;
    std::string node;
    try {
        const PgRows rows = connection_.run(pg::LAYOUT);
        layout = rows.count() > 0 ? rows.text(0, 0) : "unknown";
        node = rows.count() > 0 ? rows.text(0, 1) : "";
        session_ = rows.count() > 0 ? Session{rows.integer(0, 2), rows.integer(0, 3)} : Session();
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
    std::vector<S64_t> lost;
    auto next = known_.cbegin();
    while (next != known_.cend()) {
        std::array<PgArray, 5> columns{PgArray{PgType::BIGINT}, PgArray{PgType::BIGINT},
                                       PgArray{PgType::BIGINT}, PgArray{PgType::BIGINT},
                                       PgArray{PgType::BIGINT}};
        for (; next != known_.cend() && columns[0].size() < LOGS_AT_A_TIME; ++next) {
            const auto& [series, known] = *next;
            if (known.isOwned) {
                columns[0].addNumber(series);
                columns[1].addNumber(known.epoch);
                columns[2].addNumber(known.owner);
                columns[3].addNumber(known.lastGeneration);
                columns[4].addNumber(known.lastId);
            }
        }
        PgParameters parameters;
        for (PgArray& column : columns) {
            parameters.array(column);
        }
        const PgRows rows = connection_.run(pg::LOST, parameters);
        for (int row = 0; row < rows.count(); ++row) {
            lost.push_back(rows.integer(row, 0));
        }
    }
    if (!lost.empty()) {
        isUnchecked_ = false;
        meet(lost, {});
    }
}

// Ends the transaction with a conflict: what it names is looked at anew.
void PgStore::meet(const std::vector<SeriesNumber>& lost, const std::vector<SeriesNumber>& stale) {
    for (const SeriesNumber series : lost) {
        known_[series] = {};
    }
    stale_ = stale;
    throw StoreConflict(lost, stale);
}

// A log whose row somebody has removed is added anew; who owned it has lost it.
void PgStore::requireRows(const std::vector<SeriesNumber>& logs, const PgRows& rows,
                          Verdict& verdict) {
    if (static_cast<std::size_t>(rows.count()) == logs.size()) {
        return;
    }
    std::set<SeriesNumber> missing(logs.begin(), logs.end());
    for (int row = 0; row < rows.count(); ++row) {
        missing.erase(rows.integer(row, 0));
    }
    for (const SeriesNumber series : missing) {
        reads_.forget(series);
        (known_[series].isOwned ? verdict.lost : verdict.stale).push_back(series);
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
        look({series});
    }
    return known;
}

void PgStore::look(const std::vector<SeriesNumber>& logs) {
    PgArray asked(PgType::BIGINT);
    for (const SeriesNumber series : logs) {
        asked.addNumber(series);
    }
    const PgRows rows = connection_.run(pg::LOOK, PgParameters().array(asked));
    for (int row = 0; row < rows.count(); ++row) {
        known_[rows.integer(row, 0)].read(rows, row, 1);
    }
    Verdict verdict;
    requireRows(logs, rows, verdict);
    if (!verdict.lost.empty() || !verdict.stale.empty()) {
        meet(verdict.lost, verdict.stale);
    }
}

// The log is known, and about to be known otherwise.
Known& PgStore::changing(SeriesNumber series) {
    Known& log = known_.at(series);
    if (!log.isSaved) {
        saved_.push_back({series, &log, log});
        log.isSaved = true;
    }
    return log;
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
        named_.push_back(number);
        queueName(key, number);
        connection_.sync();
        aboutLog(key, [this] { return connection_.take(); });
        connection_.finish();
    }
}

// The log's row knows of the last run, the generation's perhaps of the one that the blade speaks
// of.
GenerationInfo PgStore::newestOf(GenerationInfo info, U32_t first) const {
    const Known& log = known_.at(info.number.series);
    if (log.generation != info.number.generation) {
        return info;
    }
    info.highest = log.highest;
    const bool isOther =
        info.proven && log.run && info.proven->contains(first) && !log.run->contains(first);
    if (log.run && !isOther) {
        info.proven = log.run;
    }
    return info;
}

std::optional<StoredEvent> PgStore::heldEvent(const GenerationKey& generation, U32_t id) {
    return guarded([&] {
        if (const auto* known = looked_.find(generation, id)) {
            return *known;
        }
        flushOf(generation.series);
        if (!isBegun_) {
            return reads_.heldEvent(generation, id);
        }
        const U32_t page = looked_.pageFrom(generation, id);
        looked_.putPage(generation, id, page, reads_.heldEvents(generation, id, page));
        return *looked_.find(generation, id);
    });
}

std::optional<GenerationInfo> PgStore::newestGeneration(SeriesNumber series) {
    return guarded([&]() -> std::optional<GenerationInfo> {
        flushOf(series);
        known(series);
        const PgRows rows = connection_.run(pg::NEWEST, PgParameters().integer(series));
        return rows.count() > 0 ? std::optional(newestOf(generationOf(rows, 0, 0, series), 0))
                                : std::nullopt;
    });
}

std::vector<std::optional<Claim>> PgStore::findAll(const std::vector<SeriesKey>& keys) {
    return guarded([&] {
        flush();
        std::vector<std::optional<Claim>> found;
        for (std::size_t at = 0; at < keys.size(); at += LOGS_AT_A_TIME) {
            const std::size_t count = std::min<std::size_t>(LOGS_AT_A_TIME, keys.size() - at);
            findSome(std::span(keys).subspan(at, count), found);
        }
        return found;
    });
}

// A log whose usual number is another one's is looked for by itself.
void PgStore::findSome(std::span<const SeriesKey> keys, std::vector<std::optional<Claim>>& found) {
    PgArray asked(PgType::BIGINT);
    for (const SeriesKey& key : keys) {
        asked.addNumber(reads_.likelyNumberOf(key));
    }
    const PgRows rows = connection_.run(pg::FIND_LOGS, PgParameters().array(asked));
    std::map<SeriesNumber, int> rowOf;
    for (int row = 0; row < rows.count(); ++row) {
        rowOf.emplace(rows.integer(row, 0), row);
    }
    for (const SeriesKey& key : keys) {
        const SeriesNumber number = reads_.likelyNumberOf(key);
        const auto row = rowOf.find(number);
        if (row == rowOf.end()) {
            found.emplace_back();
        } else if (rows.bytes(row->second, 8) != identityOf(key)) {
            found.push_back(StoreReader::findAll({key}).front());
        } else {
            reads_.remember(number, key);
            known_[number].read(rows, row->second, 1);
            found.emplace_back(Claim{number, std::nullopt});
            if (!rows.isNull(row->second, 9)) {
                found.back()->newest = newestOf(generationOf(rows, row->second, 9, number), 0);
            }
        }
    }
}

SeriesNumber PgStore::addSeries(const SeriesKey& key) {
    return guarded([&] {
        beginOnServer();
        return nameSeries(key);
    });
}

void PgStore::addGeneration(const GenerationKey& generation, S64_t opened) {
    guarded([&] {
        known(generation.series);
        Known& log = changing(generation.series);
        beginOnServer();
        // What comes before belongs to the generation before, and so does its run.
        flushOf(generation.series);
        if (log.isOwned && log.run) {
            connection_.run(pg::NOTE_RUN, PgParameters()
                                              .integer(generation.series)
                                              .integer(log.generation)
                                              .integer(log.run->first)
                                              .integer(log.run->last));
        }
        PgParameters parameters;
        parameters.integer(generation.series).integer(generation.generation).time(opened);
        if (log.isOwned) {
            parameters.integer(log.epoch).integer(log.owner);
        } else {
            ++log.unclaimed;
        }
        const PgRows rows =
            connection_.run(log.isOwned ? pg::OPEN_OWNED : pg::OPEN_FREE, parameters);
        touched_.insert(generation.series);
        if (rows.affected() == 0) {
            flush(); // says whether the claim is lost
            meet({}, {generation.series});
        }
        log.generation = generation.generation;
        log.highest.reset();
        log.run.reset();
    });
}

void PgStore::addEvent(const GenerationKey& generation, const NewEvent& event) {
    looked_.forget(generation, event.sequenceId);
    touched_.insert(generation.series);
    if (event.doubtful) {
        doubtful_[{generation, event.sequenceId}] = pending_.size();
    }
    pending_.push_back({generation, rowOf(event.image, reads_.keyOf(generation.series)), event.own,
                        event.doubtful, event.received});
}

void PgStore::confirmEvent(const GenerationKey& generation, View image) {
    const auto header = imageOf<EmpEvLogHeader_t>(image);
    const U32_t id = header.evSequenceId;
    looked_.confirm(generation, id);
    touched_.insert(generation.series);
    const auto waiting = doubtful_.find({generation, id});
    if (waiting == doubtful_.end()) {
        confirmed_.push_back({generation, id, header.evTime});
        return;
    }
    pending_[waiting->second].doubtful = false;
    doubtful_.erase(waiting);
}

void PgStore::removeEvent(const GenerationKey& generation, U32_t id) {
    Known& log = guarded([&]() -> Known& {
        flushOf(generation.series);
        known(generation.series);
        return changing(generation.series);
    });
    looked_.forget(generation);
    touched_.insert(generation.series);
    const PgRows rows = change(
        pg::REMOVE,
        PgParameters().integer(generation.series).integer(generation.generation).integer(id));
    if (rows.affected() == 0) {
        meet({}, {generation.series});
    }
    log.lose(id);
}

// The fence of a claim goes before it. Who visits leaves no mark for a mere count.
void PgStore::countDuplicates(const GenerationKey& generation, U64_t more) {
    const auto known = known_.find(generation.series);
    if (known != known_.end() && known->second.isOwned) {
        touched_.insert(generation.series);
    }
    duplicates_[generation] += more;
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

S64_t PgStore::newestOfOwned(SeriesNumber series) {
    return guarded([&] { return known(series).generation; });
}

// Of a log that is owned its row tells, which the fence writes; of others, and of generations of
// before, the generation's.
void PgStore::noteProven(const GenerationKey& generation, const IdRun& run) {
    const bool isNothing = run.first > run.last;
    const auto known = known_.find(generation.series);
    if (known != known_.end() && known->second.isOwned &&
        newestOfOwned(generation.series) == generation.generation) {
        std::optional<IdRun>& noted = changing(generation.series).run;
        const bool isWithin = noted && noted->contains(run.first) && run.last <= noted->last;
        if (isNothing ? noted.has_value() : !isWithin) {
            noted = isNothing ? std::nullopt : std::optional(run);
            touched_.insert(generation.series);
        }
        return;
    }
    PgParameters parameters;
    parameters.integer(generation.series).integer(generation.generation);
    if (isNothing) {
        change(pg::FORGET_RUN, parameters);
    } else {
        change(pg::NOTE_RUN, parameters.integer(run.first).integer(run.last));
    }
}

void PgStore::noteOldest(const GenerationKey& generation, U32_t id) {
    touched_.insert(generation.series);
    oldest_[generation] = id;
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

namespace {

std::unique_ptr<PgStore> opened(std::unique_ptr<PgStore> store) {
    store->connect();
    return store;
}

} // namespace

std::unique_ptr<Store> openPgArchive(const std::string& place, Received received) {
    return opened(std::make_unique<PgStore>(place, PgPatience(), "", received));
}

std::string nodeName(U32_t node, U32_t nodes) {
    return std::to_string(node + 1) + " of " + std::to_string(nodes);
}

std::unique_ptr<Store> openPgNode(const std::string& place, U32_t node, U32_t nodes,
                                  Received received) {
    auto store = std::make_unique<PgStore>(place, PgPatience(), nodeName(node, nodes), received);
    try {
        store->connect();
    } catch (const StoreError& error) {
        if (!error.isPassing()) {
            throw;
        }
    }
    return store;
}

std::unique_ptr<StoreReader> openPgArchiveForReading(const std::string& place) {
    return opened(std::make_unique<PgStore>(place, PgPatience::endless(), std::nullopt));
}

} // namespace evarchive
