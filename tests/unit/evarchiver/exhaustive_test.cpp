/**
 * All orders in which one blade and the archive's rules can act on each other, up to a bound: the
 * real archive over a storage in memory, in one process that owns it and in two that share it.
 *
 * From every state that can be reached, the blade is let go on until it has sent everything: then
 * the newest generation is its log, event for event, and no event that was ever safe is gone.
 */
#include "archive_fixture.h"
#include "memory_store.h"

#include <deque>
#include <unordered_set>

using namespace evarchive;

namespace {

struct Bounds {
    U32_t processes = 1; ///< 2: they share the storage
    U32_t log = 3;       ///< events in the blade's log
    U32_t rebuilds = 1;
    U32_t connects = 3;
    U32_t failures = 1;      ///< commits that fail, and deaths of an archiver
    unsigned depth = 9;      ///< actions
    bool isUnderWay = false; ///< the blade has sent two events when it begins
    bool isSlow = false;     ///< nothing is seen behind an event before the next one comes
};

[[maybe_unused]] void PrintTo(const Bounds& bounds, std::ostream* out) {
    *out << bounds.processes << " processes, depth " << bounds.depth;
}

/** A blade, the archivers, and what is between them. */
class World {
  public:
    enum BladeAction : unsigned { LOG, REBUILD, SEND, SEND_AND_CUT, CUT, BLADE_ACTIONS };
    enum ProcessAction : unsigned {
        CONNECT,
        WORK,
        COMMIT,
        FAIL,
        FAIL_UNHEARD, ///< what seems to have failed is safe
        DIE,
        PROCESS_ACTIONS
    };

    explicit World(const Bounds& bounds) : bounds_(bounds), processes_(bounds.processes) {
        std::ranges::generate(processes_,
                              [this] { return std::make_unique<Process>(database_, bounds_); });
        logOne();
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

    /** The blade connects once more and sends all that it has; everything comes to its end.
     * @param isLate the first process stands still until then, and the blade is on the last one */
    void finish(bool isLate) {
        isFirstStill_ = isLate;
        settle();
        cut();
        connect(isLate ? *processes_.back() : *processes_.front());
        sendTheRest();
    }

    /** The same on the link that the blade has; if that turns out to be closed, on another one. */
    void stay() {
        settle();
        sendTheRest();
        for (int round = 0; peer_ == nullptr; ++round) {
            ASSERT_LT(round, 5) << "the blade connects without end";
            connect(*processes_.front());
            sendTheRest();
        }
    }

    void expectAllIsThere() {
        MemoryStore store(database_);
        const auto newest = store.listGenerations().back().number;
        for (U32_t id = 0; id < log_.size(); ++id) {
            const auto held = store.heldEvent(newest, id);
            ASSERT_TRUE(held && held->image == log_[id]) << "id " << id;
        }
        const std::set<Bytes> kept = allKept();
        for (const Bytes& event : everSafe_) {
            ASSERT_TRUE(kept.contains(event)) << "an event is gone that was safe";
        }
    }

    /** Worlds with the same text go on in the same way, but for what is known by heart. */
    std::string text() const;

  private:
    enum class Kind : U8_t { EVENT, SILENT, ENDED, STATUS, END };
    struct Request {
        LinkNumber link;
        Kind kind;
        Bytes body;
    };
    struct Process {
        Process(MemoryDatabase& database, const Bounds& bounds) { restart(database, bounds); }
        void restart(MemoryDatabase& database, const Bounds& bounds) {
            archive.reset();
            store = std::make_unique<MemoryStore>(database, bounds.processes > 1);
            archive = std::make_unique<Archive>(*store, ArchiveSettings{},
                                                [](Level, const std::string&) {});
            queue.clear();
            worked.clear();
            held.clear();
        }
        std::unique_ptr<MemoryStore> store;
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
        default:
            cut();
            break;
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
        }
    }

    bool canSend() const { return peer_ != nullptr && !isWaiting_ && next_ < log_.size(); }
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

    // As a lane does: up to the end of the queue, a handshake of a shared storage for itself.
    void work(Process& process) {
        try {
            while (!process.queue.empty()) {
                const bool isAlone =
                    process.queue.front().kind == Kind::STATUS && process.archive->isClaimedAlone();
                if (isAlone) {
                    commitOnce(process);
                }
                workOne(process);
                if (isAlone) {
                    commitOnce(process);
                }
            }
        } catch (const StoreConflict& conflict) {
            undo(process, conflict);
        }
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
        process.store->failAfterCommit();
        try {
            process.archive->commit();
        } catch (const StoreConflict& conflict) {
            undo(process, conflict);
            return;
        } catch (const StoreError&) {
            // Nothing tells that it is safe.
        }
        fail(process);
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
        process.restart(database_, bounds_);
        process.isWarm = false;
        if (peer_ == &process) {
            peer_ = nullptr;
            unsettled_.clear();
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
        for (const auto& [key, generation] : database_.generations) {
            for (const auto& [id, event] : generation.events) {
                kept.insert(event.image);
            }
        }
        for (const AsideEvent& event : database_.aside) {
            kept.insert(event.image);
        }
        return kept;
    }

    Bounds bounds_;
    MemoryDatabase database_;
    std::vector<std::unique_ptr<Process>> processes_;
    std::vector<Bytes> log_;
    U32_t serial_ = 1;
    Process* peer_ = nullptr; ///< with whom the blade is connected
    LinkNumber link_ = 0;
    bool isFirstStill_ = false;
    bool isWaiting_ = false; ///< for its status answer
    bool hasResent_ = false;
    std::size_t next_ = 0; ///< to be sent
    Bytes unsettled_;      ///< the last one that was, with nothing behind it
    U32_t rebuilds_ = 0;
    U32_t connects_ = 0;
    U32_t failures_ = 0;
    std::set<Bytes> everSafe_;
};

// An event by its id and its time, which no two have in common.
std::string nameOfEvent(const Bytes& image) {
    if (image.size() < sizeof(EmpEvLogHeader_t)) {
        return "-";
    }
    const auto header = imageOf<EmpEvLogHeader_t>(image);
    return std::to_string(U32_t{header.evSequenceId}) + "." + std::to_string(U32_t{header.evTime});
}

std::string World::text() const {
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
        << (unsettled_.empty() ? '.' : '?') << '|';
    for (const auto& process : processes_) {
        out << (peer_ == process.get()) << process->isWarm << process->held.size() << 'c'
            << process->conflicts << ' ';
        put(process->queue);
        put(process->worked);
    }
    for (const auto& [key, generation] : database_.generations) {
        out << key.series << '/' << key.generation << ':';
        for (const auto& [id, event] : generation.events) {
            out << nameOfEvent(event.image) << (event.doubtful ? "? " : " ");
        }
    }
    for (const auto& [series, epoch] : database_.epochs) {
        out << 'e' << epoch;
    }
    for (const AsideEvent& event : database_.aside) {
        out << '~' << nameOfEvent(event.image);
    }
    return out.str();
}

class ExhaustiveTest : public testing::TestWithParam<Bounds> {
  protected:
    using Way = std::vector<unsigned>;

    // Breadth first; a state is kept as the way to it.
    std::size_t search(const Bounds& bounds) {
        std::unordered_set<std::string> seen;
        std::vector<Way> level = {{}};
        for (unsigned depth = 0; depth <= bounds.depth && !HasFatalFailure(); ++depth) {
            std::vector<Way> next;
            for (const Way& way : level) {
                for (const unsigned action : possible(bounds, way)) {
                    Way further = way;
                    further.push_back(action);
                    if (seen.insert(after(bounds, further)->text()).second) {
                        next.push_back(std::move(further));
                    }
                }
                expectGoodEnd(bounds, way);
            }
            level = std::move(next);
        }
        return seen.size();
    }

    static std::unique_ptr<World> after(const Bounds& bounds, const Way& way) {
        auto world = std::make_unique<World>(bounds);
        for (const unsigned action : way) {
            world->act(action);
        }
        return world;
    }

    static Way possible(const Bounds& bounds, const Way& way) {
        const auto world = after(bounds, way);
        Way actions;
        for (unsigned action = 0; way.size() < bounds.depth && action < world->actions();
             ++action) {
            if (world->can(action)) {
                actions.push_back(action);
            }
        }
        return actions;
    }

    static void expectGoodEnd(const Bounds& bounds, const Way& way) {
        std::string actions = "after actions";
        for (const unsigned action : way) {
            actions += " " + std::to_string(action);
        }
        SCOPED_TRACE(actions);
        for (U32_t process = 0; process < bounds.processes; ++process) {
            const auto world = after(bounds, way);
            world->finish(process > 0);
            world->expectAllIsThere();
        }
        const auto world = after(bounds, way);
        if (world->isConnected()) {
            world->stay();
            world->expectAllIsThere();
        }
    }
};

} // namespace

TEST_P(ExhaustiveTest, NothingIsLostInAnyOrder) {
    Bounds bounds = GetParam();
    if (getenv("ARCHIVE_MODEL") != nullptr) { // NOLINT(concurrency-mt-unsafe)
        bounds.depth += 3;
        ++bounds.log;
        ++bounds.rebuilds;
    }
    const std::size_t states = search(bounds);
    EXPECT_GT(states, 500U);
    RecordProperty("states", std::to_string(states));
}

INSTANTIATE_TEST_SUITE_P(Processes, ExhaustiveTest,
                         testing::Values(Bounds{.processes = 1, .depth = 7},
                                         Bounds{.processes = 1, .depth = 8, .isUnderWay = true},
                                         Bounds{.processes = 2, .depth = 6},
                                         Bounds{.processes = 2, .depth = 6, .isUnderWay = true},
                                         Bounds{.processes = 2, .depth = 6, .isSlow = true}),
                         [](const auto& bounds) {
                             return std::string(bounds.param.processes == 1 ? "OneOwns"
                                                                            : "TwoShare") +
                                    (bounds.param.isUnderWay ? "UnderWay" : "") +
                                    (bounds.param.isSlow ? "Slowly" : "");
                         });
