/**
 * @file
 * What is kept and what is answered: the rules of the archive, over any storage.
 */
#ifndef EVARCHIVER_ARCHIVE_H
#define EVARCHIVER_ARCHIVE_H

#include "store.h"

#include <map>
#include <set>

namespace evarchive {

/** Where the archive and the server say what an operator should know, a line each. */
using Say = std::function<void(const std::string& line)>;

/** Which entries blades are asked to drop from their own logs, each blade's log once. */
enum class Clear {
    NOTHING,
    /** All that the archive holds but the newest one: a blade whose log is empty to its last id
     * goes round its loop without rest until the next event. */
    ALL_BUT_NEWEST,
    ALL,
};

/** What an operator sets. */
struct ArchiveSettings {
    U64_t rowLimit = 100'000'000; ///< events kept at most; further ones are refused
    U32_t batch = 1000;           ///< events to a transaction at most, at least 1
    Clear clear = Clear::NOTHING;
};

/** What happened to an event. */
enum class Filed {
    STORED,
    NEW_GENERATION, ///< stored, as the first of a new generation
    DUPLICATE,      ///< held already, with the same bytes: dropped
    REFUSED,        ///< the archive is full: not stored
};

/** What happened since the start. */
struct ArchiveCounts {
    U64_t stored = 0;
    U64_t duplicates = 0;
    U64_t generations = 0; ///< opened because other bytes came under a key that was held
    U64_t gaps = 0;        ///< ids skipped on arrival, each stretch counted once
    U64_t strangers = 0;   ///< events of another identity in a blade's log
    U64_t refused = 0;
    U64_t statusAnswers = 0;
    U64_t found = 0;    ///< inquiries answered with an event
    U64_t notFound = 0; ///< inquiries answered with return code 2
};

/** What a status request is answered. */
struct StatusVerdict {
    U32_t sequenceIdLast = 0;
    U32_t controlFlag = 0; ///< bits of EMP_ARCHIVER_CONTROL_FLAG_e

    bool operator==(const StatusVerdict&) const = default;
};

/** Who speaks on a link, as its status request said. */
BladeKey bladeOf(const EmpGetEvArchiverStatusMsg_t& request);

/** "enclosure E blade B slot 1", texts made printable. */
std::string nameOf(const BladeKey& blade);

/** nameOf() of the blade and the instance. */
std::string nameOf(const SeriesKey& series);

/** The archive. All calls throw StoreError when the storage fails. */
class Archive {
  public:
    Archive(Store& store, const ArchiveSettings& settings, Say say);

    /**
     * Files an event under its enclosure, blade, slot, instance and sequence id. It is kept for
     * good with the next commit().
     * @param speaker the blade on whose link it came, if that is known; when the event bears
     *                another identity it is filed a second time, in the speaker's log, where it
     *                holds its id
     * @param body    EmpEvLogMsg_t, whole
     */
    Filed fileEvent(const BladeKey* speaker, View body);

    /**
     * Answers a status request. Commits first: only what is safe is claimed.
     *
     * Claimed is the last id of the unbroken run, in the newest generation of the asked instance,
     * that the request's evSequenceIdFirst belongs to. "No data" when that id is not held, or is
     * held with another length or other first data bytes: that is another log.
     */
    StatusVerdict answerStatus(const EmpGetEvArchiverStatusMsg_t& request);

    /** The event that an inquiry asks for, only from the asked identity and its newest generation.
     */
    std::optional<StoredEvent> answerInquiry(const EmpEvInquiryMsg_t& inquiry);

    /** Makes everything filed so far safe. */
    void commit();

    const ArchiveCounts& counts() const { return counts_; }

    /** The holes in all generations that events were filed in since the start. */
    U64_t countGaps();

  private:
    /** What is known by heart of a series: it saves a look into the storage for each event. */
    struct Series {
        GenerationKey newest;           ///< zeros: not in the storage yet
        std::optional<U32_t> highestId; ///< of the newest generation
    };

    Filed fileIn(const SeriesKey& key, const StoredEvent& event);
    void refuse();
    void store(const SeriesKey& key, Series& series, const StoredEvent& event);
    void openGeneration(Series& series);
    void noteGap(const SeriesKey& key, const Series& series, U32_t id);
    Series& seriesOf(const SeriesKey& key);
    std::optional<Series> findSeries(const SeriesKey& key);
    void ensureTransaction();
    void clearUpTo(const SeriesKey& key, U32_t first, StatusVerdict& verdict);

    Store& store_;
    ArchiveSettings settings_;
    Say say_;
    ArchiveCounts counts_;
    std::map<SeriesKey, Series> series_;
    std::set<GenerationKey> touched_;
    std::set<SeriesKey> cleared_;
    U64_t rows_;
    U32_t uncommitted_ = 0; ///< events and duplicates since begin()
    bool inTransaction_ = false;
    bool saidFull_ = false;
};

} // namespace evarchive

#endif
