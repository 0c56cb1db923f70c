/**
 * @file
 * A server that logs of another archive are brought to, many with a statement.
 */
#ifndef EVARCHIVER_IMPORT_TARGET_H
#define EVARCHIVER_IMPORT_TARGET_H

#include "pg_batch.h"

#include <functional>
#include <span>

namespace evarchive {

/** What becomes of a log. */
enum class LogFate : U8_t {
    OPEN,  ///< nothing yet
    TAKEN, ///< brought here
    THERE, ///< was here already, with all its events
    OTHER, ///< was here already, without some of them
};

/** A log on its way. */
struct ImportedLog {
    SeriesKey key;
    std::vector<GenerationInfo> generations; ///< as the other archive counts them
    std::optional<U32_t> highest;            ///< of the newest one
    SeriesNumber number = 0;                 ///< here
    LogFate fate = LogFate::OPEN;
    bool isTried = false; ///< it may have been committed
    U64_t events = 0;
    U64_t missing = 0; ///< events that are not here
};

/** The server. Every call throws PgError; after one, undo(). */
class ImportTarget {
  public:
    /** @param check opens the archive for filing, so that it says what is wrong with it */
    ImportTarget(const std::string& place, std::function<void()> check);

    /** Connects if it is not. @return whether it had to, and something was done here before */
    bool connect();

    /** Ends the transaction, if there is one, without its changes. */
    void undo() noexcept;

    void begin();
    void commit();

    /** Finds the logs' numbers, and gives those a row that have none. */
    void name(std::span<ImportedLog* const> logs);

    /** Takes those that hold nothing, with their generations, from whoever has claimed them; within
     * the transaction nobody else can file into them. @return which */
    std::vector<ImportedLog*> claim(std::span<ImportedLog* const> logs);

    void file(PgBatch& batch);

    /** How many of these events are here, byte for byte, in any generation of their log. */
    U64_t countHeld(PgBatch& batch);

    void setAside(std::span<const std::pair<SeriesNumber, const AsideEvent*>> events);

    /** Events of a log that were set aside because the server did not take them. */
    U64_t countRefused(SeriesNumber log);

  private:
    PgConnection connection_;
    std::function<void()> check_;
    bool hasWorked_ = false;
    bool isBegun_ = false;
};

} // namespace evarchive

#endif
