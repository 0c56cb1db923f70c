/**
 * @file
 * The shared engine's inside.
 */
#ifndef EVARCHIVER_PG_ENGINE_H
#define EVARCHIVER_PG_ENGINE_H

#include "pg_batch.h"
#include "pg_looked.h"
#include "pg_reads.h"
#include "pg_statements.h"
#include "pg_store.h"

#include <array>
#include <set>
#include <span>
#include <unordered_map>

namespace evarchive {

/** What this process goes by when it files into a log: its row, with what the transaction adds. */
struct Known {
    bool isOwned = false;
    S64_t epoch = 0;
    S64_t owner = 0;
    S64_t generation = 0;
    S64_t unclaimed = 0;
    std::optional<U32_t> highest = {};
    std::optional<IdRun> run = {};
    bool isFresh = false;     ///< what is not the claim's is that of the last look
    bool isSaved = false;     ///< as it was before the transaction, it is in the engine's saved_
    S64_t lastGeneration = 0; ///< of the last event that was committed here
    S64_t lastId = -1;        ///< its id; -1: none was

    /** The row, as CLAIM and LOOK give it, from a column on; of a log that is owned, the claim
     * stays. */
    void read(const PgRows& rows, int row, int column);

    /** The newest generation holds, or has lost, an id. */
    void hold(U32_t id, bool isDoubtful);
    void lose(U32_t id);
};

/** The engine. Calls are those of Store; pg_store.cpp has them, pg_claims.cpp the claims,
 * pg_locks.cpp the look for who is in the way, pg_filing.cpp what a commit does. */
class PgStore final : public Store {
  public:
    /** @param node "1 of 3" where the archive is spread, "": it is not, nothing: whatever it is */
    PgStore(const std::string& place, const PgPatience& patience, std::optional<std::string> node,
            Received received = Received::BY_SERVER);

    /** Connects, unless it is, and checks what a connection must find. Every call does so. */
    void connect();

    // What goes wrong between two processes is no failure of the storage.
    template <typename Call>
    decltype(auto) guarded(Call call) {
        try {
            connect();
            return call();
        } catch (const PgError& error) {
            giveWay(error);
            throw;
        }
    }

    // What was handed over is seen by questions about all logs.
    template <typename Result, typename... Parameters, typename... Arguments>
    Result read(Result (PgReads::*question)(Parameters...), const Arguments&... arguments) {
        return guarded([&] {
            flush();
            return (reads_.*question)(arguments...);
        });
    }

    // And by those about its log. That of others goes on to wait: it takes one fence together.
    template <typename Result, typename... Parameters, typename... Arguments>
    Result readOf(SeriesNumber series, Result (PgReads::*question)(Parameters...),
                  const Arguments&... arguments) {
        return guarded([&] {
            flushOf(series);
            return (reads_.*question)(arguments...);
        });
    }

    bool isShared() const override { return true; }

    std::vector<Claim> claimAll(const std::vector<Claimant>& claimants) override;
    void release(SeriesNumber series) override { known_.erase(series); }
    bool isHeld(SeriesNumber series, View image) override {
        return readOf(series, &PgReads::isHeld, series, image);
    }
    std::vector<SeriesKey> lockedOf(const std::vector<SeriesKey>& keys) override;

    void begin() override {
        isBegun_ = true;
        guarded([] {});
    }
    void commit() override;
    void rollback() noexcept override;

    SeriesNumber addSeries(const SeriesKey& key) override;
    void addGeneration(const GenerationKey& generation, S64_t opened) override;
    void addEvent(const GenerationKey& generation, const NewEvent& event) override;
    void confirmEvent(const GenerationKey& generation, View image) override;
    void removeEvent(const GenerationKey& generation, U32_t id) override;
    U64_t removeOldest(const GenerationKey& generation, S64_t before, U64_t most) override;
    void countDuplicates(const GenerationKey& generation, U64_t more) override;
    void noteProven(const GenerationKey& generation, const IdRun& run) override;
    void noteOldest(const GenerationKey& generation, U32_t id) override;
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
    std::vector<std::optional<Claim>> findAll(const std::vector<SeriesKey>& keys) override;
    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        return readOf(generation.series, &PgReads::findEvent, generation, type, id);
    }
    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) override;
    std::optional<StoredEvent> oldestEvent(const GenerationKey& generation) override {
        return readOf(generation.series, &PgReads::oldestEvent, generation);
    }
    std::optional<U32_t> highestId(const GenerationKey& generation) override {
        return readOf(generation.series, &PgReads::highestId, generation);
    }
    U32_t endOfRun(const GenerationKey& generation, U32_t from) override {
        return readOf(generation.series, &PgReads::endOfRun, generation, from);
    }
    U32_t droppedBefore() override { return read(&PgReads::droppedBefore); }
    U64_t rowCount() override { return read(&PgReads::rowCount); }
    U64_t bytesUsed() override { return read(&PgReads::bytesUsed); }
    std::vector<GenerationInfo> listGenerations() override {
        return read(&PgReads::listGenerations);
    }
    void forEachRun(const GenerationKey& generation, U32_t from,
                    const std::function<void(const IdRun&)>& take) override {
        readOf(generation.series, &PgReads::forEachRun, generation, from, take);
    }
    std::vector<StoredEvent> eventsBehind(const GenerationKey& generation, std::optional<U32_t> id,
                                          std::size_t most) override {
        return readOf(generation.series, &PgReads::eventsBehind, generation, id, most);
    }
    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take) override {
        readOf(generation.series, &PgReads::forEachEvent, generation, take);
    }
    void forEachAside(const std::function<void(const AsideEvent&)>& take) override {
        read(&PgReads::forEachAside, take);
    }

  private:
    /** What fences tell. */
    struct Verdict {
        std::vector<SeriesNumber> lost;
        std::vector<SeriesNumber> stale;
    };

    /** A connection, as the server knows it. */
    struct Session {
        S64_t number = 0;
        S64_t began = 0; ///< as PgRows::integer() gives it; 0: the server does not tell
    };

    void requireLayout();
    void requireClaims();
    void beginOnServer();
    PgRows change(const PgStatement& statement, const PgParameters& parameters);
    Known& known(SeriesNumber series);
    Known& changing(SeriesNumber series);
    void look(const std::vector<SeriesNumber>& logs);
    void giveWay(const PgError& error);
    std::vector<SeriesNumber> involved() const;
    bool isInItsOwnWay();
    void requireRows(const std::vector<SeriesNumber>& logs, const PgRows& rows, Verdict& verdict);
    std::vector<SeriesKey> findLocked(const std::vector<SeriesNumber>& logs);
    [[noreturn]] void meet(const std::vector<SeriesNumber>& lost,
                           const std::vector<SeriesNumber>& stale);
    S64_t newestOfOwned(SeriesNumber series);
    void queueName(const SeriesKey& key, SeriesNumber number);
    SeriesNumber nameSeries(const SeriesKey& key);

    /** A claim on its way. */
    struct Claiming {
        SeriesNumber number;
        const Claimant* claimant;
        bool isNew; ///< there may be no row of it
        std::optional<Claim> claim = {};
    };
    using ClaimAnswers = std::array<PgRows, 3>; ///< of CLAIM, NEWEST, FIRST

    // What is refused of a log is no failure of the storage.
    template <typename Call>
    static auto aboutLog(const SeriesKey& key, Call call) {
        try {
            return call();
        } catch (const PgError& error) {
            if (error.isAboutRow()) {
                throw StoreRefused(key, error.what());
            }
            throw;
        }
    }

    void tryClaims(std::vector<Claiming>& claims);
    ClaimAnswers takeAnswers(const Claiming& claiming);
    void claimByLook(Claiming& claiming);
    void queueClaim(const Claiming& claiming);
    void takeClaim(Claiming& claiming, const PgRows& claimed, const PgRows& newest,
                   const PgRows& held);
    GenerationInfo newestOf(GenerationInfo info, U32_t first) const;
    void findSome(std::span<const SeriesKey> keys, std::vector<std::optional<Claim>>& found);

    /** What is known of a log, as it was before the transaction. */
    struct Saved {
        SeriesNumber series;
        Known* log;
        Known before;
    };

    void flush();
    void flushOf(SeriesNumber series) {
        if (touched_.contains(series)) {
            flush();
        }
    }
    bool hasWork() const {
        return !touched_.empty() || !pending_.empty() || !duplicates_.empty() || !oldest_.empty();
    }
    void sortPending();
    void advance();
    void queueFences();
    void queueTaken();
    void queueConfirmed();
    void queueNumbers(const PgStatement& statement, const std::map<GenerationKey, U64_t>& numbers);
    void takeAnswers(bool looksAgain, bool files);
    void takeFences(Verdict& verdict);
    void judge(const PgRows& rows, int row, Verdict& verdict);
    void takeFiled(Verdict& verdict);
    PgParameters parametersOf(std::size_t first, std::size_t count);
    void fileByHalves(std::size_t first, std::size_t count);
    void refuse(const PendingEvent& event);
    void endTransaction();

    PgConnection connection_;
    std::optional<std::string> node_;
    PgReads reads_;
    S64_t owner_; ///< drawn by chance: nobody else has it
    std::unordered_map<SeriesNumber, Known> known_;
    std::set<SeriesNumber> touched_; ///< logs that something was changed of since their fence
    std::vector<PendingEvent> pending_;
    /** Those of them that are doubtful: where they are. */
    std::map<std::pair<GenerationKey, U32_t>, std::size_t> doubtful_;
    std::vector<ConfirmedEvent> confirmed_;              ///< of those that are filed
    std::map<GenerationKey, U64_t> duplicates_;          ///< not counted yet
    std::map<GenerationKey, U64_t> oldest_;              ///< oldest ids that are not noted yet
    std::vector<std::pair<GenerationKey, U32_t>> filed_; ///< in this transaction
    std::vector<std::vector<SeriesNumber>> fences_;      ///< those on their way: what they lock
    std::vector<Saved> saved_;
    std::vector<SeriesNumber> stale_;    ///< what the conflict that ends the transaction has named
    std::vector<SeriesNumber> named_;    ///< logs that the transaction gave their row
    std::vector<SeriesNumber> claiming_; ///< handshakes are under way
    PgBatch batch_;
    LookedUp looked_;
    bool isUnchecked_ = true; ///< the layout and the claims, since the connection was made
    bool isBegun_ = false;
    bool isOnServer_ = false;   ///< the server, too, has begun
    bool isCommitting_ = false; ///< it may have, whatever is heard of it
    Session session_ = {};
    std::vector<Session> unheard_; ///< those whose commit had no answer: they may go on with it
    bool isCareful_ = false;       ///< a value was refused: the next transaction finds out which
};

} // namespace evarchive

#endif
