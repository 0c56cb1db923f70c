#include "pg_store.h"

#include "common/text.h"
#include "log_number.h"
#include "pg_batch.h"
#include "pg_reads.h"
#include "pg_statements.h"

#include <algorithm>
#include <random>
#include <unordered_map>

namespace evarchive {
namespace {

// Two transactions were in each other's way: both can go well, one after the other.
bool isConflict(const PgError& error) {
    return error.state().starts_with("40");
}

S64_t drawNumber() {
    std::random_device device;
    return static_cast<S64_t>((U64_t{device()} << 31) ^ device()) & INT64_MAX;
}

/** What this process goes by when it files into a log. */
struct Known {
    bool isOwned = false;
    S64_t epoch = 0;
    S64_t owner = 0;
    S64_t generation = 0;
    S64_t visits = 0;
    bool isFresh = false;     ///< generation and visits are those of the last look
    S64_t lastGeneration = 0; ///< of the last event that was committed here
    S64_t lastId = -1;        ///< its id; -1: none was
};

class PgStore final : public Store {
  public:
    PgStore(const std::string& place, const PgPatience& patience)
        : connection_(place, patience), reads_(connection_) {
        requireLayout();
    }

    // What goes wrong between two processes is no failure of the storage.
    template <typename Call>
    auto guarded(Call call) {
        try {
            connect();
            return call();
        } catch (const PgError& error) {
            if (isConflict(error)) {
                throw StoreConflict();
            }
            throw;
        }
    }

    // What was handed over is seen by questions.
    template <typename Result, typename... Parameters, typename... Arguments>
    Result read(Result (PgReads::*question)(Parameters...), const Arguments&... arguments) {
        return guarded([&] {
            flush();
            return (reads_.*question)(arguments...);
        });
    }

    bool isShared() const override { return true; }

    Claim claim(const SeriesKey& key) override;
    bool isHeld(SeriesNumber series, View image) override {
        return read(&PgReads::isHeld, series, image);
    }

    void begin() override {
        guarded([] {});
    }
    void commit() override;
    void rollback() noexcept override;

    SeriesNumber addSeries(const SeriesKey& key) override;
    void addGeneration(const GenerationKey& generation, S64_t opened) override;
    void addEvent(const GenerationKey& generation, const NewEvent& event) override;
    void confirmEvent(const GenerationKey& generation, U32_t id) override {
        changeEvent(pg::CONFIRM, generation, id);
    }
    void removeEvent(const GenerationKey& generation, U32_t id) override {
        changeEvent(pg::REMOVE, generation, id);
    }
    U64_t removeOldest(const GenerationKey& generation, S64_t before, U64_t most) override;
    void countDuplicates(const GenerationKey& generation, U64_t more) override {
        change(pg::DUPLICATES, PgParameters()
                                   .integer(generation.series)
                                   .integer(generation.generation)
                                   .integer(static_cast<S64_t>(more)));
    }
    void noteProven(const GenerationKey& generation, const IdRun& run) override;
    void setAside(const SeriesKey& key, Aside reason, const NewEvent& event) override;
    U64_t removeAside(S64_t before) override {
        return change(pg::REMOVE_ASIDE, PgParameters().time(before)).affected();
    }

    std::optional<SeriesNumber> findSeries(const SeriesKey& key) override {
        bool isKnown = false;
        const SeriesNumber number = guarded([&] { return reads_.numberOf(key, isKnown); });
        return isKnown ? std::optional(number) : std::nullopt;
    }
    std::optional<GenerationInfo> newestGeneration(SeriesNumber series) override;
    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        return read(&PgReads::findEvent, generation, type, id);
    }
    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) override {
        return read(&PgReads::heldEvent, generation, id);
    }
    std::optional<StoredEvent> oldestEvent(const GenerationKey& generation) override {
        return read(&PgReads::oldestEvent, generation);
    }
    std::optional<U32_t> highestId(const GenerationKey& generation) override {
        return read(&PgReads::highestId, generation);
    }
    U32_t endOfRun(const GenerationKey& generation, U32_t from) override {
        return read(&PgReads::endOfRun, generation, from);
    }
    U64_t rowCount() override { return read(&PgReads::rowCount); }
    U64_t bytesUsed() override { return read(&PgReads::bytesUsed); }
    std::vector<GenerationInfo> listGenerations() override {
        return read(&PgReads::listGenerations);
    }
    void forEachRun(const GenerationKey& generation, U32_t from,
                    const std::function<void(const IdRun&)>& take) override {
        read(&PgReads::forEachRun, generation, from, take);
    }
    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take) override {
        read(&PgReads::forEachEvent, generation, take);
    }
    void forEachAside(const std::function<void(const AsideEvent&)>& take) override {
        read(&PgReads::forEachAside, take);
    }

  private:
    void connect();
    void requireLayout();
    void requireClaims();
    void beginOnServer();
    PgRows change(const PgStatement& statement, const PgParameters& parameters);
    void changeEvent(const PgStatement& statement, const GenerationKey& generation, U32_t id);
    Known& known(SeriesNumber series);
    void queueName(const SeriesKey& key, SeriesNumber number);
    SeriesNumber nameSeries(const SeriesKey& key);

    struct Verdict {
        std::vector<S64_t> lost;
        bool isStale = false;
    };

    void flush();
    std::vector<SeriesNumber> unfenced();
    void sortPending();
    void queueFences(const std::vector<SeriesNumber>& unfenced);
    void queueTaken();
    void takeAnswers(bool looksAgain, bool files);
    void judge(const PgRows& rows, int row, Verdict& verdict);
    bool takeFiled();
    PgParameters parametersOf(std::size_t first, std::size_t count);
    void fileByHalves(std::size_t first, std::size_t count);
    void refuse(const PendingEvent& event);
    void endTransaction();

    PgConnection connection_;
    PgReads reads_;
    S64_t owner_ = drawNumber();
    std::unordered_map<SeriesNumber, Known> known_;
    std::set<SeriesNumber> touched_; ///< logs that the transaction has changed something of
    std::set<SeriesNumber> fenced_;  ///< those of them whose rows are locked
    std::vector<PendingEvent> pending_;
    std::vector<std::pair<GenerationKey, U32_t>> filed_; ///< in this transaction
    std::vector<U32_t> fences_; ///< of the fences on their way: how many logs they lock
    PgBatch batch_;
    bool isOnServer_ = false; ///< the server, too, has begun
    bool isCareful_ = false;  ///< a value was refused: the next transaction finds out which
};

void PgStore::connect() {
    if (connection_.isOpen()) {
        return;
    }
    if (isOnServer_) {
        throw PgError("the connection was lost", "08006", StoreError::Kind::PASSING);
    }
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
            throw StoreConflict(); // its row is gone: a server took over that had none yet
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

// Neighbours in the index are filed one after the other.
void PgStore::sortPending() {
    std::ranges::sort(pending_, [](const PendingEvent& left, const PendingEvent& right) {
        return std::tie(left.generation, left.row.sequenceId) <
               std::tie(right.generation, right.row.sequenceId);
    });
}

void PgStore::queueFences(const std::vector<SeriesNumber>& unfenced) {
    PgArray owned(PgType::BIGINT);
    PgArray free(PgType::BIGINT);
    for (const SeriesNumber series : unfenced) {
        (known_.at(series).isOwned ? owned : free).addNumber(series);
    }
    for (auto [logs, statement] : {std::pair(&owned, &pg::FENCE), std::pair(&free, &pg::VISIT)}) {
        if (logs->size() > 0) {
            connection_.queue(*statement, PgParameters().array(*logs));
            fences_.push_back(logs->size());
        }
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

// Whether a log's row is as it was when its events were looked at.
void PgStore::judge(const PgRows& rows, int row, Verdict& verdict) {
    const SeriesNumber series = rows.integer(row, 0);
    Known& log = known_.at(series);
    log.visits += log.isOwned ? 0 : 1; // the mark that was just left
    if (log.isOwned && (rows.integer(row, 1) != log.epoch || rows.integer(row, 2) != log.owner)) {
        verdict.lost.push_back(series);
        log = {};
    } else if (rows.integer(row, 3) != log.generation || rows.integer(row, 4) != log.visits) {
        verdict.isStale = true;
    }
    fenced_.insert(series);
}

std::vector<SeriesNumber> PgStore::unfenced() {
    std::vector<SeriesNumber> series;
    std::ranges::set_difference(touched_, fenced_, std::back_inserter(series));
    for (const SeriesNumber number : series) {
        known(number);
    }
    return series;
}

// Files what was handed over. Until the commit it may still be undone.
void PgStore::flush() {
    const std::vector<SeriesNumber> logs = unfenced();
    if (logs.empty() && pending_.empty()) {
        return;
    }
    sortPending();
    const bool looksAgain = std::ranges::any_of(pending_, [this](const PendingEvent& event) {
        return !known_.at(event.generation.series).isOwned;
    });
    const bool begins = !std::exchange(isOnServer_, true);
    const bool files = !pending_.empty() && !isCareful_;
    if (begins) {
        connection_.queue(pg::BEGIN);
    }
    queueFences(logs);
    if (looksAgain) {
        queueTaken();
    }
    if (files) {
        connection_.queue(pg::FILE, parametersOf(0, pending_.size()));
    }
    connection_.sync();
    if (begins) {
        connection_.take();
    }
    takeAnswers(looksAgain, files);
}

void PgStore::takeAnswers(bool looksAgain, bool files) {
    Verdict verdict;
    for (const U32_t asked : std::exchange(fences_, {})) {
        const PgRows rows = connection_.take();
        verdict.isStale = verdict.isStale || static_cast<U32_t>(rows.count()) != asked;
        for (int row = 0; row < rows.count(); ++row) {
            judge(rows, row, verdict);
        }
    }
    if (looksAgain) {
        verdict.isStale = connection_.take().count() > 0 || verdict.isStale;
    }
    if (files) {
        verdict.isStale = takeFiled() || verdict.isStale;
    }
    connection_.finish();
    if (verdict.isStale || !verdict.lost.empty()) {
        throw StoreConflict(verdict.lost);
    }
    if (!files && !pending_.empty()) {
        fileByHalves(0, pending_.size());
    }
    for (const PendingEvent& event : pending_) {
        filed_.emplace_back(event.generation, event.row.sequenceId);
    }
    pending_.clear();
}

// @return whether an id was not free
bool PgStore::takeFiled() {
    try {
        return connection_.take().affected() != pending_.size();
    } catch (const PgError& error) {
        if (!error.isAboutData()) {
            throw;
        }
        isCareful_ = true;
        throw StoreConflict();
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
        if (connection_.run(pg::FILE, parametersOf(first, count)).affected() != count) {
            throw StoreConflict();
        }
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
    const Bytes image = imageOfRow(event.row, key);
    setAside(key, Aside::REFUSED,
             {event.row.sequenceId, image, event.own, event.doubtful, event.received});
}

void PgStore::commit() {
    guarded([&] {
        flush();
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
    endTransaction();
}

void PgStore::rollback() noexcept {
    try {
        if (isOnServer_ && connection_.isOpen()) {
            connection_.execute("ROLLBACK");
        }
    } catch (const std::exception&) {
        connection_.close(); // which does it as well
    }
    for (auto& [series, log] : known_) {
        log.isFresh = false;
    }
    endTransaction();
}

void PgStore::endTransaction() {
    touched_.clear();
    fenced_.clear();
    pending_.clear();
    filed_.clear();
    fences_.clear();
    isOnServer_ = false;
}

} // namespace

std::unique_ptr<Store> openPgArchive(const std::string& place) {
    return std::make_unique<PgStore>(place, PgPatience());
}

std::unique_ptr<StoreReader> openPgArchiveForReading(const std::string& place) {
    return std::make_unique<PgStore>(place, PgPatience::endless());
}

} // namespace evarchive
