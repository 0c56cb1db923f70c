#include "fleet_world.h"

#include <deque>
#include <unordered_set>

namespace fleet {
namespace {

// How a state was reached.
struct Step {
    const char* what = "";
    U8_t link = 0; // its number; 0: no certain one
    std::size_t before = 0;
};

class Search {
  public:
    Search(const Rules& rules, const Bounds& bounds, bool stopAtFault)
        : rules_(rules), bounds_(bounds), stopAtFault_(stopAtFault) {}

    Finding run() {
        State first;
        first.crashesLeft = static_cast<U8_t>(bounds_.crashes);
        reach(first, {});
        for (std::size_t at = 0; at < states_.size() && !isDone(); ++at) {
            const State state = states_[at];
            expand(state, at);
            for (const bool lateFirst : {true, false}) {
                World end(rules_, state);
                end.finish(lateFirst);
                take(end.state().faults, at, lateFirst ? "late ones first" : "the blade first");
            }
        }
        finding_.states = states_.size();
        return finding_;
    }

  private:
    bool isDone() const { return stopAtFault_ && finding_.faults != 0; }

    void take(unsigned faults, std::size_t at, const char* ending) {
        if (faults != 0 && finding_.faults == 0) {
            finding_.history = historyOf(at) + ending + ": " + nameOf(faults);
        }
        finding_.faults |= faults;
    }

    std::string historyOf(std::size_t at) const {
        std::string history;
        for (; at != 0; at = steps_[at].before) {
            const Step& step = steps_[at];
            const std::string link = step.link == 0 ? "" : " link " + std::to_string(step.link);
            history.insert(0, step.what + link + "; ");
        }
        return history;
    }

    void reach(const State& state, const Step& step) {
        states_.push_back(state);
        if (known_.insert(states_.size() - 1).second) {
            steps_.push_back(step);
        } else {
            states_.pop_back();
        }
    }

    template <typename Change>
    void tryStep(bool isPossible, const State& from, const Step& step, Change change) {
        if (!isPossible) {
            return;
        }
        World world(rules_, from);
        change(world);
        world.normalise();
        reach(world.state(), step);
    }

    void expand(const State& state, std::size_t at) {
        const World world(rules_, state);
        const bool isUp = state.present != NONE;
        const bool canConnect = !isUp && state.linksMade < bounds_.links;
        const bool canBeSilent = canConnect && state.silentLinks < bounds_.silentLinks;
        const U8_t link = isUp ? U8_t(state.present + 1) : U8_t(state.linksMade + 1);
        tryStep(state.count < bounds_.ids, state, {"log", 0, at}, [](World& w) { w.log(); });
        tryStep(state.log < bounds_.rebuilds, state, {"rebuild", 0, at},
                [](World& w) { w.rebuild(); });
        tryStep(isUp, state, {"cut", link, at}, [](World& w) { w.cut(); });
        tryStep(canConnect, state, {"connect", link, at}, [](World& w) { w.connect(false); });
        tryStep(canBeSilent, state, {"connect silent", link, at},
                [](World& w) { w.connect(true); });
        tryStep(world.canSend(), state, {"send", link, at}, [](World& w) { w.send(); });
        for (unsigned kept = 0; state.crashesLeft > 0 && kept < world.claimsAtRisk(); ++kept) {
            tryStep(true, state, {"crash", 0, at}, [kept](World& w) { w.crash(kept); });
        }
        for (unsigned number = 0; number < state.linksMade; ++number) {
            expandLink(state, at, number);
        }
    }

    void expandLink(const State& state, std::size_t at, unsigned number) {
        const World world(rules_, state);
        const U8_t link = static_cast<U8_t>(number + 1);
        const bool canCommit = world.canCommit(number);
        const bool canFail = canCommit && state.unknownCommits < bounds_.unknownCommits;
        tryStep(world.canPlan(number), state, {"look", link, at},
                [number](World& w) { w.plan(number); });
        tryStep(canCommit, state, {"commit", link, at},
                [number](World& w) { w.commit(number, Outcome::KNOWN); });
        tryStep(canFail, state, {"commit unheard of", link, at},
                [number](World& w) { w.commit(number, Outcome::DONE_UNKNOWN); });
        tryStep(canFail, state, {"commit lost", link, at},
                [number](World& w) { w.commit(number, Outcome::FAILED_UNKNOWN); });
        tryStep(world.canShed(number) && state.sheddings < bounds_.sheddings, state,
                {"shed", link, at}, [number](World& w) { w.shed(number); });
    }

    struct Hash {
        const std::deque<State>& states;
        std::size_t operator()(std::size_t at) const {
            return std::hash<std::string_view>()(keyOf(states[at]));
        }
    };
    struct Equal {
        const std::deque<State>& states;
        bool operator()(std::size_t left, std::size_t right) const {
            return keyOf(states[left]) == keyOf(states[right]);
        }
    };

    Rules rules_;
    Bounds bounds_;
    bool stopAtFault_;
    Finding finding_;
    std::deque<State> states_;
    std::deque<Step> steps_; // one for each state
    std::unordered_set<std::size_t, Hash, Equal> known_{1024, Hash{states_}, Equal{states_}};
};

} // namespace

std::string nameOf(unsigned faults) {
    static constexpr std::array<const char*, 6> NAMES = {
        "the newest generation is not the blade's log",
        "an event is lost",
        "an event is held twice",
        "two events under one id",
        "more generations than logs",
        "it never ends"};
    std::string text;
    for (unsigned i = 0; i < NAMES.size(); ++i) {
        if ((faults & (1U << i)) != 0) {
            text += (text.empty() ? "" : ", ") + std::string(NAMES[i]);
        }
    }
    return text.empty() ? "nothing" : text;
}

Finding search(const Rules& rules, const Bounds& bounds, bool stopAtFault) {
    return Search(rules, bounds, stopAtFault).run();
}

} // namespace fleet
