/**
 * @file
 * What is known by heart of an archive file, which has no index of times, so that the archiver
 * need not write one: for each few thousand events, in the order of their arrival, when they were
 * raised and what is among them. Searches pass over those that cannot have what is wanted, and
 * events are counted by the minute without a look at them.
 */
#ifndef EVWEB_SURVEY_H
#define EVWEB_SURVEY_H

#include "view.h"

#include <bitset>
#include <mutex>

namespace evweb {

/** Rows of a zone: those with numbers from n * ZONE_ROWS on. Numbers grow with the arrival. */
constexpr S64_t ZONE_ROWS = 2048;

/** The columns of an event that a summary is made of. */
struct EventColumns {
    S64_t series = 0;
    U32_t time = 0;
    U32_t source = 0;
    U32_t type = 0;
    U32_t category = 0;
    U32_t event = 0;
};

/** What a search needs, as far as a zone can tell that it has none of it. Numbers that are larger
 * than those of events are, stand for several. */
struct Needs {
    U32_t since = 0;
    U32_t until = UINT32_MAX;
    std::array<bool, 4> types{true, true, true, true}; ///< by typeIndex()
    std::bitset<256> sources = std::bitset<256>().set();
    std::bitset<64> categories = std::bitset<64>().set();
    std::vector<U32_t> events{}; ///< empty: all
    std::vector<S64_t> series{}; ///< empty: all
    bool isExact = true;         ///< no two numbers that are wanted or not stand for each other
    bool isAnyKind = true;       ///< any source, category and event is wanted
};

/** @param series that are wanted; empty: all */
Needs needsOf(const evctl::EventFilter& filter, const std::vector<S64_t>& series);

/** The events of a zone. */
class Zone {
  public:
    void add(const EventColumns& event);
    void finish(); ///< all were added

    bool mayHold(const Needs& needs) const;

    /** Counts its events of these types. Buckets begin and end at whole minutes. */
    void countInto(Timeline& timeline, const std::array<bool, 4>& types) const;

    /** Counts its events of the kinds that are needed, those of all logs, if all of its time lies
     * in one bucket.
     * @return false where it cannot tell: nothing was counted */
    bool countKindsInto(Timeline& timeline, const Needs& needs) const;

  private:
    struct Minute {
        U32_t minute;
        std::array<U16_t, 4> counts;
    };

    bool hasSeries(const Needs& needs) const;
    bool hasMinute(const Needs& needs) const;
    bool hasKind(const Needs& needs) const;

    std::vector<Minute> minutes_; ///< ascending
    /// Event, source, category and type together: all, and ascending without repetitions once
    /// finished, when there is a number of events for each.
    std::vector<U32_t> kinds_;
    std::vector<U16_t> kindCounts_;
    bool areKindsExact_ = true;
    std::vector<U64_t> series_; ///< a bit each
};

/** Which file it is, and which state of it: another one has other row numbers. */
struct FileState {
    U64_t device = 0;
    U64_t inode = 0;
    S64_t schema = 0; ///< counts up with each rewriting of the whole file

    bool operator==(const FileState&) const = default;
};

/** The zones that are known. Several threads may ask; one fills them in. */
class Survey {
  public:
    using Zones = std::vector<std::shared_ptr<const Zone>>;

    /** The zones by number, null where one is not known. */
    Zones zones(const FileState& state) const;

    /** The next zone to be summarised: the newest first, but for the last two, in which an event
     * that turns out to be damaged can still make room for another. Forgets what is not so any
     * more. @return nothing when all are known */
    std::optional<S64_t> nextUnknown(const FileState& state, S64_t firstRow, S64_t lastRow);

    void put(S64_t number, std::shared_ptr<const Zone> zone);

    /** Part of the zones that is known, 0 to 1. */
    double known() const;

  private:
    mutable std::mutex mutex_;
    FileState state_;
    Zones zones_;
    S64_t first_ = 0; ///< zones before it hold nothing any more
    S64_t end_ = 0;   ///< of the zones that can be summarised
};

} // namespace evweb

#endif
