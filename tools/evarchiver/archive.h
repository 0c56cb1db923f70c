/**
 * @file
 * What is kept and what is answered: the rules over a storage. Synchronous, for one thread.
 */
#ifndef EVARCHIVER_ARCHIVE_H
#define EVARCHIVER_ARCHIVE_H

#include "say.h"
#include "store.h"

#include <array>
#include <map>
#include <set>
#include <unordered_map>

namespace evarchive {

/** A link's number, never given twice in one run; 0: none. */
using LinkNumber = U64_t;

/** Which logs are an archive's. All of a blade's on one server are in one share. */
struct Share {
    U32_t number = 0;
    U32_t of = 1;    ///< shares that there are
    U32_t nodes = 1; ///< servers that the archive is spread over, each with as many shares
    std::function<U32_t(const SeriesKey&)> nodeOf = {}; ///< which of them has a log

    bool has(const SeriesKey& log) const { return of == 1 || numberOf(log) == number; }

    /** The share that a log is in. */
    U32_t numberOf(const SeriesKey& log) const {
        const U32_t each = of / nodes;
        return (nodes > 1 ? nodeOf(log) * each : 0) + shareOf(log.blade, each);
    }

    static U32_t shareOf(const BladeKey& blade, U32_t shares);
};

/** What an operator sets. */
struct ArchiveSettings {
    U64_t rowLimit = 0; ///< events kept at most, further ones are refused; 0: no limit
    Clear clear = Clear::NOTHING;
    Share share = {};
    /** Logs known by heart at most: enough for a fleet, and a bound on memory. */
    std::size_t knownSeries = 100'000;
};

/** What happened to an event. */
enum class Filed : U8_t {
    STORED,
    NEW_GENERATION, ///< stored, as the first of a new generation
    DUPLICATE,      ///< held already, with the same bytes: dropped
    SET_ASIDE,      ///< kept, but not filed
    LEFT,           ///< not yet filed: it comes again with more certainty
    REFUSED,        ///< the archive is full: not stored
};

/** What happened since the start. */
struct ArchiveCounts {
    U64_t stored = 0;
    U64_t bytes = 0; ///< of the events stored
    U64_t duplicates = 0;
    U64_t generations = 0; ///< opened because other bytes came under a key that was held
    U64_t gaps = 0;        ///< ids skipped on arrival, each stretch counted once
    U64_t strangers = 0;   ///< events of another identity in a blade's log
    U64_t setAside = 0;
    U64_t refused = 0;
    U64_t statusAnswers = 0;
    U64_t found = 0;    ///< inquiries answered with an event
    U64_t notFound = 0; ///< inquiries answered with return code 2

    ArchiveCounts& operator+=(const ArchiveCounts& other);
};

/** Who speaks on a link, as its status request said. */
BladeKey bladeOf(const EmpGetEvArchiverStatusMsg_t& request);

/** Which log a status request, or an inquiry, asks about. */
SeriesKey logOf(const EmpGetEvArchiverStatusMsg_t& request);
SeriesKey logOf(const EmpEvInquiryMsg_t& inquiry);

/** "enclosure E blade B slot 1", texts made printable. */
std::string nameOf(const BladeKey& blade);

/** nameOf() of the blade and the instance. */
std::string nameOf(const SeriesKey& series);

/**
 * The archive. All calls but abandon() throw StoreError when the storage fails, and StoreConflict
 * when another process is in the way; abandon() is then the next call, and everything since the
 * last commit() has to be done again.
 *
 * Several archives can share the work, each with a storage of its own. What an event means for logs
 * of another share is left to the archive that has them; each is given the event.
 */
class Archive {
  public:
    /** @param say called at commit() with the lines since the one before, nothing of it earlier:
     * what is abandoned is not said */
    Archive(Store& store, const ArchiveSettings& settings, Say say);

    /** The time that is written beside what comes from now on, seconds since 1970-01-01 UTC. */
    void setTime(S64_t now) { now_ = now; }

    /**
     * Files an event under its enclosure, blade, slot, instance and sequence id. It is kept for
     * good with the next commit().
     * @param link who brings it. When that link has sent a status request and the event bears
     *             another identity, it is filed a second time, in the speaker's log, where it holds
     *             its id
     * @param body EmpEvLogMsg_t, whole
     */
    Filed fileEvent(LinkNumber link, View body, Certainty certainty = Certainty::CERTAIN);

    /** An event that was filed without a border behind it turns out to be damaged. */
    void takeBack(LinkNumber link, View body);

    /** Whether status requests are claimed, with a commit() before them and one behind. */
    bool isClaimed() const { return store_.isShared(); }

    /** Claims together what the next status requests ask for, each another log, before they are
     * answered; in between nothing is filed. One that is not among them is claimed by itself. */
    void claimAhead(const std::vector<EmpGetEvArchiverStatusMsg_t>& requests);

    /**
     * Answers a status request; the answer must not leave before the next commit(). From now on
     * the link is the one that its blade speaks on.
     *
     * Claimed is the unbroken run, in the newest generation of the asked instance, that the
     * request's evSequenceIdFirst belongs to, see claimOf().
     */
    StatusVerdict answerStatus(LinkNumber link, const EmpGetEvArchiverStatusMsg_t& request);

    /** The event that an inquiry asks for, only from the asked identity and its newest generation.
     */
    std::optional<StoredEvent> answerInquiry(const EmpEvInquiryMsg_t& inquiry);

    /** Looks up together what is not known by heart of these logs, before events of them are filed;
     * outside of transactions. */
    void lookAhead(const std::set<SeriesKey>& logs);

    /** A blade of another share has sent a status request on the link. */
    void noteSpeaker(LinkNumber link, const BladeKey& blade);

    /** The link is gone; its number does not come again. */
    void endLink(LinkNumber link);

    /**
     * The blades of these series speak elsewhere by now, see StoreConflict. What still comes here
     * from them is treated so.
     * @return the links that they spoke on
     */
    std::vector<LinkNumber> loseClaims(const std::vector<SeriesNumber>& lost);

    /** Makes everything since the last commit safe. */
    void commit();

    /** Forgets everything since the last commit, and what is known by heart. */
    void abandon() noexcept;

    /** The same, but of what is known by heart only what is not so any more: after a conflict that
     * of the series it names, after a locked series nothing. */
    void abandon(const StoreConflict& conflict) noexcept;
    void abandon(const StoreLocked& locked) noexcept;
    void abandon(const StoreRefused& refused) noexcept;

    /** The logs that an event on this link is filed in, of our share or not. */
    std::vector<SeriesKey> logsOf(LinkNumber link, View body) const;

    bool isUncommitted() const { return inTransaction_; }

    /** As of the last commit. */
    const ArchiveCounts& counts() const { return committed_; }

    /** The holes in all generations that events were filed in since the start. */
    U64_t countGaps();

    /** Writes down what is known of unbroken runs: it saves the next start a walk. */
    void noteRuns();

  private:
    /** What is known by heart of a series: it saves a look into the storage for each event. */
    struct Position {
        GenerationKey newest = {};           ///< zeros: not in the storage yet
        std::optional<U32_t> highestId = {}; ///< of the newest generation
        std::optional<IdRun> proven = {};    ///< of the newest generation; grows with what comes
        std::optional<U32_t> oldest = {};    ///< of the newest generation, see GenerationInfo
        U32_t notedTo = 0;                   ///< the storage knows of the run up to here
        U64_t duplicates = 0;                ///< not written yet
        bool isTouched = false;              ///< the generation is in touched_
        /** The last event that was filed before anything was seen behind it; empty: none that is
         * still doubtful. */
        Bytes unsettled = {};
    };

    struct Series : Position {
        explicit Series(SeriesKey itsKey) : key(std::move(itsKey)) {}

        SeriesKey key;
        bool isOurs = true;       ///< it is in our share
        bool isForgotten = false; ///< its position has to be looked up anew
        bool isSaved = false;     ///< the position of the last commit is in saved_
    };

    // An event's place: its bytes from enclosure to instance.
    static constexpr std::size_t IDENTITY_SIZE = offsetof(EmpEvLogHeader_t, evSequenceId);
    using Identity = std::array<U8_t, IDENTITY_SIZE>;

    /** What a status request told. */
    struct Told {
        SeriesKey log;
        U32_t first = 0; ///< the oldest id of the log
        /** The generation that was the newest one then, if the log is surely not the one of it. */
        std::optional<GenerationKey> isNot = {};
    };

    /** What is known of a link. */
    struct Speaker {
        std::optional<BladeKey> blade;
        SeriesNumber claimed = 0; ///< of a shared engine
        std::optional<Told> told; ///< last
        Identity identity{};      ///< of its last event
        Series* series = nullptr; ///< where that belongs; none after forget()
        bool isStranger = false;  ///< whether that bears another identity than the link's blade
    };

    /** An event on its way into a series. */
    struct Filing {
        Series& series;
        Arrival arrival;
        bool own;
        U32_t id;
        const std::optional<Told>& told; ///< by who brings it
    };

    Speaker& speakerOf(LinkNumber link, View body);
    Certainty certaintyIn(const Series& series, const Speaker& speaker, Certainty certainty) const;
    void setOwner(LinkNumber link, const BladeKey& blade);
    std::optional<GenerationKey> newestOf(const SeriesKey& key);
    void load(Series& series, const Claim& claim);
    void reload(Series& series);
    void save(Series& series);
    void recall(const std::vector<SeriesNumber>& lost, const std::vector<SeriesNumber>& stale);
    void undo() noexcept;
    Series& claim(Speaker& speaker, const EmpGetEvArchiverStatusMsg_t& request);
    bool isSuperseded(const Speaker& speaker, LinkNumber link) const;
    Filed fileIn(const Filing& filing);
    static bool isOfAnotherLog(const Speaker& speaker, const Series& series);
    static bool settles(const Filing& filing);
    Place placeOf(const Series& series, U32_t id, std::optional<StoredEvent>& held);
    Filed act(const Filing& filing, Fate fate, const Place& place);
    Filed store(const Filing& filing);
    Filed openAndStore(const Filing& filing);
    void takeBackFrom(Series& series, U32_t id, View body);
    void removeFrom(Series& series, U32_t id);
    void setAside(const Series& series, Aside reason, View image, bool own);
    Filed dropDuplicate(Series& series);
    Filed refuse();
    void openGeneration(Series& series);
    void noteOldest(const Filing& filing);
    void touch(Series& series);
    void dropEnded();
    void release(const Speaker& speaker);
    static void extendRun(Series& series, U32_t id);
    void noteGap(const Series& series, U32_t id);
    IdRun runFrom(Series& series, U32_t first);
    void extendProven(Series& series);
    void noteRun(Series& series);
    StatusVerdict verdictFor(const EmpGetEvArchiverStatusMsg_t& request, Series& series,
                             Told& told);
    Series& seriesOf(const SeriesKey& key);
    Series* findSeries(const SeriesKey& key);
    void makeRoom();
    void forget();
    void writeDuplicates();
    void ensureTransaction();
    void say(Level level, const std::string& text);

    Store& store_;
    ArchiveSettings settings_;
    Say say_;
    ArchiveCounts counts_;
    ArchiveCounts committed_;
    std::vector<std::pair<Level, std::string>> lines_; ///< since the last commit
    std::map<SeriesKey, Series> series_;
    std::vector<std::pair<Series*, Position>>
        saved_; ///< before what was done since the last commit
    std::unordered_map<LinkNumber, Speaker> speakers_;
    std::map<BladeKey, LinkNumber> owners_;                     ///< on which link each blade speaks
    std::vector<std::pair<BladeKey, LinkNumber>> ownersBefore_; ///< those of the last commit
    std::vector<LinkNumber> ended_;                             ///< since the last commit
    std::set<Series*> hasDuplicates_;
    std::set<GenerationKey> touched_;
    std::set<SeriesKey> cleared_;
    std::vector<SeriesKey> clearedNow_; ///< since the last commit
    std::map<SeriesKey, Claim> ahead_;  ///< claims whose status requests are answered next
    S64_t now_ = 0;
    U64_t rows_ = 0; ///< kept up only under a row limit
    U64_t committedRows_ = 0;
    bool inTransaction_ = false;
    bool saidFull_ = false;
};

} // namespace evarchive

#endif
