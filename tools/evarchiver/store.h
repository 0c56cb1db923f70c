/**
 * @file
 * What the archive asks of its storage, and nothing more: a second engine implements this and the
 * protocol side does not change.
 *
 * Events lie in series, one for each log: enclosure, blade, slot and instance. A series has
 * generations, counted from 1: a log that was rebuilt or deleted gives out its ids again, and the
 * events of before are kept. A generation holds at most one event of each sequence id.
 *
 * Every call throws StoreError when the engine fails; what was not committed by then may be lost.
 */
#ifndef EVARCHIVER_STORE_H
#define EVARCHIVER_STORE_H

#include "protocol.h"

#include <functional>
#include <optional>
#include <stdexcept>

namespace evarchive {

/** The storage cannot do what it was asked. The text says why. */
class StoreError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
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
    Bytes image; ///< EmpEvLogMsg_t: 152 bytes and the data
};

/** A generation, as lists of the archive show it. */
struct GenerationInfo {
    SeriesKey key;
    GenerationKey number;
    S64_t opened = 0;     ///< seconds since 1970-01-01 UTC
    U64_t duplicates = 0; ///< events that came again with the same bytes
};

/** Ids without a hole, both ends included. */
struct IdRun {
    U32_t first = 0;
    U32_t last = 0;

    bool operator==(const IdRun&) const = default;
};

/** What can be asked of an archive without changing it. */
class StoreReader {
  public:
    virtual ~StoreReader() = default;

    virtual std::optional<SeriesNumber> findSeries(const SeriesKey& key) = 0;

    /** @return the highest generation of a series, 0 when it has none */
    virtual U32_t newestGeneration(SeriesNumber series) = 0;

    /** The event that an inquiry of this type (EMP_INQUIRY_TYPE_e) with this id means, among the
     * generation's own events: lowest, next above, exact, next below, highest. */
    virtual std::optional<StoredEvent> findEvent(const GenerationKey& generation,
                                                 EMP_INQUIRY_TYPE_e type, U32_t id) = 0;

    /** The event that holds an id, own or not. */
    virtual std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) = 0;

    /** @return the highest id held, own or not */
    virtual std::optional<U32_t> highestId(const GenerationKey& generation) = 0;

    /** @return the last id of the unbroken run that @p from, which is held, belongs to */
    virtual U32_t endOfRun(const GenerationKey& generation, U32_t from) = 0;

    /** Events held, of all series. May have to count them. */
    virtual U64_t rowCount() = 0;

    /** All generations, by key and generation. */
    virtual std::vector<GenerationInfo> listGenerations() = 0;

    /** The runs of a generation, ascending. The callback must not call the store. */
    virtual void forEachRun(const GenerationKey& generation,
                            const std::function<void(const IdRun&)>& take) = 0;

    /** The events of a generation, ascending. The callback must not call the store. */
    virtual void forEachEvent(const GenerationKey& generation,
                              const std::function<void(const StoredEvent&)>& take) = 0;
};

/** An archive that is written. Changes belong to a transaction. */
class Store : public StoreReader {
  public:
    virtual void begin() = 0;

    /** Returns once everything since begin() would survive a loss of power. */
    virtual void commit() = 0;

    virtual SeriesNumber addSeries(const SeriesKey& key) = 0;

    /** @param opened seconds since 1970-01-01 UTC */
    virtual void addGeneration(const GenerationKey& generation, S64_t opened) = 0;

    /** The generation must not hold the event's id yet. */
    virtual void addEvent(const GenerationKey& generation, const StoredEvent& event) = 0;

    /** Adds one to the generation's duplicates. */
    virtual void countDuplicate(const GenerationKey& generation) = 0;
};

} // namespace evarchive

#endif
