/**
 * @file
 * A run of a fleet: blades that log at a rate, links that are cut, logs that are lost, and at the
 * end every blade asks once more, so that what an archiver acknowledged can be told from what it
 * only received.
 */
#ifndef EVFLEET_FLEET_H
#define EVFLEET_FLEET_H

#include "evfleet/blade_link.h"
#include "evfleet/content_check.h"

#include <deque>
#include <functional>

namespace evfleet {

/** What was asked for. */
struct FleetOptions {
    std::vector<asio::ip::tcp::endpoint> archivers;
    U32_t blades = 100;
    U32_t events = 100;  ///< that each blade logs, besides the first of each log
    double rate = 0;     ///< events a second of each blade; 0: as fast as they are taken
    double ramp = 0;     ///< connections a second at the beginning; 0: all at once
    double outages = 0;  ///< of a blade's link, on average
    double rebuilds = 0; ///< of a blade's log, on average
    std::chrono::milliseconds reconnect{1000};
    std::chrono::seconds hold{0};    ///< that the links stay idle before the end
    std::chrono::seconds settle{30}; ///< until everything must be archived, once it was sent
    bool oneByOne = false;
    LogShape shape;
    std::string check; ///< archive to be compared at the end; "": none
    bool json = false;
    std::chrono::seconds progress{1}; ///< between two lines; 0: none
};

/** What came of it. */
struct FleetResult {
    FleetCounts counts;
    double connectSeconds = 0; ///< until every blade had its first status answer
    double sendSeconds = 0;    ///< from then on until everything had been forwarded
    U32_t unsettled = 0;       ///< blades that the deadline left behind
    U64_t lost = 0;            ///< events that had been claimed and did not come back by themselves
    bool isChecked = false;
    CheckResult check;

    bool isClean() const {
        return unsettled == 0 && lost == 0 && counts.died == 0 && counts.claimsBeyond == 0 &&
               check.isClean();
    }
};

/** A fleet. It can run once. */
class Fleet {
  public:
    using Say = std::function<void(const std::string& line)>;

    /** Throws evarchive::StoreError when the archive to be checked cannot be read; so does run().
     */
    Fleet(FleetOptions options, Say say);

    FleetResult run();

  private:
    using Clock = std::chrono::steady_clock;

    struct Plan {
        U32_t logged = 0; ///< events that the blade has logged
        std::vector<U32_t> rebuildAt;
    };

    void planOutages();
    void connectAll();
    void connectSome();
    void logSome();
    void logTo(std::size_t blade, U32_t count);
    U32_t dueEvents() const;
    bool areAllOpen() const;
    bool areAllCaughtUp() const;
    bool isAllLogged() const;
    U32_t openCount() const;
    void runUntil(const std::function<bool()>& done, Clock::time_point deadline,
                  const std::function<void()>& step);
    void lookForClaimed(FleetResult& result);
    void settle(FleetResult& result);
    void checkOnce(FleetResult& result, Clock::time_point deadline);
    void pause(std::chrono::milliseconds time);
    void sayProgress();

    FleetOptions options_;
    Say say_;
    FleetContext context_;
    std::deque<BladeLink> blades_;
    std::vector<Plan> plans_;
    std::size_t connecting_ = 0; ///< blades that have begun to connect
    Clock::time_point begin_ = Clock::now();
    Clock::time_point logBegin_;
    Clock::time_point nextProgress_ = Clock::now();
    U64_t saidSent_ = 0;
};

} // namespace evfleet

#endif
