/**
 * @file
 * One blade, the archivers of one archive, and what is between them: the real archive over a
 * storage, and every step that one of them can take. Beside them a blade that nothing
 * befalls, whose events are filed in the same transactions.
 */
#ifndef EXHAUSTIVE_WORLD_H
#define EXHAUSTIVE_WORLD_H

#include "archive.h"
#include "exhaustive_storage.h"
#include "link_messages.h"

#include <deque>
#include <gmock/gmock.h>

namespace exhaustive {

struct Bounds {
    U32_t processes = 1; ///< 2: they share the storage
    U32_t log = 3;       ///< events in the blade's log
    U32_t rebuilds = 1;
    U32_t connects = 3;
    U32_t failures = 1;        ///< commits that fail, and deaths of an archiver
    unsigned depth = 9;        ///< actions
    bool isUnderWay = false;   ///< the blade has sent two events when it begins
    bool isSlow = false;       ///< nothing is seen behind an event before the next one comes
    U32_t damaged = 0;         ///< events that come damaged, where the blade is slow
    U32_t expired = 0;         ///< how often retention takes the oldest event
    bool hasNeighbour = false; ///< another blade, on the first process, whose events go with it
};

[[maybe_unused]] void PrintTo(const Bounds& bounds, std::ostream* out) {
    *out << bounds.processes << " processes, depth " << bounds.depth;
}

/** A blade, the archivers, and what is between them. */
class World {
  public:
    enum BladeAction : unsigned {
        LOG,
        REBUILD,
        SEND,
        SEND_AND_CUT,
        CUT,
        SEND_DAMAGED,
        TAKE_BACK,
        EXPIRE,
        SEND_OF_NEIGHBOUR,
        BLADE_ACTIONS
    };
    enum ProcessAction : unsigned {
        CONNECT,
        WORK,
        COMMIT,
        FAIL,
        FAIL_UNHEARD, ///< what seems to have failed is safe
        DIE,
        PROCESS_ACTIONS
    };

    explicit World(const Bounds& bounds)
        : World(bounds, std::make_unique<MemoryStorage>(bounds.processes > 1)) {}

    World(const Bounds& bounds, std::unique_ptr<Storage> storage)
        : bounds_(bounds), storage_(std::move(storage)) {
        for (U32_t number = 0; number < bounds_.processes; ++number) {
            processes_.push_back(std::make_unique<Process>(*storage_, number));
        }
        logOne();
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
        const Process& process = processOf(action);
        switch ((action - BLADE_ACTIONS) % PROCESS_ACTIONS) {
        case CONNECT:
            return peer_ == nullptr && connects_ < bounds_.connects;
        case WORK:
            return !process.queue.empty();
        case COMMIT:
            return process.archive->isUncommitted();
        case FAIL:
        case FAIL_UNHEARD:
            return process.archive->isUncommitted() && failures_ < bounds_.failures;
        default:
            return process.isWarm && failures_ < bounds_.failures;
        }
    }

    /** Only what can be done now. */
    void act(unsigned action) {
        if (action < BLADE_ACTIONS) {
            actOfBlade(action);
            return;
        }
        Process& process = processOf(action);
        switch ((action - BLADE_ACTIONS) % PROCESS_ACTIONS) {
        case CONNECT:
            ++connects_;
            connect(process);
            break;
        case WORK:
            work(process);
            break;
        case COMMIT:
            commit(process);
            break;
        case FAIL:
            ++failures_;
            fail(process);
            break;
        case FAIL_UNHEARD:
            ++failures_;
            failUnheard(process);
            break;
        default:
            ++failures_;
            die(process);
            break;
        }
    }

    bool isConnected() const { return peer_ != nullptr; }

    /** Whether handshakes were claimed together on the way here. */
    bool hasClaimedTogether() const { return isTogether_; }

    /** Whether the storage could not be used at some time, so that something was done again. */
    bool wasHeldUp() const { return isHeldUp_; }

    /** Whether retention has taken something. */
    bool hasExpired() const { return expiries_ > 0; }

    /** The blade connects once more and sends all that it has; everything comes to its end.
     * @param isLate the first process stands still until then, and the blade is on the last one */
    void finish(bool isLate) {
        isFirstStill_ = isLate;
        settle();
        takeBack();
        cut();
        connect(isLate ? *processes_.back() : *processes_.front());
        sendTheRest();
    }

    /** The same on the link that the blade has; if that turns out to be closed, on another one. */
    void stay() {
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
        for (U32_t id = 0; id < log_.size(); ++id) {
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
    std::string heldText() const;

    /** Worlds with the same text go on in the same way, but for what is known by heart. */
    std::string text() const;

  private:
    enum class Kind : U8_t { EVENT, SILENT, ENDED, STATUS, END, TAKE_BACK };
    struct Request {
        LinkNumber link;
        Kind kind;
        Bytes body;
    };
    struct Process {
        Process(Storage& storage, std::size_t its) : number(its) { restart(storage); }
        void restart(Storage& storage) {
            archive.reset();
            store.reset();
            store = storage.open(number);
            archive = std::make_unique<Archive>(*store, ArchiveSettings{},
                                                [](Level, const std::string&) {});
            queue.clear();
            worked.clear();
            held.clear();
        }
        std::size_t number;
        std::unique_ptr<Store> store;
        std::unique_ptr<Archive> archive;
        std::deque<Request> queue;  ///< came, not worked off
        std::deque<Request> worked; ///< worked off, not committed
        std::vector<std::pair<LinkNumber, std::optional<StatusVerdict>>> held; ///< replies; none:
                                                                               ///< send all again
        bool isWarm = false; ///< knows something by heart
        U32_t conflicts = 0; ///< what it knows may be what it saved before them
    };

    void logOne() {
        support::EventFields fields = {.id = static_cast<U32_t>(log_.size())};
        fields.time = log_.empty() ? 1 : ++serial_; // all logs begin with the same event
        log_.push_back(support::eventBody(fields));
    }

    Process& processOf(unsigned action) const {
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
            logOne();
            break;
        case SEND:
            send(Kind::EVENT);
            break;
        case SEND_AND_CUT:
            send(Kind::ENDED);
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
        default:
            cut();
            break;
        }
    }

    // A byte of it came twice, and nothing is behind it yet.
    void sendDamaged() {
        ++damagedOnes_;
        settleLast(Kind::EVENT);
        auto header = imageOf<EmpEvLogHeader_t>(log_[next_]);
        header.evTime = 100 + header.evTime;
        unsettled_ = log_[next_++];
        std::ranges::copy(viewOf(header), unsettled_.begin());
        isDamaged_ = true;
        peer_->queue.push_back({link_, Kind::SILENT, unsettled_});
    }

    // What comes behind it shows that it was: the link ends.
    void takeBack() {
        if (isDamaged_) {
            peer_->queue.push_back({link_, Kind::TAKE_BACK, std::exchange(unsettled_, {})});
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
        return std::ranges::none_of(
            processes_, [](const auto& process) { return process->archive->isUncommitted(); });
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
        processes_.front()->queue.push_back({NEIGHBOUR + neighbourLinks_++, Kind::STATUS,
                                             support::statusBody(neighboursLog(), 0, {1, 2, 3})});
    }

    void sendOfNeighbour() {
        for (; neighboursNext_ < neighbour_.size(); ++neighboursNext_) {
            processes_.front()->queue.push_back(
                {NEIGHBOUR + neighbourLinks_ - 1, Kind::EVENT, neighbour_[neighboursNext_]});
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
        for (const GenerationInfo& info : store.listGenerations()) {
            store.forEachEvent(info.number, [&](const StoredEvent& event) {
                EXPECT_TRUE(ids.emplace(info.number, event.sequenceId).second)
                    << "id " << event.sequenceId << " is there twice";
            });
        }
    }

    void connect(Process& process) {
        peer_ = &process;
        ++link_;
        isWaiting_ = true;
        hasResent_ = false;
        process.queue.push_back({link_, Kind::STATUS, support::statusBody({}, 0, {1, 2, 3})});
    }

    void cut() {
        if (peer_ != nullptr) {
            settleLast(Kind::ENDED);
            peer_->queue.push_back({link_, Kind::END, {}});
            peer_ = nullptr;
            isDamaged_ = false;
        }
    }

    bool canSend() const {
        return peer_ != nullptr && !isWaiting_ && !isDamaged_ && next_ < log_.size();
    }
    void send(Kind kind) {
        settleLast(Kind::EVENT);
        const bool isSilent = bounds_.isSlow && kind == Kind::EVENT;
        peer_->queue.push_back({link_, isSilent ? Kind::SILENT : kind, log_[next_]});
        unsettled_ = isSilent ? log_[next_] : Bytes();
        ++next_;
    }

    // As a link does with the last event that it has read.
    void settleLast(Kind kind) {
        if (peer_ != nullptr && !unsettled_.empty()) {
            peer_->queue.push_back({link_, kind, std::exchange(unsettled_, {})});
        }
        unsettled_.clear();
    }

    static Certainty certaintyOf(Kind kind) {
        return kind == Kind::EVENT    ? Certainty::CERTAIN
               : kind == Kind::SILENT ? Certainty::SILENT
                                      : Certainty::ENDED;
    }

    // As a lane does: up to the end of the queue, handshakes of a shared storage that wait one
    // behind the other together.
    void work(Process& process) {
        try {
            while (!process.queue.empty()) {
                const bool isClaimed =
                    process.queue.front().kind == Kind::STATUS && process.archive->isClaimed();
                const std::size_t together = isClaimed ? claimAhead(process) : 0;
                for (std::size_t i = 0; i < std::max<std::size_t>(together, 1); ++i) {
                    workOne(process);
                }
                if (isClaimed) {
                    commitOnce(process);
                }
            }
        } catch (const StoreConflict& conflict) {
            undo(process, conflict);
        } catch (const StoreError& error) {
            holdUp(process, error);
        }
    }

    // A transaction of another process is in the way, or the connection was lost.
    void holdUp(Process& process, const StoreError& error) {
        ASSERT_TRUE(error.isPassing()) << error.what();
        isHeldUp_ = true;
        fail(process);
    }

    std::size_t claimAhead(Process& process) {
        commitOnce(process);
        std::vector<EmpGetEvArchiverStatusMsg_t> group;
        std::set<SeriesKey> logs;
        for (const Request& request : process.queue) {
            const auto status =
                request.kind == Kind::STATUS
                    ? std::optional(imageOf<EmpGetEvArchiverStatusMsg_t>(request.body))
                    : std::nullopt;
            if (!status || !logs.insert(logOf(*status)).second) {
                break;
            }
            group.push_back(*status);
        }
        process.archive->claimAhead(group);
        isTogether_ = isTogether_ || group.size() > 1;
        return group.size();
    }

    void workOne(Process& process) {
        process.isWarm = true;
        Request request = process.queue.front();
        Archive& archive = *process.archive;
        if (request.kind == Kind::STATUS) {
            process.held.emplace_back(
                request.link,
                archive.answerStatus(request.link,
                                     imageOf<EmpGetEvArchiverStatusMsg_t>(request.body)));
        } else if (request.kind == Kind::END) {
            archive.endLink(request.link);
        } else if (request.kind == Kind::TAKE_BACK) {
            archive.takeBack(request.link, request.body);
        } else if (archive.fileEvent(request.link, request.body, certaintyOf(request.kind)) ==
                   Filed::NEW_GENERATION) {
            process.held.emplace_back(request.link, std::nullopt);
        }
        process.worked.push_back(std::move(request));
        process.queue.pop_front();
        if (!archive.isUncommitted()) {
            commitOnce(process);
        }
    }

    void commit(Process& process) {
        try {
            commitOnce(process);
        } catch (const StoreConflict& conflict) {
            undo(process, conflict);
        } catch (const StoreError& error) {
            holdUp(process, error);
        }
    }

    void commitOnce(Process& process) {
        process.archive->commit();
        process.worked.clear();
        const std::set<Bytes> kept = allKept();
        everSafe_.insert(kept.begin(), kept.end());
        for (const auto& [link, verdict] : std::exchange(process.held, {})) {
            deliver(process, link, verdict);
        }
    }

    void deliver(const Process& process, LinkNumber link,
                 const std::optional<StatusVerdict>& verdict) {
        if (link >= NEIGHBOUR) {
            deliverToNeighbour(verdict);
            return;
        }
        if (peer_ != &process || link != link_) {
            return;
        }
        if (!verdict) {
            next_ = std::exchange(hasResent_, true) ? next_ : 0;
            return;
        }
        isWaiting_ = false;
        const bool isBeyond = verdict->sequenceIdLast >= log_.size();
        next_ = *verdict == NOTHING_HELD || isBeyond ? 0 : verdict->sequenceIdLast + 1;
    }

    void fail(Process& process) {
        process.archive->abandon();
        process.isWarm = false;
        rewind(process);
    }

    static void rewind(Process& process) {
        std::erase_if(process.held, [](const auto& reply) { return reply.second.has_value(); });
        while (!process.worked.empty()) {
            process.queue.push_front(std::move(process.worked.back()));
            process.worked.pop_back();
        }
    }

    void failUnheard(Process& process) {
        storage_->loseAnswer(process.number, *process.store);
        try {
            process.archive->commit();
        } catch (const StoreConflict& conflict) {
            undo(process, conflict);
            storage_->endLosing(process.number);
            return;
        } catch (const StoreError&) {
            // Nothing tells that it is safe.
        }
        fail(process);
        storage_->endLosing(process.number);
    }

    void undo(Process& process, const StoreConflict& conflict) {
        process.archive->abandon(conflict);
        ++process.conflicts;
        rewind(process);
        for (const LinkNumber link : process.archive->loseClaims(conflict.lost())) {
            if (peer_ == &process && link == link_) {
                cut();
            }
        }
    }

    void die(Process& process) {
        process.restart(*storage_);
        process.isWarm = false;
        if (peer_ == &process) {
            peer_ = nullptr;
            unsettled_.clear();
            isDamaged_ = false;
        }
        if (bounds_.hasNeighbour && &process == processes_.front().get()) {
            connectNeighbour();
        }
    }

    bool isStill(const Process& process) const {
        return isFirstStill_ && &process == processes_.front().get();
    }

    bool isBusy(const Process& process) const {
        return !isStill(process) && (!process.queue.empty() || process.archive->isUncommitted());
    }

    void settle() {
        const auto isOneBusy = [this](const auto& process) { return isBusy(*process); };
        for (int round = 0; std::ranges::any_of(processes_, isOneBusy); ++round) {
            ASSERT_LT(round, 20) << "conflicts without end";
            if (round == 2) {
                storage_->endStalled();
            }
            for (const auto& process : processes_) {
                if (!isStill(*process)) {
                    work(*process);
                    commit(*process);
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
                send(Kind::EVENT);
            }
            settleLast(Kind::EVENT);
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
    std::vector<std::unique_ptr<Process>> processes_;
    std::vector<Bytes> log_;
    U32_t serial_ = 1;
    Process* peer_ = nullptr; ///< with whom the blade is connected
    LinkNumber link_ = 0;
    bool isFirstStill_ = false;
    bool isHeldUp_ = false;   ///< something could not be done at once
    bool isTogether_ = false; ///< handshakes were claimed together
    bool isWaiting_ = false;  ///< for its status answer
    bool hasResent_ = false;
    std::size_t next_ = 0;   ///< to be sent
    Bytes unsettled_;        ///< the last one that was, with nothing behind it
    bool isDamaged_ = false; ///< that one is
    U32_t damagedOnes_ = 0;
    U32_t expiries_ = 0;
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

// An event by its id and its time, which no two have in common.
inline std::string nameOfEvent(const Bytes& image) {
    if (image.size() < sizeof(EmpEvLogHeader_t)) {
        return "-";
    }
    const auto header = imageOf<EmpEvLogHeader_t>(image);
    return std::to_string(U32_t{header.evSequenceId}) + "." + std::to_string(U32_t{header.evTime});
}

inline std::string World::heldText() const {
    std::ostringstream out;
    std::set<Bytes> held;
    Store& store = storage_->look();
    for (const GenerationInfo& info : store.listGenerations()) {
        out << info.key.blade.blade << '/' << info.number.generation << ':';
        store.forEachEvent(info.number, [&](const StoredEvent& event) {
            out << nameOfEvent(event.image) << (event.doubtful ? "? " : " ");
            held.insert(event.image);
        });
    }
    std::set<std::string> aside;
    store.forEachAside([&](const AsideEvent& event) {
        if (!held.contains(event.image)) {
            aside.insert(event.key.blade.blade + '/' + nameOfEvent(event.image));
        }
    });
    for (const std::string& event : aside) {
        out << '~' << event;
    }
    return out.str();
}

inline std::string World::text() const {
    std::ostringstream out;
    const auto put = [&out](const auto& requests) {
        for (const Request& request : requests) {
            out << request.link << static_cast<int>(request.kind)
                << (request.kind == Kind::STATUS ? "s" : nameOfEvent(request.body)) << ' ';
        }
        out << '|';
    };
    for (const Bytes& event : log_) {
        out << nameOfEvent(event) << ' ';
    }
    out << link_ << isWaiting_ << hasResent_ << next_ << ' ' << rebuilds_ << connects_ << failures_
        << (unsettled_.empty() ? '.' : '?') << isDamaged_ << damagedOnes_ << expiries_
        << neighbour_.size() << neighboursNext_ << isNeighbourWaiting_ << '|';
    for (const auto& process : processes_) {
        out << (peer_ == process.get()) << process->isWarm << process->held.size() << 'c'
            << process->conflicts << ' ';
        put(process->queue);
        put(process->worked);
    }
    out << heldText() << storage_->hiddenText();
    return out.str();
}

} // namespace exhaustive

#endif
