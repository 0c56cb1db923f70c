/**
 * @file
 * A state of the fleet's model, and the steps that lead from one to another.
 */
#ifndef FLEET_WORLD_H
#define FLEET_WORLD_H

#include "fleet_model.h"

#include "rules.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string_view>
#include <type_traits>

namespace fleet {

constexpr U8_t NONE = 0xFF;
constexpr unsigned MOST_LOGS = 2;

// An event: which of the blade's logs, and the id. The first event of all logs is the same one.
struct Event {
    U8_t log = 0;
    U8_t id = 0;

    unsigned bit() const { return 1U << (id * MOST_LOGS + (id == 0 ? 0 : log)); }
};

// Sets of events are bits, so that a state is small and can be compared.
using EventSet = U16_t;
static_assert(MOST_IDS * MOST_LOGS <= 16);

struct Planned {
    U8_t log : 4 = 0;
    U8_t id : 4 = 0;
    U8_t generation : 4 = 0; // it is filed there; 0: it is held already, or was set aside
    U8_t opens : 1 = 0;      // the generation is opened for it
    U8_t isDoubtful : 1 = 0;
    U8_t replaces : 1 = 0; // what is doubtful under its id makes room
    U8_t aside : 1 = 0;
};

inline Planned plannedOf(Event event) {
    Planned planned;
    planned.log = event.log & 15U;
    planned.id = event.id & 15U;
    return planned;
}

inline Event eventOf(const Planned& planned) {
    return {planned.log, planned.id};
}

// A link, as its archiver knows it.
struct Link {
    U8_t isUsed = 0;
    U8_t claims = 0;      // it has sent a status request
    U8_t isOwner = 0;     // and its claim is the log's last one
    U8_t isOvertaken = 0; // the archiver knows that it is not
    U8_t hasLooked = 0;   // what follows is known
    U8_t isOutdated = 0;  // but another one has filed without a claim since
    U8_t generation = 0;
    U8_t highest = NONE;
    U8_t hasResent : 4 = 0;
    U8_t owesResend : 4 = 0; // a generation was opened by a commit of unknown outcome
    U8_t waiting = 0;
    U8_t planned = 0; // of those that wait
    std::array<Event, std::size_t{MOST_IDS}* 2> queue = {};
    std::array<Planned, std::size_t{MOST_IDS}* 2> plan = {};

    bool isFenced() const { return claims != 0 && isOvertaken == 0; }
};

struct State {
    // The blade.
    U8_t log = 0;
    U8_t count = 1; // ids 0 to count - 1
    U8_t present = NONE;
    U8_t next = 0;
    // The archive.
    U8_t generation = 0;
    U8_t hasCrashed = 0;
    EventSet aside = 0;
    std::array<EventSet, MOST_GENERATIONS> held = {};     // from generation 1 on
    std::array<EventSet, MOST_GENERATIONS> doubtful = {}; // of those
    // What has happened.
    EventSet received = 0;
    U8_t linksMade = 0;
    U8_t silentLinks = 0;
    U8_t unknownCommits = 0;
    U8_t sheddings = 0;
    U8_t faults = 0;
    U8_t crashesLeft = 0;
    std::array<Link, MOST_LINKS> links = {};
    U8_t ownerCount = 0;
    // Who has claimed the log since the last commit, and before them who it belonged to.
    std::array<U8_t, MOST_LINKS + 1> owners = {};
};
static_assert(std::has_unique_object_representations_v<State>);

inline std::string_view keyOf(const State& state) {
    return {reinterpret_cast<const char*>(&state), sizeof(state)};
}

inline EventSet bitsOf(unsigned id) {
    return static_cast<EventSet>(((1U << MOST_LOGS) - 1) << (id * MOST_LOGS));
}

// Of a commit: what has become of it, and whether its archiver learns of it.
enum class Outcome : U8_t { KNOWN, DONE_UNKNOWN, FAILED_UNKNOWN };

// The archive and the blade in one history; each step is one of the functions.
class World {
  public:
    World(const Rules& rules, const State& state) : rules_(rules), state_(state) {}

    const State& state() const { return state_; }

    void log() { ++state_.count; }

    void rebuild() {
        ++state_.log;
        state_.count = 1;
        cut();
    }

    void cut() {
        state_.present = NONE;
        state_.next = 0;
    }

    void connect(bool isSilent);

    bool canSend() const { return state_.present != NONE && state_.next < state_.count; }

    void send();

    bool canPlan(unsigned number) const {
        const Link& link = state_.links[number];
        return link.planned < link.waiting;
    }

    void plan(unsigned number);

    bool canCommit(unsigned number) const { return state_.links[number].planned > 0; }

    void commit(unsigned number, Outcome outcome);

    bool canShed(unsigned number) const { return canPlan(number); }

    // What is planned is on its way and may yet commit.
    void shed(unsigned number);

    // Claims that nothing was committed behind.
    unsigned claimsAtRisk() const { return state_.ownerCount > 0 ? state_.ownerCount - 1U : 0U; }

    // The server fails. @param kept how many of those claims it still knows of
    void crash(unsigned kept);

    // Links that hold nothing any more are alike.
    void normalise();

    void finish(bool lateFirst);

  private:
    EventSet heldIn(unsigned generation) const {
        return generation == 0 ? EventSet{0} : state_.held.at(generation - 1U);
    }
    EventSet doubtfulIn(unsigned generation) const {
        return generation == 0 ? EventSet{0} : state_.doubtful.at(generation - 1U);
    }

    struct Seen {
        EventSet held = 0;
        EventSet doubtful = 0;
    };

    static void put(const Planned& planned, Seen& seen);

    // What the archive knows of the log, with what the link is about to file itself.
    Seen seenBy(const Link& link) const;

    void look(Link& link) const;

    // The first of the events under an id, as a database would give any of them.
    static std::optional<Event> firstOf(unsigned set, U8_t id) {
        const unsigned found = set & bitsOf(id);
        if (found == 0) {
            return std::nullopt;
        }
        return Event{static_cast<U8_t>(std::countr_zero(found) % int{MOST_LOGS}), id};
    }

    evarchive::StatusVerdict verdictFor(const Link& link) const;

    bool isHeldAnywhere(Event event) const {
        EventSet all = 0;
        for (const EventSet held : state_.held) {
            all = static_cast<EventSet>(all | held);
        }
        return (all & event.bit()) != 0;
    }

    Planned planLate(const Link& link, Event event) const;
    Planned planFor(Link& link, Event event) const;
    bool isUpToDate(Link& link) const;
    bool opensBehind(const Link& link) const;
    void apply(Link& link, const Planned& planned, unsigned number);
    void tellToResend(Link& link, unsigned number);
    void dropPlan(Link& link) const {
        link.planned = 0;
        link.plan = {};
    }
    void dropDone(Link& link) const;
    void noteClaim(unsigned number);
    void noteCommit();
    void closeOvertaken(unsigned number);
    void forgetShed();
    void drain(unsigned number);
    void drainLate();
    void catchUp();
    void judge();

    Rules rules_;
    State state_;
};

} // namespace fleet

#endif
