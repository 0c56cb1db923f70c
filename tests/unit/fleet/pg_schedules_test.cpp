/**
 * What the exhaustive model of the archive goes through, on the engine itself: each archiver has
 * its own connection, which can be lost in the commit. A server is too slow for all orders, so some
 * are drawn, and go on beside the model over a storage in memory. FLEET_SCHEDULES says how many,
 * FLEET_SEED another beginning.
 */
#include "../evarchiver/exhaustive_world.h"
#include "cutting_proxy.h"
#include "pg_store_fixture.h"

#include <random>

using namespace exhaustive;

namespace {

using Proxies = std::array<fleet::CuttingProxy, 2>;

/** On the server, empty to begin with. */
class ServerStorage : public Storage {
  public:
    ServerStorage(const std::string& place, Proxies& proxies) : place_(place), proxies_(proxies) {
        admin_.reopen();
        locker_.reopen();
        admin_.execute("DELETE FROM events; DELETE FROM logs; DELETE FROM generations; "
                       "DELETE FROM set_aside");
    }

    std::unique_ptr<Store> open(std::size_t process) override {
        return std::make_unique<PgStore>(proxies_.at(process).through(place_), PATIENCE, "");
    }
    ~ServerStorage() override {
        if (ServerStorage::hasLate()) {
            ServerStorage::makeLate();
        }
    }
    ServerStorage(const ServerStorage&) = delete;
    ServerStorage& operator=(const ServerStorage&) = delete;

    void loseAnswer(std::size_t process, Store& /*store*/, Lost lost) override {
        if (lost == Lost::ANSWER) {
            proxies_.at(process).cutAtCommit();
        } else {
            proxies_.at(process).holdAtCommit();
        }
    }
    bool hasLate() const override {
        return std::ranges::any_of(proxies_, &fleet::CuttingProxy::hasLate);
    }
    void makeLate() override {
        std::ranges::find_if(proxies_, &fleet::CuttingProxy::hasLate)->makeLate();
    }
    void lock() override {
        locker_.execute("BEGIN; UPDATE logs SET seen = seen WHERE blade = 'BLADE-1'");
    }
    void letGo() override { locker_.execute("ROLLBACK"); }
    void endLosing(std::size_t process) override { proxies_.at(process).letPass(); }
    void endStalled() override {
        admin_.execute("SELECT pg_terminate_backend(pid, 1000) FROM pg_stat_activity "
                       "WHERE application_name = 'evarchiver' AND state = 'idle in transaction'");
    }
    Store& look() override { return look_; }

  private:
    // All is done by one thread: a lock that is not free at once is not for long.
    static constexpr PgPatience PATIENCE{std::chrono::seconds(20), std::chrono::milliseconds(20)};

    std::string place_;
    Proxies& proxies_;
    PgConnection admin_{place_};
    PgConnection locker_{place_, {std::chrono::seconds(20), std::chrono::seconds(10)}};
    PgStore look_{place_, PATIENCE, ""};
};

class PgSchedulesTest : public testing::Test {
  protected:
    static constexpr std::array<Bounds, 11> BOUNDS = {
        Bounds{.processes = 2, .log = 4, .rebuilds = 2, .connects = 4, .failures = 2},
        Bounds{.processes = 2, .log = 4, .connects = 4, .failures = 2, .isUnderWay = true},
        Bounds{.processes = 2, .connects = 4, .isSlow = true},
        Bounds{.processes = 2, .connects = 4, .isUnderWay = true, .isSlow = true, .damaged = 1},
        Bounds{.processes = 2, .connects = 4, .isUnderWay = true, .expired = 2},
        Bounds{.processes = 2,
               .log = 5,
               .connects = 4,
               .isUnderWay = true,
               .missed = 2,
               .overwritten = 2},
        Bounds{.processes = 2, .connects = 4, .isUnderWay = true, .hasNeighbour = true},
        Bounds{.processes = 2, .log = 4, .connects = 4, .isUnderWay = true, .sheddings = 2},
        Bounds{.processes = 2, .log = 4, .connects = 4, .isUnderWay = true, .locks = 2},
        Bounds{.processes = 2, .log = 4, .connects = 5, .isUnderWay = true, .lateCommits = 2},
        Bounds{.processes = 2,
               .log = 4,
               .connects = 5,
               .isUnderWay = true,
               .isSlow = true,
               .sheddings = 1,
               .locks = 1,
               .lateCommits = 1,
               .hasNeighbour = true}};

    static unsigned numberFrom(const char* variable, unsigned otherwise) {
        const char* value = getenv(variable); // NOLINT(concurrency-mt-unsafe)
        return value != nullptr ? static_cast<unsigned>(std::stoul(value)) : otherwise;
    }

    unsigned draw(std::size_t below) { return static_cast<unsigned>(random_() % below); }

    /** What one of the two cannot do, because it was held up, neither does. */
    std::optional<unsigned> drawAction(const World& model, const World& real) {
        std::vector<unsigned> possible;
        for (unsigned action = 0; action < model.actions(); ++action) {
            if (model.can(action) && real.can(action)) {
                possible.push_back(action);
            }
        }
        return possible.empty() ? std::nullopt : std::optional(possible[draw(possible.size())]);
    }

    static void end(World& world, unsigned how) {
        if (how == 2) {
            world.stay();
        } else {
            world.finish(how == 1);
        }
        world.expectAllIsThere();
    }

    void go(const Bounds& bounds) {
        World model(bounds);
        World real(bounds, std::make_unique<ServerStorage>(place_, proxies_));
        std::string way;
        for (unsigned step = 4 + draw(12); step > 0; --step) {
            const auto action = drawAction(model, real);
            if (!action) {
                break;
            }
            way += ' ' + std::to_string(*action);
            SCOPED_TRACE("actions" + way);
            model.act(*action);
            real.act(*action);
        }
        const unsigned how = draw(model.isConnected() && real.isConnected() ? 3 : 2);
        SCOPED_TRACE("actions" + way + ", end " + std::to_string(how));
        expectSameEnd(model, real, how);
    }

    void expectSameEnd(World& model, World& real, unsigned how) {
        end(model, how);
        end(real, how);
        heldUp_ += real.wasHeldUp() ? 1 : 0;
        EXPECT_EQ(real.heldText(), model.heldText());
    }

    /** All of them, and the blade stays where it is. */
    void stayBehind(const Bounds& bounds, const std::vector<unsigned>& way) {
        World model(bounds);
        World real(bounds, std::make_unique<ServerStorage>(place_, proxies_));
        for (const unsigned action : way) {
            ASSERT_TRUE(model.can(action) && real.can(action)) << "action " << action;
            model.act(action);
            real.act(action);
        }
        expectSameEnd(model, real, 2);
    }

    static constexpr unsigned at(unsigned process, ProcessAction action) {
        return BLADE_ACTIONS + process * PROCESS_ACTIONS + action;
    }

    std::string place_ = fleet::emptyArchive();
    Proxies proxies_{fleet::CuttingProxy(fleet::server().socketDirectory()),
                     fleet::CuttingProxy(fleet::server().socketDirectory())};
    std::mt19937 random_;
    unsigned heldUp_ = 0;
};

} // namespace

TEST_F(PgSchedulesTest, NothingIsLostOrStoredTwiceInOrdersThatAreDrawn) {
    const unsigned ways = numberFrom("FLEET_SCHEDULES", 25);
    const unsigned seed = numberFrom("FLEET_SEED", 1);
    for (unsigned way = 0; way < ways; ++way) {
        random_.seed(seed + way);
        SCOPED_TRACE("FLEET_SCHEDULES=1 FLEET_SEED=" + std::to_string(seed + way));
        go(BOUNDS.at(draw(BOUNDS.size())));
    }
    std::cout << ways << " orders from seed " << seed << ", " << heldUp_
              << " of them held up by a lock\n";
}

TEST_F(PgSchedulesTest, LinkThatFoundNoRoomLeavesNoHole) {
    stayBehind({.processes = 2, .isUnderWay = true, .sheddings = 1},
               {LOG, SHED, at(1, CONNECT), at(1, WORK)});
}

TEST_F(PgSchedulesTest, LogThatSomebodyKeepsLockedGoesOnWhenHeLetsGo) {
    stayBehind({.processes = 2, .isUnderWay = true, .locks = 1},
               {LOG, LOCK, SEND, at(0, WORK), at(0, COMMIT), at(0, WORK), CUT, at(1, CONNECT),
                at(1, WORK), LET_GO, at(0, WORK)});
    EXPECT_EQ(heldUp_, 1U);
}

TEST_F(PgSchedulesTest, CommitThatIsMadeWhenTheBladeIsOnAnotherArchiverIsThereOnce) {
    stayBehind({.processes = 2, .isUnderWay = true, .lateCommits = 1},
               {LOG, SEND, at(0, WORK), at(0, FAIL_LATE), CUT, at(1, CONNECT), at(1, WORK),
                at(0, WORK), at(0, COMMIT), MAKE_LATE_COMMIT, at(1, WORK)});
    EXPECT_EQ(heldUp_, 1U);
}
