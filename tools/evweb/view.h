/**
 * @file
 * What the pages ask of an archive, whichever engine keeps it. Every question is one or more short
 * read transactions, and ends after the time that it was given, with what there is by then.
 */
#ifndef EVWEB_VIEW_H
#define EVWEB_VIEW_H

#include "evctl/filters/event_filter.h"
#include "store.h"

#include <array>
#include <chrono>
#include <memory>

namespace evweb {

using evarchive::StoredEvent;
using Clock = std::chrono::steady_clock;

/** A name of an enclosure or blade as it is shown, and asked for: as the tables of a PostgreSQL
 * server have it. */
std::string shownName(std::string_view name);

/** A place in the order that events are listed in. */
struct Position {
    char kind = 0;                ///< which order
    std::vector<S64_t> numbers{}; ///< the place in it

    /** The kind's letter, and the numbers with points between. */
    std::string text() const;

    /** @return nothing for a text that is none */
    static std::optional<Position> parse(const std::string& text);

    bool operator==(const Position&) const = default;
};

/** A place in one log, in front of the events that are older. */
struct IdPlace {
    S64_t generation = INT64_MAX;
    S64_t id = INT64_MAX;

    Position position() const;

    /** Throws Refusal when it is another place. */
    static IdPlace of(const Position& position);
};

/** Which events are wanted. */
struct Search {
    evctl::EventFilter filter{};       ///< its names as they are shown
    std::string text{};                ///< that the event's text holds; lower case, empty: any
    std::optional<S64_t> log{};        ///< only of this one
    std::optional<U32_t> generation{}; ///< of that log; else all
    std::optional<Position> before{};  ///< older than this place
    U32_t limit = 50;

    /** Whether an event is wanted as far as its header tells, its blade left aside. */
    bool matches(const EmpEvLogHeader_t& header) const;

    /** The same of its text. */
    bool holdsText(const sources::EventView& event) const;
};

struct FoundEvent {
    S64_t log = 0;
    U32_t generation = 0;
    StoredEvent event{};
};

/** Events, newest first. */
struct Page {
    std::vector<FoundEvent> events{};
    std::optional<Position> next{}; ///< where the following page begins; nothing: there is none
    bool isCut = false;             ///< time was up: the page may have less than there is
};

/** What came, oldest first. */
struct Tail {
    std::vector<FoundEvent> events{};
    Position position{}; ///< to ask for what comes next; events may come twice
    /** What came and was not looked at, because newer events fill the answer; nothing: too many to
     * be counted in time. */
    std::optional<U64_t> skipped = 0;
};

/** Types of events that are counted: any other, information, warning, error. */
using TypeCounts = std::array<U64_t, 4>;
std::size_t typeIndex(U32_t type);

/** Events by their time. */
struct Timeline {
    U32_t since = 0; ///< of the first bucket
    U32_t width = 1; ///< seconds of a bucket
    std::vector<TypeCounts> buckets{};
    bool isCut = false;       ///< time was up: what came earlier is not counted
    bool isOnlyGrave = false; ///< warnings and errors only
    bool isComplete() const { return !isCut && !isOnlyGrave; }

    U32_t end() const; ///< the last second

    /** Counts, where the time is one of a bucket. */
    void count(U32_t time, std::size_t type, U64_t events = 1);
};

/** One log as the overview shows it: what its newest generation holds. */
struct LogInfo {
    S64_t log = 0;
    evarchive::SeriesKey key{};
    U32_t generation = 0; ///< 0: it has none yet
    S64_t opened = 0;
    U64_t duplicates = 0;
    std::optional<U32_t> firstId{};
    std::optional<U32_t> lastId{};
    std::optional<U32_t> lastTime{};          ///< of the event with the highest id
    std::optional<S64_t> lastReceived{};      ///< when that came
    std::optional<S64_t> seen{};              ///< when the blade was last heard of
    std::optional<U64_t> missing{};           ///< ids between others; nothing: not counted in time
    std::optional<evarchive::IdRun> proven{}; ///< a run of ids that is known to have no hole
    std::optional<U32_t> ringFirst{};   ///< the blade's oldest at its last handshake, if known
    std::optional<TypeCounts> lately{}; ///< of the overview's window; nothing: not counted in time
};

/** The id behind which a generation may have holes, given its first and last one. */
U32_t firstInDoubt(const std::optional<evarchive::IdRun>& proven, U32_t first, U32_t last);

/** Which logs are to be listed. */
struct LogSearch {
    std::string find{};            ///< what a name holds as it is shown, lower case; empty: any
    std::optional<S64_t> behind{}; ///< the log of Overview::next
    U32_t limit = 100;
    bool isWorstFirst = false; ///< those with errors and warnings lately, most first; else by name
};

struct Overview {
    std::vector<LogInfo> logs{};
    std::optional<S64_t> next{};        ///< the last log of these, when more follow
    std::optional<U64_t> known{};       ///< logs of the archive; nothing: not counted in time
    S64_t windowSeconds = 0;            ///< that LogInfo::lately is about; 0: not known
    std::optional<TypeCounts> lately{}; ///< errors and warnings of all logs; nothing: not counted
};

/** A generation of a log, with the ids that it holds. */
struct GenerationView {
    evarchive::GenerationInfo info{};
    std::vector<evarchive::IdRun> runs{}; ///< ascending
    U64_t events = 0;
    bool isCut = false;                           ///< ids behind the last run were not looked at
    std::optional<U32_t> firstTime{}, lastTime{}; ///< of the lowest and of the highest id
    std::optional<S64_t> lastReceived{};          ///< of the highest id
};

struct LogDetail {
    LogInfo info{};
    std::vector<GenerationView> generations{}; ///< newest first
};

struct ViewStatus {
    const char* engine = "";
    std::optional<S64_t> newest{};     ///< when the last event came
    std::optional<U32_t> newestTime{}; ///< that event's own time
    std::optional<U64_t> events{};     ///< at most so many
    U64_t bytes = 0;
    double surveyed = 1; ///< part of the events whose summary is known; searches are slower till 1
};

/** An archive. Several threads may ask. Every call throws StoreError when the archive cannot be
 * read, and Refusal for what is no question to it. */
class View {
  public:
    virtual ~View() = default;

    virtual ViewStatus status() = 0;

    virtual Overview logs(const LogSearch& search) = 0;

    virtual LogDetail log(S64_t log) = 0;

    /** Events of one log by generation and id, of several by arrival. */
    virtual Page search(const Search& search) = 0;

    /** What a log's generation holds around an id: so many before it, so many behind. */
    virtual Page around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) = 0;

    virtual std::optional<FoundEvent> event(S64_t log, U32_t generation, U32_t id) = 0;

    /** What came behind a place; without one the last few events. */
    virtual Tail tail(const Search& search, const std::optional<Position>& after) = 0;

    /** Counts the events that a search finds into @p timeline, its buckets being there. */
    virtual void count(const Search& search, Timeline& timeline) = 0;
};

/** @param patience after which a question ends with what there is */
std::unique_ptr<View> openSqliteView(const std::string& path, std::chrono::milliseconds patience);
std::unique_ptr<View> openPgView(const std::string& place, std::chrono::milliseconds patience);

} // namespace evweb

#endif
