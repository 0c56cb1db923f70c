/**
 * @file
 * Numbers of events: by type, source and time, and what fills a log.
 */
#ifndef EVCTL_EVENT_STATS_H
#define EVCTL_EVENT_STATS_H

#include "common/time_text.h"
#include "evctl/views/event_view.h"

#include <map>
#include <string>
#include <vector>

namespace evctl {

/** Events and the bytes that their records take in a log. */
struct Amount {
    U64_t events = 0;
    U64_t bytes = 0;

    void add(const Amount& more) {
        events += more.events;
        bytes += more.bytes;
    }
};

/** A line of a list: what is counted, and how much. */
struct Share {
    std::string name;
    Amount amount;
};

/** What is counted, and how it is shown. */
struct StatsScope {
    bool wholeLog = false; ///< all events of one log: says what share of it they fill, and for how
                           ///< many hours it has room
    Zone zone = Zone::UTC;
};

/** Counts events as they come. */
class EventStats {
  public:
    explicit EventStats(const StatsScope& scope = {}) : scope_(scope) {}

    /** @param source a number for the one that it is of: events of several may come in turn */
    void add(const EventView& event, size_t source = 0);

    /** The events of a source have come. @param ordered in the order in which they were logged */
    void endSource(bool ordered, size_t source = 0);

    const StatsScope& scope() const { return scope_; }

    const Amount& all() const { return all_; }
    U32_t firstTime() const { return first_; } ///< seconds since 1970; only with events
    U32_t lastTime() const { return last_; }

    std::vector<Share> types() const;   ///< by value
    std::vector<Share> sources() const; ///< most bytes first

    /** What takes the most bytes, by source, id and id version, at most @p most. */
    std::vector<Share> talkers(size_t most) const;

    /** Stretches of equal length, an hour or the smallest multiple that gives few lines; those
     * without events among them, if they are of less than a year. @param seconds receives the
     * length */
    std::vector<Share> times(U32_t* seconds) const;

    /** Events an hour, of those whose times never go back within their source; 0 when they are of
     * one second. Steps of more than a year are left out. */
    double rate() const;
    U64_t leftOut() const { return leftOut_; } ///< events: the clock was another one
    U64_t jumps() const;                       ///< steps of more than a year

    /** Hours of events that a whole log holds at this rate; 0 when there is none, and when it is
     * not one whole log that was counted. */
    double hoursHeld() const;

  private:
    std::vector<Share> timesBy(U32_t hours) const;

    StatsScope scope_;
    std::map<size_t, std::vector<U32_t>> coming_; // times, by source
    std::vector<U32_t> line_;                     // those that count for the rate, sorted
    U64_t leftOut_ = 0;
    std::map<U32_t, Amount> types_;
    std::map<U32_t, Amount> sources_;
    std::map<U32_t, Amount> talkers_; // by source, id and its version
    std::map<U32_t, Amount> hours_;
    Amount all_;
    U32_t first_ = UINT32_MAX;
    U32_t last_ = 0;
};

Json statsJson(const EventStats& stats);

/** For people, with bars. @param width columns */
std::string statsLines(const EventStats& stats, size_t width);

/** As SVG. @param title what was counted */
std::string statsPicture(const EventStats& stats, const std::string& title);

} // namespace evctl

#endif
