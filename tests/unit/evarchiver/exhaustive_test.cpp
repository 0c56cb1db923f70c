/**
 * All orders in which one blade and the archive's rules can act on each other, up to a bound: the
 * real archive over a storage in memory, in one process that owns it and in two that share it.
 *
 * From every state that can be reached, the blade is let go on until it has sent everything: then
 * the newest generation is its log, event for event, and no event that was ever safe is gone.
 */
#include "exhaustive_world.h"

#include <unordered_set>

using namespace exhaustive;

namespace {

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
                    const auto world = after(bounds, further);
                    hasClaimedTogether_ = hasClaimedTogether_ || world->hasClaimedTogether();
                    if (seen.insert(world->text()).second) {
                        next.push_back(std::move(further));
                    }
                }
                expectGoodEnd(bounds, way);
            }
            level = std::move(next);
        }
        return seen.size();
    }

    bool hasClaimedTogether_ = false;

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
    EXPECT_GT(states, 300U);
    EXPECT_EQ(hasClaimedTogether_, bounds.hasNeighbour); // another log waits beside the blade's
    RecordProperty("states", std::to_string(states));
}

INSTANTIATE_TEST_SUITE_P(
    Processes, ExhaustiveTest,
    testing::Values(
        Bounds{.processes = 1, .depth = 7}, Bounds{.processes = 1, .depth = 8, .isUnderWay = true},
        Bounds{.processes = 2, .depth = 6}, Bounds{.processes = 2, .depth = 6, .isUnderWay = true},
        Bounds{.processes = 2, .depth = 5, .isSlow = true},
        Bounds{.processes = 1, .depth = 6, .isUnderWay = true, .isSlow = true, .damaged = 1},
        Bounds{.processes = 2, .depth = 5, .isUnderWay = true, .isSlow = true, .damaged = 1},
        Bounds{.processes = 1,
               .log = 4,
               .depth = 6,
               .isUnderWay = true,
               .missed = 2,
               .overwritten = 2},
        Bounds{.processes = 2,
               .log = 4,
               .depth = 5,
               .isUnderWay = true,
               .missed = 2,
               .overwritten = 1},
        Bounds{.processes = 1, .depth = 6, .isUnderWay = true, .expired = 2},
        Bounds{.processes = 2, .depth = 5, .isUnderWay = true, .expired = 2},
        Bounds{.processes = 2, .depth = 4, .isUnderWay = true, .hasNeighbour = true}),
    [](const auto& bounds) {
        return std::string(bounds.param.processes == 1 ? "OneOwns" : "TwoShare") +
               (bounds.param.isUnderWay ? "UnderWay" : "") + (bounds.param.isSlow ? "Slowly" : "") +
               (bounds.param.damaged > 0 ? "Damaged" : "") +
               (bounds.param.overwritten > 0 ? "Overwriting" : "") +
               (bounds.param.expired > 0 ? "Expiring" : "") +
               (bounds.param.hasNeighbour ? "BesideAnother" : "");
    });
