/**
 * @file
 * What can be asked of an archive on a PostgreSQL server.
 */
#ifndef EVARCHIVER_PG_READS_H
#define EVARCHIVER_PG_READS_H

#include "pg_connection.h"

#include <map>

namespace evarchive {

/** Questions, over a connection that somebody else keeps open. Calls are those of StoreReader. */
class PgReads {
  public:
    explicit PgReads(PgConnection& connection) : connection_(connection) {}

    /** The number of a log, whether it has a row or not; the row of another log is never taken for
     * it. @param isKnown set to whether there is a row */
    SeriesNumber numberOf(const SeriesKey& key, bool& isKnown);
    const SeriesKey& keyOf(SeriesNumber series);

    /** The number that a log has unless another log has it; asks nobody. */
    SeriesNumber likelyNumberOf(const SeriesKey& key) const;

    /** Whether the log was seen. */
    bool knows(const SeriesKey& key) const { return numbers_.contains(key); }

    /** The log of this number was seen to be this one. */
    void remember(SeriesNumber number, const SeriesKey& key);

    /** Rows of logs that were seen may not be there any more: of all, or of one. */
    void forget();
    void forget(SeriesNumber series);

    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id);
    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id);
    std::vector<StoredEvent> heldEvents(const GenerationKey& generation, U32_t first, U32_t count);
    std::optional<StoredEvent> oldestEvent(const GenerationKey& generation);
    std::optional<U32_t> highestId(const GenerationKey& generation);
    U32_t endOfRun(const GenerationKey& generation, U32_t from);
    bool isHeld(SeriesNumber series, View image);
    U32_t droppedBefore();
    U64_t rowCount();
    U64_t bytesUsed();
    std::vector<GenerationInfo> listGenerations();
    void forEachRun(const GenerationKey& generation, U32_t from,
                    const std::function<void(const IdRun&)>& take);
    std::vector<StoredEvent> eventsBehind(const GenerationKey& generation, std::optional<U32_t> id,
                                          std::size_t most);
    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take);
    void forEachAside(const std::function<void(const AsideEvent&)>& take);

    /** An event of a row with the columns PG_EVENT_COLUMNS. */
    static StoredEvent eventOf(const PgRows& rows, int row, const SeriesKey& key);

  private:
    PgRows ask(const PgStatement& statement, const GenerationKey& generation, S64_t id);
    std::optional<StoredEvent> oneEvent(const PgRows& rows, SeriesNumber series);

    PgConnection& connection_;
    std::map<SeriesNumber, SeriesKey> keys_;
    std::map<SeriesKey, SeriesNumber> numbers_;
};

/** The columns of a generation as NEWEST and GENERATIONS give them, from a column on. */
GenerationInfo generationOf(const PgRows& rows, int row, int column, SeriesNumber series);

} // namespace evarchive

#endif
