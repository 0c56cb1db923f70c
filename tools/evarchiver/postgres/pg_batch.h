/**
 * @file
 * Events on their way into a table, a column each.
 */
#ifndef EVARCHIVER_PG_BATCH_H
#define EVARCHIVER_PG_BATCH_H

#include "event_row.h"
#include "pg_connection.h"
#include "pg_store.h"

namespace evarchive {

/** An event that was handed over and is not yet filed. */
struct PendingEvent {
    GenerationKey generation;
    EventRow row;
    bool own = true;
    bool doubtful = false;
    S64_t received = 0;
};

/** A filed event that is doubtful no more. */
struct ConfirmedEvent {
    GenerationKey generation;
    U32_t sequenceId = 0;
    S64_t time = 0; ///< evTime: the partition that it is in
};

/** Arrays for the parameters of pg::FILE. */
class PgBatch {
  public:
    explicit PgBatch(Received received) : isTold_(received == Received::AS_TOLD) {}

    void add(const PendingEvent& event);
    void clear();
    U32_t size() const { return logs_.size(); }

    PgParameters parameters();

  private:
    bool isTold_;
    PgArray logs_{PgType::BIGINT};
    PgArray generations_{PgType::BIGINT};
    PgArray ids_{PgType::BIGINT};
    PgArray times_{PgType::TIMESTAMPTZ};
    PgArray received_{PgType::TIMESTAMPTZ};
    PgArray events_{PgType::INTEGER};
    PgArray sources_{PgType::SMALLINT};
    PgArray types_{PgType::SMALLINT};
    PgArray categories_{PgType::SMALLINT};
    PgArray versions_{PgType::SMALLINT};
    PgArray own_{PgType::BOOLEAN};
    PgArray doubtful_{PgType::BOOLEAN};
    PgArray heads_{PgType::BYTEA};
    PgArray data_{PgType::BYTEA};
};

/** What the rows of logs are to say from now on. */
class PgFence {
  public:
    void add(SeriesNumber log, std::optional<U32_t> highest, const std::optional<IdRun>& run);
    U32_t size() const { return logs_.size(); }

    /** @param withRuns of pg::FENCE, else of pg::VISIT */
    PgParameters parameters(bool withRuns);

  private:
    PgArray logs_{PgType::BIGINT};
    PgArray highest_{PgType::BIGINT};
    PgArray first_{PgType::BIGINT};
    PgArray last_{PgType::BIGINT};
};

} // namespace evarchive

#endif
