/**
 * @file
 * A lane: a thread that has the rules and a storage of its own, and works off what the loop hands
 * it. The loop never waits for it. A log belongs to one lane, so its events keep their order.
 *
 * Work is done in groups: a transaction takes what has come meanwhile, and the answers to status
 * requests wait for its commit. When the storage cannot be used for now, the lane keeps the work,
 * undoes what was not committed, waits, and does it again. When somebody keeps a log locked, only
 * what belongs to that log waits; when the storage refuses one, only its links end.
 */
#ifndef EVARCHIVER_LANE_H
#define EVARCHIVER_LANE_H

#include "parking.h"
#include "refusals.h"
#include "retention.h"
#include "times.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace evarchive {

/** What a lane says to a link. An inquiry waits for no commit, so its answer can come before that
 * of an earlier status request. */
struct Reply {
    enum class Kind : U8_t {
        STATUS,     ///< answer to a status request
        INQUIRY,    ///< answer to an inquiry
        RESEND,     ///< a generation was opened: the blade shall send all its log again
        FULL,       ///< the archive is: the link is to end
        SUPERSEDED, ///< the blade speaks on a link of another process: this one is to end
        LOCKED,     ///< what it brought waits for a lock that does not end: it is to end
        REFUSED,    ///< the storage does not take its log: it is to end
    };

    LinkNumber link = 0;
    Kind kind = Kind::STATUS;
    U32_t ticket = 0;                      ///< STATUS, INQUIRY: the request's
    StatusVerdict verdict = {};            ///< STATUS
    std::optional<StoredEvent> event = {}; ///< INQUIRY: what was found
};

/** How a lane is, or several are together. */
struct LaneState {
    ArchiveCounts counts;
    std::size_t spooled = 0; ///< bytes of work that is not committed yet
    double lag = 0;          ///< seconds that the oldest of it has waited
    bool isAway = false;     ///< the storage cannot be used for now
    bool isRefused = false;  ///< because it refuses what is asked of it
    bool canFile = false;    ///< of several lanes: at least one can
    U64_t commits = 0;
    double commitSeconds = 0; ///< of all commits together
    double worstCommit = 0;   ///< seconds, of the slowest one
    Times commitTimes;        ///< how they are spread
    U64_t expired = 0;        ///< events that retention took
    U64_t bytesUsed = 0;      ///< by the archive, at the last look

    /** Two lanes of one archive, on one server. */
    LaneState& operator+=(const LaneState& other);
};

/** What a lane is set to. */
struct LaneSettings {
    ArchiveSettings archive;
    RetentionSettings retention;
    U32_t batch = 1000; ///< events to a transaction at most, at least 1
    /** How long an event waits at most for others to be committed with. */
    std::chrono::milliseconds batchWait{100};
    /** Bytes of events to a transaction, from which on it is committed. */
    std::size_t batchBytes = std::size_t{1} << 20U;
    /** Status requests that are claimed together at most, at least 1. Others wait behind them. */
    U32_t handshakes = 64;
    /** How long a log is locked until the links that what waits for it came on are closed: their
     * blades keep what they have, and come again. */
    std::chrono::milliseconds lockPatience = std::chrono::seconds(10);
    /** Between two tries of a log that the storage refuses. */
    std::chrono::milliseconds refusalPause = std::chrono::minutes(1);
};

/** One lane. */
class Lane {
  public:
    /** How a lane reaches the loop; called from the lane's thread. */
    struct Callbacks {
        std::function<void(std::vector<Reply>)> deliver;
        Say say;
        /** The storage is of no use any more; the lane has ended. */
        std::function<void(const std::string& why)> failed;
    };

    Lane(std::unique_ptr<Store> store, const LaneSettings& settings, Callbacks callbacks);

    /** Ends the thread as stop() does, without patience. */
    ~Lane();
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    /** Hands work over. Never waits for the storage. The batch comes back empty. */
    void submit(Batch& batch);

    LaneState state();

    /** Bytes of work that is not safe yet. */
    std::size_t spooled() const { return queued_; }

    /** Works off what was handed over, within @p patience when the storage is away, and ends the
     * thread. @return whether all of it is safe */
    bool stop(std::chrono::milliseconds patience);

    /** The two halves of stop(), for several lanes that end at one time. */
    void beginStop(std::chrono::steady_clock::time_point deadline);
    bool finishStop();

    /** The holes in what was filed since the start. Only after stop(). */
    U64_t countGaps() { return archive_.countGaps(); }

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    bool awaitWork();
    void retain();
    void workOff();
    void lookAhead();
    void claimAhead();
    std::vector<EmpGetEvArchiverStatusMsg_t> waitingTogether() const;
    bool joins(const Batch::Request& request, View body, std::set<SeriesKey>& logs) const;
    void work(Batch::Request& request, View body);
    void fileEvent(LinkNumber link, View body, Certainty certainty);
    void commit();
    void dropDone();
    bool mustCommit() const;
    bool isDueBetween(Clock::time_point now) const;
    void undo(const StoreError& error);
    void undo(const StoreConflict& conflict);
    void undo(const StoreLocked& locked);
    void undo(const StoreRefused& refused);
    bool drop(Batch::Request& request, View body);
    bool park(Batch::Request& request, View body);
    void unpark();
    void endWaiting();
    void rewind();
    void noteRuns();
    void look();
    void sayBack();
    void publish();

    std::unique_ptr<Store> store_;
    LaneSettings settings_;
    Callbacks callbacks_;
    Archive archive_;
    Retention retention_;

    // The lane's own.
    std::deque<std::unique_ptr<Batch>> work_; ///< from the first batch that is not all committed
    std::size_t batchAt_ = 0;                 ///< where in work_ the work goes on
    std::size_t requestAt_ = 0;               ///< where in that batch
    std::size_t committedTo_ = 0;             ///< requests of work_'s first batch that are safe
    std::size_t claimed_ = 0;                 ///< status requests that are, and not yet answered
    std::vector<Reply> held_;                 ///< they wait for the commit
    Parking parking_;                         ///< what waits for logs that are locked
    Clock::time_point nextLookAtLocks_;
    Refusals refusals_;
    U32_t uncommitted_ = 0;            ///< events since the last commit
    std::size_t uncommittedBytes_ = 0; ///< of them
    Clock::time_point firstUncommitted_;
    U32_t most_;          ///< events to the next transaction: fewer after one that failed
    U32_t conflicts_ = 0; ///< since the last commit
    bool isRepeating_ =
        false; ///< what is at work had to be undone: little may be known of its logs
    std::chrono::milliseconds delay_{0}; ///< before the next try
    Clock::time_point saidAway_;
    U64_t commits_ = 0;
    double commitSeconds_ = 0;
    double worstCommit_ = 0;
    Times commitTimes_;
    U64_t bytesUsed_ = 0;
    Clock::time_point nextLook_;
    Clock::time_point nextRound_;
    bool isSafe_ = true; ///< whether all work is; read by stop() when the thread has ended

    // Both threads'.
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::unique_ptr<Batch>> queue_;
    std::vector<std::unique_ptr<Batch>> spare_;
    LaneState state_;
    std::atomic<std::size_t> queued_ = 0; ///< bytes handed over and not yet safe
    Clock::time_point oldest_;            ///< when the first of them were handed over
    std::atomic<bool> isAway_ = false;
    std::atomic<bool> isRefused_ = false;
    std::atomic<bool> isStopping_ = false;
    Clock::time_point deadline_;

    std::thread thread_; ///< last: it uses all the others
};

} // namespace evarchive

#endif
