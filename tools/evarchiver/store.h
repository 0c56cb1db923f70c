/**
 * @file
 * What the archive asks of its storage, and nothing more: a second engine implements this and the
 * protocol side does not change.
 *
 * An engine is either *owned*, all that files into it being this process (SQLite: a locked file),
 * or *shared* with other processes. Of a shared one the archive knows nothing by heart that a claim
 * does not guard, see Store::isShared().
 *
 * Events lie in series, one for each log: enclosure, blade, slot and instance. A series has
 * generations, counted from 1: a log that was rebuilt or deleted gives out its ids again, and the
 * events of before are kept. A generation holds at most one event of each sequence id.
 *
 * Every call throws StoreError when the engine fails; what was not committed by then is lost once
 * rollback() has been called.
 */
#ifndef EVARCHIVER_STORE_H
#define EVARCHIVER_STORE_H

#include "rules.h"

#include <functional>
#include <stdexcept>
#include <utility>

namespace evarchive {

/** The storage cannot do what it was asked. The text says why. */
class StoreError : public std::runtime_error {
  public:
    enum class Kind : U8_t {
        LASTING,
        REFUSED, ///< the engine is well and refuses it, until somebody sets right what it minds
        PASSING, ///< waiting may help: a lock that another process holds, a full disk
    };

    explicit StoreError(const std::string& text, Kind kind = Kind::LASTING)
        : std::runtime_error(text), kind_(kind) {}

    bool isPassing() const { return kind_ == Kind::PASSING; }
    bool isRefusal() const { return kind_ == Kind::REFUSED; }

  private:
    Kind kind_;
};

/**
 * What was filed meets what another process filed meanwhile. Nothing of the transaction is safe;
 * after rollback() it is to be done again, with a fresh look at what the named series hold: of all
 * others, what was known before the transaction is still as good. Only shared engines throw it,
 * from any call of Store.
 */
class StoreConflict : public std::runtime_error {
  public:
    /**
     * @param lost series whose claim of this process holds no more, see Store::claimAll()
     * @param stale further ones that are not as they were
     */
    explicit StoreConflict(std::vector<S64_t> lost = {}, std::vector<S64_t> stale = {})
        : std::runtime_error("another process files the same"), lost_(std::move(lost)),
          stale_(std::move(stale)) {}

    const std::vector<S64_t>& lost() const { return lost_; }
    const std::vector<S64_t>& stale() const { return stale_; }

  private:
    std::vector<S64_t> lost_;
    std::vector<S64_t> stale_;
};

/** Which blade, in which place. Texts as in the messages, up to their NUL. */
struct BladeKey {
    std::string enclosure;
    std::string blade;
    U32_t slot = 0;

    auto operator<=>(const BladeKey&) const = default;
};

/** Which log: a blade and the instance of its log. */
struct SeriesKey {
    BladeKey blade;
    U32_t instance = 0;

    auto operator<=>(const SeriesKey&) const = default;
};

/**
 * Somebody keeps series locked, and may do so for long. Nothing of the transaction is safe; after
 * rollback() it can be done again without them. What was known before the transaction is still as
 * good. Only shared engines throw it, from any call of Store.
 */
class StoreLocked : public StoreError {
  public:
    explicit StoreLocked(std::vector<SeriesKey> locked)
        : StoreError("another session of the archive's server keeps a log locked", Kind::PASSING),
          locked_(std::move(locked)) {}

    /** At least one. */
    const std::vector<SeriesKey>& locked() const { return locked_; }

  private:
    std::vector<SeriesKey> locked_;
};

/**
 * The engine refuses a series for what it is, and would again; it is well, and takes others.
 * Nothing of the transaction is safe; after rollback() it can be done again without the series.
 * What was known before the transaction is still as good. Only shared engines throw it, from any
 * call of Store that adds or claims a series.
 */
class StoreRefused : public StoreError {
  public:
    StoreRefused(SeriesKey refused, const std::string& text)
        : StoreError(text, Kind::REFUSED), refused_(std::move(refused)) {}

    const SeriesKey& refused() const { return refused_; }

  private:
    SeriesKey refused_;
};

/** The engine's own number of a series. */
using SeriesNumber = S64_t;

/** A generation of a series. */
struct GenerationKey {
    SeriesNumber series = 0;
    U32_t generation = 0;

    auto operator<=>(const GenerationKey&) const = default;
};

/** An event as it came: its header and its data. */
struct StoredEvent {
    U32_t sequenceId = 0;
    /** Whether the event bears the identity of its series. A log can hold events of another
     * identity (replayed alternate events keep theirs): such a one holds its place in the log's
     * numbering, but never answers an inquiry about the log. */
    bool own = true;
    Bytes image;           ///< EmpEvLogMsg_t: 152 bytes and the data
    bool doubtful = false; ///< nothing has been seen behind it yet: it may be damaged
    S64_t received = 0;    ///< seconds since 1970-01-01 UTC
};

/** An event to be stored. */
struct NewEvent {
    U32_t sequenceId = 0;
    View image;
    bool own = true;
    bool doubtful = false;
    S64_t received = 0; ///< seconds since 1970-01-01 UTC
};

/** A generation, as lists of the archive show it. */
struct GenerationInfo {
    SeriesKey key;
    GenerationKey number;
    S64_t opened = 0;     ///< seconds since 1970-01-01 UTC
    U64_t duplicates = 0; ///< events that came again with the same bytes
    /** Ids that were all held once, proven by a look at each; retention may have taken the first
     * ones since. */
    std::optional<IdRun> proven;
    /** An id that none was higher than, ever; nothing: the engine does not keep it, or there was
     * none. */
    std::optional<U32_t> highest = {};
    /** The oldest id that the blade had when it last opened a link on which it brought events of
     * this generation; a log's oldest id never falls. Nothing: not known. */
    std::optional<U32_t> oldest = {};
};

/** Who begins a handshake. */
struct Claimant {
    SeriesKey key;
    U32_t first =
        0; ///< the oldest id that the blade has: it and the end of its run are asked for next
};

/** What a handshake begins with, and whoever files: a series and how far it is. */
struct Claim {
    SeriesNumber series = 0;
    std::optional<GenerationInfo> newest; ///< its newest generation, key left empty; none yet
};

/** Why an event was set aside. */
enum class Aside : U8_t {
    BORDERS_LOST = 1, ///< its stream had lost its message borders
    NEVER_CONFIRMED,  ///< its stream ended behind it, and its place was taken
    OTHER_IDENTITY,   ///< it differs from what its log holds, and did not come from its blade
    SUPERSEDED,       ///< its blade had opened a later link
    REPLACED,         ///< it was doubtful, and the true one came
    REFUSED,          ///< the engine does not take it
};

/** An event that came and could not be filed. */
struct AsideEvent {
    SeriesKey key;
    U32_t sequenceId = 0;
    Aside reason = Aside::BORDERS_LOST;
    S64_t received = 0; ///< seconds since 1970-01-01 UTC
    Bytes image;
};

/** What can be asked of an archive without changing it. */
class StoreReader {
  public:
    virtual ~StoreReader() = default;

    virtual std::optional<SeriesNumber> findSeries(const SeriesKey& key) = 0;

    /** The newest generation of a series, its key left empty; nothing when it has none. */
    virtual std::optional<GenerationInfo> newestGeneration(SeriesNumber series) = 0;

    /** Both of each of these, in that order, in few steps where the engine can; nothing for one
     * that is not there. */
    virtual std::vector<std::optional<Claim>> findAll(const std::vector<SeriesKey>& keys);

    /** The event that an inquiry of this type (EMP_INQUIRY_TYPE_e) with this id means, among the
     * generation's own events: lowest, next above, exact, next below, highest. */
    virtual std::optional<StoredEvent> findEvent(const GenerationKey& generation,
                                                 EMP_INQUIRY_TYPE_e type, U32_t id) = 0;

    /** The event that holds an id, own or not. */
    virtual std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) = 0;

    /** The event with the lowest id, own or not. */
    virtual std::optional<StoredEvent> oldestEvent(const GenerationKey& generation) = 0;

    /** @return the highest id held, own or not */
    virtual std::optional<U32_t> highestId(const GenerationKey& generation) = 0;

    /** @return the last id of the unbroken run of events, none of them doubtful, that begins at
     * @p from, which is one of them */
    virtual U32_t endOfRun(const GenerationKey& generation, U32_t from) = 0;

    /** evTime that nothing reaches of what retention took when it left a log nothing; 0: it leaves
     * each log its newest event. Seconds since 1970-01-01 UTC. */
    virtual U32_t droppedBefore() { return 0; }

    /** Events held, of all series. May have to count them. */
    virtual U64_t rowCount() = 0;

    /** All generations, by key and generation. */
    virtual std::vector<GenerationInfo> listGenerations() = 0;

    /** The runs of a generation from an id on, ascending. The callback must not call the store. */
    virtual void forEachRun(const GenerationKey& generation, U32_t from,
                            const std::function<void(const IdRun&)>& take) = 0;

    /** The own events behind an id, or from the first one on, ascending: at least one if there is
     * any, and as many of up to @p most as are at hand in one step. */
    virtual std::vector<StoredEvent> eventsBehind(const GenerationKey& generation,
                                                  std::optional<U32_t> id, std::size_t most);

    /** The events of a generation, ascending. The callback must not call the store. */
    virtual void forEachEvent(const GenerationKey& generation,
                              const std::function<void(const StoredEvent&)>& take) = 0;

    /** The events that were set aside. The callback must not call the store. */
    virtual void forEachAside(const std::function<void(const AsideEvent&)>& take) = 0;

    /** Bytes that the archive's events take. */
    virtual U64_t bytesUsed() = 0;
};

/** An archive that is written. Changes belong to a transaction. One thread uses it. */
class Store : public StoreReader {
  public:
    /** Whether other processes file into it too. Then
     * - a handshake is claimed, see claimAll(), outside of any transaction, and what it is answered
     * is looked up anew;
     * - events of a link that did not claim their log stay doubtful: they begin no generation but
     *   the first, and make room for what the holder of the claim brings;
     * - an inquiry looks up the newest generation anew;
     * - changes may be kept back until commit(), which tells by a StoreConflict that they cannot be
     *   made: a claim was lost, or an id that was free is not. A change that meets itself, because
     *   the outcome of an earlier commit() is not known, is none. */
    virtual bool isShared() const { return false; }

    /**
     * The blades of these series speak here from now on, whoever claimed them before: of an earlier
     * claim nothing can be committed any more, by any process. What is committed of the series by
     * then can be read. Adds series that are new. Only of a shared engine, outside of transactions.
     * A server that fails before anything is committed may have forgotten the claims; the next
     * change says so by a StoreConflict.
     * @param claimants each of another series
     * @return as many, in that order
     */
    virtual std::vector<Claim> claimAll(const std::vector<Claimant>& claimants);

    Claim claim(const SeriesKey& key, U32_t first) { return claimAll({{key, first}}).front(); }

    /** The blade does not speak here any more: nothing is owed to its claim. Outside of
     * transactions. What is known of the series is to be looked up anew. */
    virtual void release(SeriesNumber /*series*/) {}

    /** Whether any generation of the series holds the very event. Only of a shared engine: an event
     * that comes late, on a link that is not its blade's any more, need not be set aside then. */
    virtual bool isHeld(SeriesNumber series, View image);

    /** Which of these somebody keeps locked at this moment; waits for none of them. Outside of
     * transactions. */
    virtual std::vector<SeriesKey> lockedOf(const std::vector<SeriesKey>& /*keys*/) { return {}; }

    virtual void begin() = 0;

    /** Returns once everything since begin() would survive a loss of power. */
    virtual void commit() = 0;

    /** Forgets everything since begin(). Never throws. */
    virtual void rollback() noexcept = 0;

    virtual SeriesNumber addSeries(const SeriesKey& key) = 0;

    /** @param opened seconds since 1970-01-01 UTC */
    virtual void addGeneration(const GenerationKey& generation, S64_t opened) = 0;

    /** The generation must not hold the event's id yet. */
    virtual void addEvent(const GenerationKey& generation, const NewEvent& event) = 0;

    /** A doubtful event is so no more.
     * @param image what its id holds, as far as the caller knows: when it is not so any more, a
     * shared engine says so by a StoreConflict */
    virtual void confirmEvent(const GenerationKey& generation, View image) = 0;

    virtual void removeEvent(const GenerationKey& generation, U32_t id) = 0;

    /** Removes up to @p most of the generation's events with the lowest ids that came before
     * @p before, but never its newest one. @return how many */
    virtual U64_t removeOldest(const GenerationKey& generation, S64_t before, U64_t most) = 0;

    virtual void countDuplicates(const GenerationKey& generation, U64_t more) = 0;

    /** Remembers ids that are known to be held without a hole; none when @p run is empty, its first
     * id behind its last. */
    virtual void noteProven(const GenerationKey& generation, const IdRun& run) = 0;

    /** Remembers the oldest id that the blade has of the log. */
    virtual void noteOldest(const GenerationKey& generation, U32_t id) = 0;

    /** Keeps an event that cannot be filed; the same one only once. */
    virtual void setAside(const SeriesKey& key, Aside reason, const NewEvent& event) = 0;

    /** Removes the events that were set aside before @p before. @return how many */
    virtual U64_t removeAside(S64_t before) = 0;
};

inline std::vector<std::optional<Claim>> StoreReader::findAll(const std::vector<SeriesKey>& keys) {
    std::vector<std::optional<Claim>> found;
    for (const SeriesKey& key : keys) {
        const auto number = findSeries(key);
        found.push_back(number ? std::optional(Claim{*number, newestGeneration(*number)})
                               : std::nullopt);
    }
    return found;
}

inline std::vector<StoredEvent> StoreReader::eventsBehind(const GenerationKey& generation,
                                                          std::optional<U32_t> id,
                                                          std::size_t /*most*/) {
    const auto type = id ? EMP_E_INQUIRY_TYPE_NEXT : EMP_E_INQUIRY_TYPE_FIRST;
    std::optional<StoredEvent> event = findEvent(generation, type, id.value_or(0));
    std::vector<StoredEvent> events;
    if (event) {
        events.push_back(*std::move(event));
    }
    return events;
}

inline std::vector<Claim> Store::claimAll(const std::vector<Claimant>& /*claimants*/) {
    throw StoreError("an archive that is not shared is not claimed");
}

inline bool Store::isHeld(SeriesNumber /*series*/, View /*image*/) {
    return false;
}

} // namespace evarchive

#endif
