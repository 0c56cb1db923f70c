/**
 * @file
 * A set of ids, as runs without a hole.
 */
#ifndef EVBRIDGE_ID_RUNS_H
#define EVBRIDGE_ID_RUNS_H

#include "store.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace evbridge {

using evarchive::IdRun;

class IdRuns {
  public:
    void add(U32_t id);

    /** The ids of @p held that are not here, ascending, until @p take returns false. */
    void forEachMissing(const IdRun& held, const std::function<bool(U32_t)>& take) const;

    bool empty() const { return runs_.empty(); }
    U32_t last() const { return runs_.back().last; } ///< only when not empty

    /** "0-399,410-410". */
    std::string text() const;

    /** Throws std::runtime_error for a text that is none. */
    static IdRuns parse(const std::string& text);

    bool contains(U32_t id) const;

  private:
    std::vector<IdRun> runs_; ///< ascending, with holes between them
};

/** Of each generation of each log, by name. */
using LogRuns = std::map<std::string, IdRuns>;

/** "ENC-A/BLADE-1/1/1/1": enclosure, blade, slot, instance, generation. */
std::string nameOf(const evarchive::SeriesKey& log, U32_t generation);

/** A line each. */
std::string textOf(const LogRuns& logs);

/** Throws std::runtime_error for lines that are none. */
LogRuns parseLogRuns(const std::string& lines);

} // namespace evbridge

#endif
