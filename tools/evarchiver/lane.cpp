#include "lane.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace evarchive {
namespace {

// Between two tries of a storage that is away.
constexpr std::chrono::milliseconds FIRST_DELAY{100};
constexpr std::chrono::milliseconds LONGEST_DELAY{2000};

// Before the first repeat of what met the work of another process.
constexpr std::chrono::milliseconds CONFLICT_DELAY{1};

// So many events a transaction takes at least, however often it fails: a server may be too slow for
// more.
constexpr U32_t FEWEST_EVENTS = 50;

// Conflicts one behind the other that are worth a line.
constexpr U32_t MANY_CONFLICTS = 10;

// Between two lines that say so.
constexpr std::chrono::seconds SAY_AGAIN{60};

// Between two rounds of retention.
constexpr std::chrono::seconds ROUND_TIME{60};

// Between two looks at how large the archive is.
constexpr std::chrono::seconds LOOK_TIME{10};

// Between two looks whether what somebody kept locked still is.
constexpr std::chrono::milliseconds LOCK_TIME{500};

// Empty batches kept for the next use.
constexpr std::size_t SPARE_BATCHES = 8;

Certainty certaintyOf(Batch::Kind kind) {
    switch (kind) {
    case Batch::Kind::SILENT:
        return Certainty::SILENT;
    case Batch::Kind::ENDED:
        return Certainty::ENDED;
    default:
        return Certainty::CERTAIN;
    }
}

} // namespace

LaneState& LaneState::operator+=(const LaneState& other) {
    counts += other.counts;
    spooled += other.spooled;
    lag = std::max(lag, other.lag);
    isAway = isAway || other.isAway;
    isRefused = isRefused || other.isRefused;
    canFile = canFile || other.canFile;
    commits += other.commits;
    commitSeconds += other.commitSeconds;
    worstCommit = std::max(worstCommit, other.worstCommit);
    commitTimes += other.commitTimes;
    expired += other.expired;
    bytesUsed = std::max(bytesUsed, other.bytesUsed); // each sees the whole archive
    return *this;
}

Lane::Lane(std::unique_ptr<Store> store, const LaneSettings& settings, Callbacks callbacks)
    : store_(std::move(store)), settings_(settings), callbacks_(std::move(callbacks)),
      archive_(*store_, settings.archive, callbacks_.say), retention_(*store_, settings.retention),
      refusals_(settings.refusalPause), most_(settings.batch), thread_([this] { run(); }) {}

Lane::~Lane() {
    stop(std::chrono::milliseconds(0));
}

void Lane::submit(Batch& batch) {
    auto handed = std::make_unique<Batch>();
    {
        const std::lock_guard lock(mutex_);
        if (!spare_.empty()) {
            handed = std::move(spare_.back());
            spare_.pop_back();
        }
        std::swap(*handed, batch);
        handed->handedOver = Clock::now();
        if (queued_ == 0) {
            oldest_ = handed->handedOver;
        }
        queued_ += handed->size();
        queue_.push_back(std::move(handed));
    }
    wake_.notify_one();
}

LaneState Lane::state() {
    const std::lock_guard lock(mutex_);
    LaneState state = state_;
    state.spooled = queued_;
    state.lag = queued_ > 0 ? std::chrono::duration<double>(Clock::now() - oldest_).count() : 0;
    state.isAway = isAway_;
    state.isRefused = isRefused_;
    state.canFile = !isAway_;
    return state;
}

bool Lane::stop(std::chrono::milliseconds patience) {
    beginStop(Clock::now() + patience);
    return finishStop();
}

void Lane::beginStop(Clock::time_point deadline) {
    {
        const std::lock_guard lock(mutex_);
        isStopping_ = true;
        deadline_ = deadline;
    }
    wake_.notify_one();
}

bool Lane::finishStop() {
    if (thread_.joinable()) {
        thread_.join();
    }
    return isSafe_;
}

void Lane::run() {
    try {
        while (awaitWork()) {
            try {
                workOff();
                unpark();
                retain();
                look();
            } catch (const StoreLocked& locked) {
                undo(locked);
            } catch (const StoreRefused& refused) {
                undo(refused);
            } catch (const StoreError& error) {
                undo(error);
            } catch (const StoreConflict& conflict) {
                undo(conflict);
            }
            publish();
        }
        if (isSafe_) {
            noteRuns();
        }
    } catch (const StoreError& error) {
        archive_.abandon();
        isSafe_ = false;
        callbacks_.failed(error.what());
    }
    publish();
}

// Whoever comes next finds them by itself: all events are safe, whatever becomes of this.
void Lane::noteRuns() {
    try {
        archive_.noteRuns();
        commit();
    } catch (const StoreError& error) {
        archive_.abandon();
        if (!error.isPassing() && !error.isRefusal()) {
            throw;
        }
    } catch (const StoreConflict&) {
        archive_.abandon();
    }
}

// Between transactions: what is asked of a storage may send it what waits to be filed.
void Lane::look() {
    if (archive_.isUncommitted() || Clock::now() < nextLook_) {
        return;
    }
    nextLook_ = Clock::now() + LOOK_TIME;
    bytesUsed_ = store_->bytesUsed();
    sayBack();
}

void Lane::sayBack() {
    isRefused_ = false;
    if (isAway_.exchange(false)) {
        callbacks_.say(Level::NOTICE, "the archive can be written again");
    }
}

void Lane::retain() {
    if (!settings_.retention.isBound() || archive_.isUncommitted()) {
        return;
    }
    if (Clock::now() >= nextRound_) {
        retention_.beginRound(time(nullptr));
        nextRound_ = Clock::now() + ROUND_TIME;
    }
    if (retention_.isInRound()) {
        retention_.step();
    }
}

// Waits until something is to be done. @return false: never again
bool Lane::awaitWork() {
    std::unique_lock lock(mutex_);
    const auto hasWork = [this] { return !queue_.empty() || isStopping_; };
    if (delay_.count() > 0) {
        wake_.wait_for(lock, delay_, [this] { return isStopping_.load(); });
    } else if (archive_.isUncommitted()) {
        wake_.wait_until(lock, firstUncommitted_ + settings_.batchWait, hasWork);
    } else if (!parking_.isEmpty()) {
        const bool isEnding = isStopping_;
        const auto until = isEnding ? std::min(nextLookAtLocks_, deadline_) : nextLookAtLocks_;
        wake_.wait_until(lock, until, [this, isEnding] {
            return !queue_.empty() || (isStopping_ && !isEnding);
        });
    } else if (retention_.isInRound()) {
        // A step of it follows at once.
    } else if (settings_.retention.isBound()) {
        wake_.wait_for(lock, ROUND_TIME, hasWork);
    } else {
        wake_.wait(lock, hasWork);
    }
    const bool isWorkDone = queue_.empty() && work_.empty() && !archive_.isUncommitted();
    const bool isEverythingDone = isWorkDone && parking_.isEmpty();
    const bool isStuck = delay_.count() > 0 || isWorkDone;
    if (isStopping_ && (isEverythingDone || (isStuck && Clock::now() >= deadline_))) {
        isSafe_ = isEverythingDone;
        return false;
    }
    while (!queue_.empty()) {
        work_.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    return true;
}

void Lane::workOff() {
    archive_.setTime(time(nullptr));
    for (; batchAt_ < work_.size(); ++batchAt_, requestAt_ = 0) {
        Batch& batch = *work_[batchAt_];
        while (requestAt_ < batch.requests().size()) {
            Batch::Request& request = batch.requests()[requestAt_];
            if (drop(request, batch.bodyOf(request)) || park(request, batch.bodyOf(request))) {
                ++requestAt_;
                continue;
            }
            const bool isClaimed = request.kind == Batch::Kind::STATUS && archive_.isClaimed();
            if (isClaimed && claimed_ == 0) {
                claimAhead();
            } else if (isRepeating_ && !archive_.isUncommitted() && claimed_ == 0) {
                lookAhead();
            }
            work(request, batch.bodyOf(request));
            ++requestAt_;
            const bool isLastClaimed = isClaimed && --claimed_ == 0;
            if (isLastClaimed || uncommitted_ >= most_ ||
                uncommittedBytes_ >= settings_.batchBytes) {
                commit();
            }
        }
    }
    if (mustCommit()) {
        commit();
    }
    isRepeating_ = false;
    delay_ = std::chrono::milliseconds(0);
}

// The logs of the next transaction, up to the next claim.
void Lane::lookAhead() {
    std::set<SeriesKey> logs;
    U32_t events = 0;
    std::size_t next = requestAt_;
    for (std::size_t i = batchAt_; i < work_.size() && events < most_; ++i, next = 0) {
        for (; next < work_[i]->requests().size() && events < most_; ++next) {
            const Batch::Request& request = work_[i]->requests()[next];
            if (request.kind == Batch::Kind::STATUS) {
                events = most_;
            } else if (Batch::isAboutEvent(request.kind)) {
                ++events;
                const auto more = archive_.logsOf(request.link, work_[i]->bodyOf(request));
                logs.insert(more.begin(), more.end());
            }
        }
    }
    archive_.lookAhead(logs);
}

void Lane::claimAhead() {
    commit();
    const auto requests = waitingTogether();
    archive_.claimAhead(requests);
    claimed_ = requests.size();
}

// Up to the next event: what comes before it is answered first, and what is filed behind it is none
// of the claims' business.
std::vector<EmpGetEvArchiverStatusMsg_t> Lane::waitingTogether() const {
    std::vector<EmpGetEvArchiverStatusMsg_t> group;
    std::set<SeriesKey> logs;
    std::size_t next = requestAt_;
    for (std::size_t i = batchAt_; i < work_.size(); ++i, next = 0) {
        for (; next < work_[i]->requests().size(); ++next) {
            const Batch::Request& request = work_[i]->requests()[next];
            const View body = work_[i]->bodyOf(request);
            if (group.size() == settings_.handshakes || !joins(request, body, logs)) {
                return group;
            }
            if (request.kind == Batch::Kind::STATUS) {
                group.push_back(imageOf<EmpGetEvArchiverStatusMsg_t>(body));
            }
        }
    }
    return group;
}

// A log is claimed once at a time, and what has to wait for a lock ends the group.
bool Lane::joins(const Batch::Request& request, View body, std::set<SeriesKey>& logs) const {
    if (request.kind != Batch::Kind::DONE && (refusals_.concerns(request, body, archive_) ||
                                              parking_.mustWait(request, body, archive_))) {
        return false;
    }
    switch (request.kind) {
    case Batch::Kind::STATUS:
        return logs.insert(logOf(imageOf<EmpGetEvArchiverStatusMsg_t>(body))).second;
    case Batch::Kind::SPEAKER:
    case Batch::Kind::INQUIRY:
    case Batch::Kind::END_OF_LINK:
    case Batch::Kind::DONE:
        return true;
    default:
        return false;
    }
}

void Lane::work(Batch::Request& request, View body) {
    const bool isFirst = !archive_.isUncommitted();
    switch (request.kind) {
    case Batch::Kind::EVENT:
    case Batch::Kind::SILENT:
    case Batch::Kind::ENDED:
        fileEvent(request.link, body, certaintyOf(request.kind));
        break;
    case Batch::Kind::TAKE_BACK:
        archive_.takeBack(request.link, body);
        break;
    case Batch::Kind::STATUS:
        held_.push_back(
            {request.link, Reply::Kind::STATUS, request.ticket,
             archive_.answerStatus(request.link, imageOf<EmpGetEvArchiverStatusMsg_t>(body))});
        break;
    case Batch::Kind::SPEAKER:
        archive_.noteSpeaker(request.link, bladeOf(imageOf<EmpGetEvArchiverStatusMsg_t>(body)));
        break;
    case Batch::Kind::INQUIRY:
        // It has no part in what is to be committed, so it need not wait.
        callbacks_.deliver({{request.link,
                             Reply::Kind::INQUIRY,
                             request.ticket,
                             {},
                             archive_.answerInquiry(imageOf<EmpEvInquiryMsg_t>(body))}});
        request.kind = Batch::Kind::DONE;
        break;
    case Batch::Kind::END_OF_LINK:
        archive_.endLink(request.link);
        break;
    default:
        break;
    }
    if (isFirst) {
        firstUncommitted_ = Clock::now();
    }
}

void Lane::fileEvent(LinkNumber link, View body, Certainty certainty) {
    ++uncommitted_;
    uncommittedBytes_ += body.size();
    const Filed filed = archive_.fileEvent(link, body, certainty);
    if (filed == Filed::NEW_GENERATION) {
        held_.push_back({link, Reply::Kind::RESEND});
    } else if (filed == Filed::REFUSED) {
        held_.push_back({link, Reply::Kind::FULL});
    }
}

bool Lane::mustCommit() const {
    const auto now = Clock::now();
    return !archive_.isUncommitted() || !held_.empty() || isStopping_ ||
           now >= firstUncommitted_ + settings_.batchWait || isDueBetween(now);
}

// What is done between transactions would wait for a steady load to end.
bool Lane::isDueBetween(Clock::time_point now) const {
    return (!parking_.isEmpty() && now >= nextLookAtLocks_) ||
           (settings_.retention.isBound() && (retention_.isInRound() || now >= nextRound_));
}

void Lane::commit() {
    const auto begun = Clock::now();
    if (archive_.isUncommitted()) {
        archive_.commit();
        const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
        ++commits_;
        commitSeconds_ += seconds;
        worstCommit_ = std::max(worstCommit_, seconds);
        commitTimes_.add(seconds);
        most_ = std::min(settings_.batch, 2 * most_);
        conflicts_ = 0;
        sayBack();
    } else {
        archive_.commit(); // it may have something to say
    }
    uncommitted_ = 0;
    uncommittedBytes_ = 0;
    if (!held_.empty()) {
        callbacks_.deliver(std::exchange(held_, {}));
    }
    dropDone();
}

// The batch that the work stands in stays, even when all of it is done: workOff() has it in hand.
void Lane::dropDone() {
    const std::lock_guard lock(mutex_);
    for (; batchAt_ > 0; --batchAt_) {
        queued_ -= work_.front()->size();
        work_.front()->clear();
        if (spare_.size() < SPARE_BATCHES) {
            spare_.push_back(std::move(work_.front()));
        }
        work_.pop_front();
    }
    const auto& waiting = work_.empty() ? queue_ : work_;
    if (parking_.hasWork()) {
        oldest_ = parking_.since();
    } else if (!waiting.empty()) {
        oldest_ = waiting.front()->handedOver;
    }
    committedTo_ = requestAt_;
}

// What waits for a lock is done as far as its batch is concerned, whatever becomes of the
// transaction.
bool Lane::park(Batch::Request& request, View body) {
    if (request.kind == Batch::Kind::DONE || !parking_.take(request, body, archive_)) {
        return false;
    }
    request.kind = Batch::Kind::DONE;
    queued_ += Batch::sizeOf(body);
    return true;
}

// The blade has it, and brings it when it comes again. Its link's end is told to the archive.
bool Lane::drop(Batch::Request& request, View body) {
    if (request.kind == Batch::Kind::END_OF_LINK) {
        refusals_.endLink(request.link);
        return false;
    }
    if (request.kind == Batch::Kind::DONE || !refusals_.concerns(request, body, archive_)) {
        return false;
    }
    request.kind = Batch::Kind::DONE;
    if (refusals_.addLink(request.link)) {
        callbacks_.deliver({{request.link, Reply::Kind::REFUSED}});
    }
    return true;
}

// Only when nothing else is under way: what waited goes before what comes now.
void Lane::unpark() {
    if (parking_.isEmpty() || !work_.empty() || Clock::now() < nextLookAtLocks_) {
        return;
    }
    nextLookAtLocks_ = Clock::now() + LOCK_TIME;
    const std::vector<SeriesKey> locked = store_->lockedOf(parking_.locked());
    if (locked.size() == parking_.locked().size()) {
        endWaiting();
        return;
    }
    for (const SeriesKey& log : parking_.locked()) {
        if (std::ranges::count(locked, log) == 0) {
            callbacks_.say(Level::NOTICE, nameOf(log) + ": not locked any more");
        }
    }
    auto waited = parking_.release(locked);
    if (waited->isEmpty()) {
        return;
    }
    work_.push_back(std::move(waited));
    batchAt_ = 0;
    requestAt_ = 0;
    committedTo_ = 0;
    workOff();
}

// What is refused may be allowed again: other lanes and servers are not to end for it.
void Lane::undo(const StoreError& error) {
    archive_.abandon();
    if (!error.isPassing() && !error.isRefusal()) {
        throw error;
    }
    rewind();
    most_ = std::min(settings_.batch, std::max(FEWEST_EVENTS, most_ / 2));
    delay_ = std::clamp(delay_ * 2, FIRST_DELAY, LONGEST_DELAY);
    const bool isOther = isRefused_.exchange(error.isRefusal()) != error.isRefusal();
    const bool isNew = !isAway_.exchange(true);
    if (isNew || isOther || Clock::now() >= saidAway_ + SAY_AGAIN) {
        saidAway_ = Clock::now();
        callbacks_.say(Level::FAILURE,
                       std::string(error.what()) +
                           (error.isRefusal() ? "; refused until that is set right, events wait"
                                              : "; events wait, tried again"));
    }
}

// What their blades go on to send would fill the spool, and end the links of others.
void Lane::endWaiting() {
    if (!parking_.hasWork() || Clock::now() < parking_.since() + settings_.lockPatience) {
        return;
    }
    std::vector<Reply> replies;
    for (const LinkNumber link : parking_.takeLinks()) {
        replies.push_back({link, Reply::Kind::LOCKED});
    }
    if (!replies.empty()) {
        callbacks_.deliver(std::move(replies));
    }
}

// One that is known to be locked is not asked for again, so it was another that this is about.
void Lane::undo(const StoreLocked& locked) {
    if (!parking_.lock(locked.locked())) {
        undo(static_cast<const StoreError&>(locked));
        return;
    }
    archive_.abandon(locked);
    rewind();
    delay_ = CONFLICT_DELAY;
    nextLookAtLocks_ = Clock::now() + LOCK_TIME;
    for (const SeriesKey& log : locked.locked()) {
        callbacks_.say(Level::WARNING, nameOf(log) + ": another session of the archive's server "
                                                     "keeps it locked; its events wait");
    }
}

// One that is known to be refused is not tried, so it was another that this is about.
void Lane::undo(const StoreRefused& refused) {
    if (!refusals_.add(refused.refused())) {
        undo(static_cast<const StoreError&>(refused));
        return;
    }
    archive_.abandon(refused);
    rewind();
    delay_ = CONFLICT_DELAY;
    callbacks_.say(Level::FAILURE, nameOf(refused.refused()) +
                                       ": the archive's server refuses its log: " + refused.what());
}

void Lane::undo(const StoreConflict& conflict) {
    archive_.abandon(conflict);
    rewind();
    delay_ = std::clamp(delay_ * 2, CONFLICT_DELAY, LONGEST_DELAY);
    if (++conflicts_ % MANY_CONFLICTS == 0) {
        callbacks_.say(Level::WARNING, "what waits has met the work of others " +
                                           std::to_string(conflicts_) +
                                           " times in a row; tried again");
    }
    std::vector<Reply> superseded;
    for (const LinkNumber link : archive_.loseClaims(conflict.lost())) {
        superseded.push_back({link, Reply::Kind::SUPERSEDED});
    }
    if (!superseded.empty()) {
        callbacks_.deliver(std::move(superseded));
    }
}

// What was undone may have been committed all the same: that a blade shall send its log again does
// not show when the same is done once more, so it is not forgotten.
void Lane::rewind() {
    std::erase_if(held_, [](const Reply& reply) { return reply.kind != Reply::Kind::RESEND; });
    uncommitted_ = 0;
    uncommittedBytes_ = 0;
    claimed_ = 0;
    isRepeating_ = true;
    batchAt_ = 0;
    requestAt_ = committedTo_;
}

void Lane::publish() {
    const std::lock_guard lock(mutex_);
    state_.counts = archive_.counts();
    state_.commits = commits_;
    state_.commitSeconds = commitSeconds_;
    state_.worstCommit = worstCommit_;
    state_.commitTimes = commitTimes_;
    state_.expired = retention_.removed();
    state_.bytesUsed = bytesUsed_;
}

} // namespace evarchive
