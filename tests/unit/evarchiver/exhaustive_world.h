/**
 * @file
 * One blade, the archivers of one archive, and what is between them, and every step that one of
 * them can take. Beside them a blade that nothing befalls, whose events are filed in the same
 * transactions.
 */
#ifndef EXHAUSTIVE_WORLD_H
#define EXHAUSTIVE_WORLD_H

#include "exhaustive_archiver.h"
#include "exhaustive_bounds.h"
#include "exhaustive_text.h"
#include "link_messages.h"

namespace exhaustive {

/** A blade, the archivers, and what is between them. */
class World : private Around {
  public:
    explicit World(const Bounds& bounds)
        : World(bounds, std::make_unique<MemoryStorage>(bounds.processes > 1)) {}

    World(const Bounds& bounds, std::unique_ptr<Storage> storage)
        : bounds_(bounds), storage_(std::move(storage)) {
        for (U32_t number = 0; number < bounds_.processes; ++number) {
            processes_.push_back(
                std::make_unique<Archiver>(*storage_, static_cast<Around&>(*this), number));
        }
        logOne();
        for (; first_ < bounds_.missed; ++first_) {
            logOne();
        }
        if (bounds_.hasNeighbour) {
            connectNeighbour();
            settle();
        }
        if (bounds_.isUnderWay) {
            logOne();
            connect(*processes_.front());
            settle();
            sendAll();
        }
    }

    unsigned actions() const { return BLADE_ACTIONS + PROCESS_ACTIONS * bounds_.processes; }

    bool can(unsigned action) const {
        if (action < BLADE_ACTIONS) {
            return canBlade(action);
        }
        const Archiver& process = processOf(action);
        switch ((action - BLADE_ACTIONS) % PROCESS_ACTIONS) {
        case CONNECT:
            return peer_ == nullptr && connects_ < bounds_.connects;
        case WORK:
            return process.canWork();
        case COMMIT:
            return process.isUncommitted();
        case FAIL:
        case FAIL_UNHEARD:
            return process.isUncommitted() && failures_ < bounds_.failures;
        case FAIL_LATE:
            return process.isUncommitted() && lateCommits_ < bounds_.lateCommits &&
                   !storage_->hasLate();
        default:
            return process.isWarm() && failures_ < bounds_.failures;
        }
    }

    /** Only what can be done now. */
    void act(unsigned action) {
        if (action < BLADE_ACTIONS) {
            actOfBlade(action);
            return;
        }
        Archiver& process = processOf(action);
        switch ((action - BLADE_ACTIONS) % PROCESS_ACTIONS) {
        case CONNECT:
            ++connects_;
            connect(process);
            break;
        case WORK:
            process.work();
            break;
        case COMMIT:
            process.commit();
            break;
        case FAIL:
            ++failures_;
            process.fail();
            break;
        case FAIL_UNHEARD:
            ++failures_;
            process.failUnheard(Lost::ANSWER);
            break;
        case FAIL_LATE:
            ++lateCommits_;
            process.failUnheard(Lost::CONNECTION);
            break;
        default:
            ++failures_;
            die(process);
            break;
        }
    }

    bool isConnected() const { return peer_ != nullptr; }

    /** Whether handshakes were claimed together on the way here. */
    bool hasClaimedTogether() const {
        return std::ranges::any_of(
            processes_, [](const auto& process) { return process->hasClaimedTogether(); });
    }

    /** Whether the storage could not be used at some time, so that something was done again. */
    bool wasHeldUp() const {
        return std::ranges::any_of(processes_,
                                   [](const auto& process) { return process->wasHeldUp(); });
    }

    /** Whether retention has taken something. */
    bool hasExpired() const { return expiries_ > 0; }

    /** The blade connects once more and sends all that it has; everything comes to its end.
     * @param isLate the first process stands still until then, and the blade is on the last one */
    void finish(bool isLate) {
        moveOn();
        isFirstStill_ = isLate;
        settle();
        takeBack();
        cut();
        connect(isLate ? *processes_.back() : *processes_.front());
        sendTheRest();
    }

    /** The same on the link that the blade has; if that turns out to be closed, on another one. */
    void stay() {
        letGo();
        makeLateCommit();
        settle();
        takeBack();
        sendTheRest();
        for (int round = 0; peer_ == nullptr; ++round) {
            ASSERT_LT(round, 5) << "the blade connects without end";
            connect(*processes_.front());
            sendTheRest();
        }
    }

    void expectAllIsThere() {
        Store& store = storage_->look();
        const auto newest = newestOf(store, BladeKey{"ENC-A", "BLADE-1", 1});
        for (U32_t id = first_; id < log_.size(); ++id) {
            const auto held = store.heldEvent(newest, id);
            ASSERT_TRUE(held ? held->image == log_[id] : expired_.contains(log_[id]))
                << "id " << id;
        }
        if (bounds_.hasNeighbour) {
            expectNeighbourIsThere(store);
        }
        expectNothingIsTwice(store);
        const std::set<Bytes> kept = allKept();
        for (const Bytes& event : everSafe_) {
            ASSERT_TRUE(kept.contains(event) || expired_.contains(event))
                << "an event is gone that was safe";
        }
    }

    /** What the storage holds, and holds to be doubtful, and what it has set aside beyond. */
    std::string heldText() const { return exhaustive::heldText(storage_->look()); }

    /** Worlds with the same text go on in the same way, but for what is known by heart. */
    std::string text() const;

  private:
    void logOne() {
        support::EventFields fields = {.id = static_cast<U32_t>(log_.size())};
        fields.time = log_.empty() ? 1 : ++serial_; // all logs begin with the same event
        log_.push_back(support::eventBody(fields));
    }

    Archiver& processOf(unsigned action) const {
        return *processes_[(action - BLADE_ACTIONS) / PROCESS_ACTIONS];
    }

    bool canBlade(unsigned action) const {
        switch (action) {
        case LOG:
            return log_.size() < bounds_.log;
        case REBUILD:
            return rebuilds_ < bounds_.rebuilds;
        case CUT:
            return peer_ != nullptr;
        case SEND_DAMAGED:
            return canSend() && bounds_.isSlow && damagedOnes_ < bounds_.damaged;
        case TAKE_BACK:
            return isDamaged_;
        case EXPIRE:
            return canExpire();
        case SHED:
            return canSend() && sheddings_ < bounds_.sheddings;
        case LOCK:
            return !isLocked_ && locks_ < bounds_.locks && canLock();
        case LET_GO:
            return isLocked_;
        case MAKE_LATE_COMMIT:
            return storage_->hasLate();
        case OVERWRITE:
            return overwritten_ < bounds_.overwritten && log_.size() - first_ > 1;
        case SEND_OF_NEIGHBOUR:
            return bounds_.hasNeighbour && !isNeighbourWaiting_ && neighbour_.size() < 2;
        default:
            return canSend();
        }
    }

    void actOfBlade(unsigned action) {
        switch (action) {
        case LOG:
            logOne();
            break;
        case REBUILD:
            ++rebuilds_;
            cut();
            log_.clear();
            first_ = 0;
            logOne();
            break;
        case SEND:
            send(Batch::Kind::EVENT);
            break;
        case SEND_AND_CUT:
            send(Batch::Kind::ENDED);
            cut();
            break;
        case SEND_DAMAGED:
            sendDamaged();
            break;
        case TAKE_BACK:
            takeBack();
            break;
        case EXPIRE:
            expire();
            break;
        case SEND_OF_NEIGHBOUR:
            neighbour_.push_back(neighboursEvent(static_cast<U32_t>(neighbour_.size())));
            sendOfNeighbour();
            break;
        case SHED:
            ++sheddings_;
            ++next_; // dropped
            cut();
            break;
        case LOCK:
            ++locks_;
            isLocked_ = true;
            storage_->lock();
            break;
        case LET_GO:
            letGo();
            break;
        case MAKE_LATE_COMMIT:
            makeLateCommit();
            break;
        case OVERWRITE:
            ++overwritten_;
            next_ = std::max<std::size_t>(next_, ++first_);
            break;
        default:
            cut();
            break;
        }
    }

    // A transaction that is open has the row, or may have.
    bool canLock() const {
        return isIdle() && !storage_->hasLate() &&
               storage_->look().findSeries({{"ENC-A", "BLADE-1", 1}, 1}).has_value();
    }

    void letGo() {
        if (std::exchange(isLocked_, false)) {
            storage_->letGo();
        }
    }

    void makeLateCommit() {
        if (storage_->hasLate()) {
            storage_->makeLate();
            noteSafe();
        }
    }

    // The blade is on another archiver when the late commit is made.
    void moveOn() {
        letGo();
        if (storage_->hasLate()) {
            takeBack();
            cut();
            connect(*processes_.back());
            processes_.back()->work();
            makeLateCommit();
        }
    }

    // A byte of it came twice, and nothing is behind it yet.
    void sendDamaged() {
        ++damagedOnes_;
        settleLast(Batch::Kind::EVENT);
        auto header = imageOf<EmpEvLogHeader_t>(log_[next_]);
        header.evTime = 100 + header.evTime;
        unsettled_ = log_[next_++];
        std::ranges::copy(viewOf(header), unsettled_.begin());
        isDamaged_ = true;
        peer_->bring(link_, Batch::Kind::SILENT, unsettled_);
    }

    // What comes behind it shows that it was: the link ends.
    void takeBack() {
        if (isDamaged_) {
            peer_->bring(link_, Batch::Kind::TAKE_BACK, std::exchange(unsettled_, {}));
            isDamaged_ = false;
            cut();
        }
    }

    static GenerationKey newestOf(Store& store, const BladeKey& blade) {
        const auto series = store.findSeries({blade, 1});
        const auto newest = series ? store.newestGeneration(*series) : std::nullopt;
        return newest ? newest->number : GenerationKey{};
    }

    bool isIdle() const {
        return std::ranges::none_of(processes_,
                                    [](const auto& process) { return process->isUncommitted(); });
    }

    bool canExpire() const {
        if (expiries_ == bounds_.expired || (bounds_.processes == 1 && !isIdle())) {
            return false;
        }
        Store& store = storage_->look();
        const auto newest = newestOf(store, {"ENC-A", "BLADE-1", 1});
        const auto oldest = store.oldestEvent(newest);
        return oldest && oldest->sequenceId != store.highestId(newest);
    }

    void expire() {
        ++expiries_;
        Store& store = storage_->look();
        const auto newest = newestOf(store, {"ENC-A", "BLADE-1", 1});
        const auto oldest = *store.oldestEvent(newest);
        expired_.insert(oldest.image);
        store.begin();
        store.removeOldest(newest, oldest.received + 1, 1);
        store.commit();
    }

    // The neighbour's log is never rebuilt, and it speaks to the first process for ever.
    static constexpr LinkNumber NEIGHBOUR = 1'000'000;

    static support::LogName neighboursLog() { return {.blade = "BLADE-2"}; }
    static Bytes neighboursEvent(U32_t id) {
        return support::eventBody({.log = neighboursLog(), .id = id});
    }

    void connectNeighbour() {
        isNeighbourWaiting_ = true;
        processes_.front()->bring(NEIGHBOUR + neighbourLinks_++, Batch::Kind::STATUS,
                                  support::statusBody(neighboursLog(), 0, {1, 2, 3}));
    }

    void sendOfNeighbour() {
        for (; neighboursNext_ < neighbour_.size(); ++neighboursNext_) {
            processes_.front()->bring(NEIGHBOUR + neighbourLinks_ - 1, Batch::Kind::EVENT,
                                      neighbour_[neighboursNext_]);
        }
    }

    void deliverToNeighbour(const std::optional<StatusVerdict>& verdict) {
        ASSERT_TRUE(verdict) << "nothing of its log was ever another one";
        isNeighbourWaiting_ = false;
        neighboursNext_ = *verdict == NOTHING_HELD ? 0 : verdict->sequenceIdLast + 1;
        sendOfNeighbour();
    }

    void expectNeighbourIsThere(Store& store) {
        const auto newest = newestOf(store, {"ENC-A", "BLADE-2", 1});
        ASSERT_LE(newest.generation, 1U) << "a generation too many of the neighbour's log";
        for (U32_t id = 0; id < neighbour_.size(); ++id) {
            const auto held = store.heldEvent(newest, id);
            ASSERT_TRUE(held && !held->doubtful) << "the neighbour's id " << id;
        }
    }

    static void expectNothingIsTwice(Store& store) {
        std::set<std::pair<GenerationKey, U32_t>> ids;
        std::set<Bytes> images;
        for (const GenerationInfo& info : store.listGenerations()) {
            store.forEachEvent(info.number, [&](const StoredEvent& event) {
                EXPECT_TRUE(ids.emplace(info.number, event.sequenceId).second)
                    << "id " << event.sequenceId << " is there twice";
                const bool isAlike = imageOf<EmpEvLogHeader_t>(event.image).evTime == 1;
                EXPECT_TRUE(isAlike || images.insert(event.image).second)
                    << "id " << event.sequenceId << " is in two generations";
            });
        }
    }

    void connect(Archiver& process) {
        peer_ = &process;
        ++link_;
        isWaiting_ = true;
        hasResent_ = false;
        process.bring(link_, Batch::Kind::STATUS, support::statusBody({}, first_, {1, 2, 3}));
    }

    void cut() {
        if (peer_ != nullptr) {
            settleLast(Batch::Kind::ENDED);
            peer_->bring(link_, Batch::Kind::END_OF_LINK);
            peer_ = nullptr;
            isDamaged_ = false;
        }
    }

    bool canSend() const {
        return peer_ != nullptr && !isWaiting_ && !isDamaged_ && next_ < log_.size();
    }
    void send(Batch::Kind kind) {
        settleLast(Batch::Kind::EVENT);
        const bool isSilent = bounds_.isSlow && kind == Batch::Kind::EVENT;
        peer_->bring(link_, isSilent ? Batch::Kind::SILENT : kind, log_[next_]);
        unsettled_ = isSilent ? log_[next_] : Bytes();
        ++next_;
    }

    // As a link does with the last event that it has read.
    void settleLast(Batch::Kind kind) {
        if (peer_ != nullptr && !unsettled_.empty()) {
            peer_->bring(link_, kind, std::exchange(unsettled_, {}));
        }
        unsettled_.clear();
    }

    void deliver(const Archiver& process, LinkNumber link,
                 const std::optional<StatusVerdict>& verdict) override {
        if (link >= NEIGHBOUR) {
            deliverToNeighbour(verdict);
            return;
        }
        if (peer_ != &process || link != link_) {
            return;
        }
        if (!verdict) {
            next_ = std::exchange(hasResent_, true) ? next_ : first_;
            return;
        }
        isWaiting_ = false;
        const bool isBeyond = verdict->sequenceIdLast >= log_.size();
        const U32_t behind = verdict->sequenceIdLast + 1;
        next_ = *verdict == NOTHING_HELD || isBeyond ? first_ : std::max(first_, behind);
    }

    void close(const Archiver& process, LinkNumber link) override {
        if (peer_ == &process && link == link_) {
            cut();
        }
    }

    void noteSafe() override {
        const std::set<Bytes> kept = allKept();
        everSafe_.insert(kept.begin(), kept.end());
    }

    void die(Archiver& process) {
        process.restart();
        if (peer_ == &process) {
            peer_ = nullptr;
            unsettled_.clear();
            isDamaged_ = false;
        }
        if (bounds_.hasNeighbour && &process == processes_.front().get()) {
            connectNeighbour();
        }
    }

    bool isStill(const Archiver& process) const {
        return isFirstStill_ && &process == processes_.front().get();
    }

    bool isBusy(const Archiver& process) const { return !isStill(process) && process.isBusy(); }

    void settle() {
        const auto isOneBusy = [this](const auto& process) { return isBusy(*process); };
        for (int round = 0; std::ranges::any_of(processes_, isOneBusy); ++round) {
            ASSERT_LT(round, 20) << "conflicts without end";
            if (round >= 2) {
                storage_->endStalled();
            }
            for (const auto& process : processes_) {
                if (!isStill(*process)) {
                    process->work();
                    process->commit();
                }
            }
        }
    }

    void sendTheRest() {
        settle();
        sendAll();
        logOne(); // a rebuilt log that ends where the claim does shows with its next event
        sendAll();
        isFirstStill_ = false;
        settle();
    }

    void sendAll() {
        for (int round = 0; canSend(); ++round) { // it may be asked to send all again
            ASSERT_LT(round, 5) << "the blade sends without end";
            while (canSend()) {
                send(Batch::Kind::EVENT);
            }
            settleLast(Batch::Kind::EVENT);
            settle();
        }
    }

    std::set<Bytes> allKept() const {
        std::set<Bytes> kept;
        Store& store = storage_->look();
        for (const GenerationInfo& info : store.listGenerations()) {
            store.forEachEvent(info.number,
                               [&](const StoredEvent& event) { kept.insert(event.image); });
        }
        store.forEachAside([&](const AsideEvent& event) { kept.insert(event.image); });
        return kept;
    }

    Bounds bounds_;
    std::unique_ptr<Storage> storage_;
    std::vector<std::unique_ptr<Archiver>> processes_;
    std::vector<Bytes> log_; ///< by id
    U32_t first_ = 0;        ///< the oldest one that it still has
    U32_t overwritten_ = 0;
    U32_t serial_ = 1;
    Archiver* peer_ = nullptr; ///< with whom the blade is connected
    LinkNumber link_ = 0;
    bool isFirstStill_ = false;
    bool isWaiting_ = false; ///< for its status answer
    bool hasResent_ = false;
    std::size_t next_ = 0;   ///< to be sent
    Bytes unsettled_;        ///< the last one that was, with nothing behind it
    bool isDamaged_ = false; ///< that one is
    U32_t damagedOnes_ = 0;
    U32_t expiries_ = 0;
    U32_t sheddings_ = 0;
    U32_t locks_ = 0;
    bool isLocked_ = false;
    U32_t lateCommits_ = 0;
    std::set<Bytes> expired_;
    std::vector<Bytes> neighbour_; ///< its log
    LinkNumber neighbourLinks_ = 0;
    bool isNeighbourWaiting_ = false;
    std::size_t neighboursNext_ = 0;
    U32_t rebuilds_ = 0;
    U32_t connects_ = 0;
    U32_t failures_ = 0;
    std::set<Bytes> everSafe_;
};

inline std::string World::text() const {
    std::ostringstream out;
    for (const Bytes& event : log_) {
        out << nameOfEvent(event) << ' ';
    }
    out << link_ << isWaiting_ << hasResent_ << next_ << ' ' << rebuilds_ << connects_ << failures_
        << (unsettled_.empty() ? '.' : '?') << isDamaged_ << damagedOnes_ << expiries_ << sheddings_
        << first_ << overwritten_ << locks_ << isLocked_ << lateCommits_ << storage_->hasLate()
        << neighbour_.size() << neighboursNext_ << isNeighbourWaiting_ << '|';
    for (const auto& process : processes_) {
        out << (peer_ == process.get()) << process->text(nameOfEvent);
    }
    out << heldText() << storage_->hiddenText();
    return out.str();
}

} // namespace exhaustive

#endif
