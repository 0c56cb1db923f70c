#include "pg_batch.h"

namespace evarchive {

void PgBatch::add(const PendingEvent& event) {
    logs_.addNumber(event.generation.series);
    generations_.addNumber(event.generation.generation);
    ids_.addNumber(event.row.sequenceId);
    times_.addNumber(pgTime(event.row.time));
    if (isTold_) {
        received_.addNumber(pgTime(event.received));
    } else {
        received_.addNull();
    }
    events_.addNumber(event.row.event);
    sources_.addNumber(event.row.source);
    types_.addNumber(event.row.type);
    categories_.addNumber(event.row.category);
    versions_.addNumber(event.row.idVersion);
    own_.addNumber(event.own ? 1 : 0);
    doubtful_.addNumber(event.doubtful ? 1 : 0);
    if (event.row.head) {
        heads_.addBytes(*event.row.head);
    } else {
        heads_.addNull();
    }
    data_.addBytes(event.row.data);
}

void PgBatch::clear() {
    for (PgArray* column :
         {&logs_, &generations_, &ids_, &times_, &received_, &events_, &sources_, &types_,
          &categories_, &versions_, &own_, &doubtful_, &heads_, &data_}) {
        column->clear();
    }
}

PgParameters PgBatch::parameters() {
    PgParameters parameters;
    for (PgArray* column :
         {&logs_, &generations_, &ids_, &times_, &received_, &events_, &sources_, &types_,
          &categories_, &versions_, &own_, &doubtful_, &heads_, &data_}) {
        parameters.array(*column);
    }
    return parameters;
}

namespace {

void add(PgArray& column, const std::optional<U32_t>& value) {
    if (value) {
        column.addNumber(*value);
    } else {
        column.addNull();
    }
}

} // namespace

void PgFence::add(SeriesNumber log, std::optional<U32_t> highest, const std::optional<IdRun>& run) {
    logs_.addNumber(log);
    evarchive::add(highest_, highest);
    evarchive::add(first_, run ? std::optional(run->first) : std::nullopt);
    evarchive::add(last_, run ? std::optional(run->last) : std::nullopt);
}

PgParameters PgFence::parameters(bool withRuns) {
    PgParameters parameters;
    parameters.array(logs_).array(highest_);
    if (withRuns) {
        parameters.array(first_).array(last_);
    }
    return parameters;
}

} // namespace evarchive
