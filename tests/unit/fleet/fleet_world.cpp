#include "fleet_world.h"

#include "link_messages.h"

namespace fleet {
namespace {

using evarchive::Arrival;
using evarchive::Bytes;
using evarchive::Certainty;
using evarchive::Fate;
using evarchive::Place;
using evarchive::StatusVerdict;
using evarchive::View;

const Bytes& imageOf(Event event) {
    static const auto images = [] {
        std::array<Bytes, std::size_t{MOST_IDS} * MOST_LOGS> all;
        for (U32_t at = 0; at < all.size(); ++at) {
            const U32_t id = at / MOST_LOGS;
            all[at] = support::eventBody({.id = id, .time = id == 0 ? 1 : 1 + at});
        }
        return all;
    }();
    return images[static_cast<unsigned>(std::countr_zero(event.bit()))];
}

} // namespace

void World::normalise() {
    for (unsigned number = 0; number < MOST_LINKS; ++number) {
        if (state_.links[number].waiting == 0 && state_.present != number) {
            state_.links[number] = {};
            std::ranges::replace(state_.owners, U8_t(number), NONE);
        }
    }
}

// Only where a failure may follow: it would make many states of one.
void World::noteClaim(unsigned number) {
    if (state_.crashesLeft == 0) {
        return;
    }
    if (state_.ownerCount == 0) {
        const auto owner = std::ranges::find(state_.links, U8_t{1}, &Link::isOwner);
        const bool isOwned = owner != state_.links.end();
        state_.owners[0] = isOwned ? static_cast<U8_t>(owner - state_.links.begin()) : NONE;
        state_.ownerCount = 1;
    }
    state_.owners.at(state_.ownerCount++) = static_cast<U8_t>(number);
}

// A commit is on disk, and so is all that came before it.
void World::noteCommit() {
    if (rules_.keepsOrder) {
        state_.ownerCount = 0;
        state_.owners = {};
    }
}

// Archivers find out at their next commit.
void World::crash(unsigned kept) {
    --state_.crashesLeft;
    state_.hasCrashed = 1;
    const U8_t owner = state_.owners.at(kept);
    for (unsigned number = 0; number < MOST_LINKS; ++number) {
        Link& link = state_.links[number];
        link.isOwner = owner == number && link.isUsed != 0 ? 1 : 0;
        link.hasLooked = 0;
        dropPlan(link);
    }
    state_.ownerCount = 0;
    state_.owners = {};
}

void World::connect(bool isSilent) {
    const U8_t number = state_.linksMade++;
    Link& link = state_.links[number];
    link.isUsed = 1;
    state_.present = number;
    state_.next = 0;
    if (isSilent) {
        ++state_.silentLinks;
        return;
    }
    noteClaim(number);
    for (Link& other : state_.links) {
        other.isOwner = 0;
    }
    link.claims = link.isOwner = 1;
    look(link);
    const StatusVerdict verdict = verdictFor(link);
    const bool isBeyond = verdict.sequenceIdLast >= state_.count;
    if (verdict != evarchive::NOTHING_HELD && !isBeyond) {
        state_.next = static_cast<U8_t>(verdict.sequenceIdLast + 1);
    }
}

void World::send() {
    Link& link = state_.links[state_.present];
    if (link.waiting == link.queue.size()) {
        state_.faults |= ENDLESS;
        return;
    }
    const Event event{state_.log, state_.next++};
    link.queue[link.waiting++] = event;
    state_.received = static_cast<EventSet>(state_.received | event.bit());
}

void World::shed(unsigned number) {
    ++state_.sheddings;
    Link& link = state_.links[number];
    const U8_t kept = rules_.shedsWholeLinks ? link.planned : U8_t(link.waiting - 1);
    for (; link.waiting > kept; --link.waiting) {
        link.queue[link.waiting - 1U] = {};
    }
    if (rules_.shedsWholeLinks && state_.present == number) {
        cut();
    }
    forgetShed();
}

void World::put(const Planned& planned, Seen& seen) {
    const EventSet bit = static_cast<EventSet>(eventOf(planned).bit());
    const unsigned replaced =
        planned.replaces != 0 ? unsigned{seen.doubtful} & bitsOf(planned.id) : 0U;
    seen.held = static_cast<EventSet>((seen.held & ~replaced) | bit);
    seen.doubtful =
        static_cast<EventSet>((seen.doubtful & ~replaced) | (planned.isDoubtful != 0 ? bit : 0));
}

World::Seen World::seenBy(const Link& link) const {
    Seen seen;
    if (link.generation <= state_.generation) {
        seen = {heldIn(link.generation), doubtfulIn(link.generation)};
    }
    for (unsigned i = 0; i < link.planned; ++i) {
        if (link.plan[i].generation == link.generation && link.generation != 0) {
            put(link.plan[i], seen);
        }
    }
    return seen;
}

void World::look(Link& link) const {
    link.generation = state_.generation;
    link.hasLooked = 1;
    link.isOutdated = 0;
    const EventSet held = heldIn(link.generation);
    link.highest =
        held == 0 ? NONE : static_cast<U8_t>((std::bit_width(unsigned{held}) - 1U) / MOST_LOGS);
}

StatusVerdict World::verdictFor(const Link& link) const {
    unsigned held = unsigned{heldIn(link.generation)} & ~unsigned{doubtfulIn(link.generation)};
    if (!rules_.claimsCommitted) {
        for (const Link& other : state_.links) {
            held |= other.isUsed != 0 ? seenBy(other).held : 0U;
        }
    }
    Place place;
    const auto first = firstOf(held, 0);
    if (first) {
        place.image = View(imageOf(*first));
    }
    static const auto request =
        evarchive::imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, 0, {1, 2, 3}));
    if (!isSameLog(request, place)) {
        return evarchive::NOTHING_HELD;
    }
    U8_t last = 0;
    while (firstOf(held, static_cast<U8_t>(last + 1))) {
        ++last;
    }
    return evarchive::claimOf({0, last});
}

// An event whose blade has opened a later link.
Planned World::planLate(const Link& link, Event event) const {
    Planned planned = plannedOf(event);
    if (isHeldAnywhere(event) || rules_.late == Late::DROP) {
        return planned;
    }
    if (rules_.late == Late::FILE && link.generation != 0 &&
        !firstOf(heldIn(link.generation), event.id)) {
        planned.generation = link.generation & 15U;
        return planned;
    }
    planned.aside = rules_.late == Late::FILE ? 0 : 1;
    return planned;
}

Planned World::planFor(Link& link, Event event) const {
    Place place;
    if (link.highest != NONE && event.id <= link.highest) {
        const Seen seen = seenBy(link);
        if (const auto held = firstOf(seen.held, event.id)) {
            place.image = View(imageOf(*held));
            place.isDoubtful = (seen.doubtful & held->bit()) != 0;
        }
    }
    Planned planned = plannedOf(event);
    const bool isSure = link.claims != 0 || !rules_.doubtsSilentLinks;
    const Arrival arrival{imageOf(event), isSure ? Certainty::CERTAIN : Certainty::ENDED};
    planned.isDoubtful = isSure ? 0 : 1;
    switch (fateOf(arrival, place)) {
    case Fate::LEAVE:
    case Fate::DUPLICATE:
        return planned;
    case Fate::SET_ASIDE:
        planned.aside = 1;
        return planned;
    case Fate::OPEN_GENERATION:
        planned.opens = 1;
        break;
    case Fate::CONFIRM:
    case Fate::REPLACE:
        planned.replaces = 1;
        break;
    default:
        planned.opens = link.generation == 0 ? 1 : 0;
        break;
    }
    if (planned.opens != 0) {
        ++link.generation;
        link.highest = NONE;
    }
    planned.generation = link.generation & 15U;
    link.highest = link.highest == NONE ? event.id : std::max(link.highest, event.id);
    return planned;
}

void World::plan(unsigned number) {
    Link& link = state_.links[number];
    if (link.hasLooked == 0) {
        look(link);
    }
    const Event event = link.queue[link.planned];
    link.plan[link.planned] = link.isOvertaken != 0 ? planLate(link, event) : planFor(link, event);
    ++link.planned;
}

// What the transaction asks first, with the log's row locked.
bool World::isUpToDate(Link& link) const {
    if (link.isFenced()) {
        if (link.isOwner == 0 && rules_.late != Late::FILE_AND_OPEN) {
            link.isOvertaken = 1;
            return false;
        }
        return !(link.isOutdated != 0 && rules_.tellsOwner);
    }
    if (link.isOvertaken != 0) {
        return true;
    }
    for (unsigned i = 0; i < link.planned; ++i) {
        const Planned& planned = link.plan[i];
        const unsigned replaced = planned.replaces != 0 ? doubtfulIn(planned.generation) : 0U;
        const bool isTaken =
            planned.opens == 0 && planned.generation != 0 &&
            firstOf(heldIn(planned.generation) & ~replaced, planned.id).has_value();
        const bool hasMoved = planned.generation != 0 && planned.generation < state_.generation;
        if (rules_.looksAgain && (isTaken || hasMoved)) {
            return false;
        }
    }
    return true;
}

void World::apply(Link& link, const Planned& planned, unsigned number) {
    const Event event = eventOf(planned);
    if (planned.aside != 0) {
        state_.aside = static_cast<EventSet>(state_.aside | event.bit());
    }
    if (planned.generation == 0) {
        return;
    }
    state_.generation = std::max(state_.generation, planned.generation);
    Seen seen{heldIn(planned.generation), doubtfulIn(planned.generation)};
    const EventSet before = seen.held;
    put(planned, seen);
    state_.held.at(planned.generation - 1U) = seen.held;
    state_.doubtful.at(planned.generation - 1U) = seen.doubtful;
    state_.aside = static_cast<EventSet>(state_.aside | (before & ~seen.held));
    if (!link.isFenced()) {
        for (unsigned other = 0; other < MOST_LINKS; ++other) {
            state_.links[other].isOutdated = other != number && state_.links[other].isUsed != 0
                                                 ? 1
                                                 : state_.links[other].isOutdated;
        }
    }
}

// The archiver does so when it knows that its commit went well.
void World::tellToResend(Link& link, unsigned number) {
    link.owesResend = 0;
    if (state_.present == number && link.hasResent == 0) {
        link.hasResent = 1;
        state_.next = 0;
    }
}

void World::dropDone(Link& link) const {
    const U8_t left = static_cast<U8_t>(link.waiting - link.planned);
    for (U8_t i = 0; i < link.waiting; ++i) {
        link.queue[i] = i < left ? link.queue[i + link.planned] : Event{};
    }
    link.waiting = left;
    dropPlan(link);
}

void World::closeOvertaken(unsigned number) {
    if (state_.links[number].isOvertaken != 0 && state_.present == number) {
        cut();
    }
}

// A generation is opened only behind the one that the plan knew.
bool World::opensBehind(const Link& link) const {
    return std::none_of(link.plan.begin(), link.plan.begin() + link.planned, [this](Planned plan) {
        return plan.opens != 0 && plan.generation <= state_.generation;
    });
}

void World::commit(unsigned number, Outcome outcome) {
    Link& link = state_.links[number];
    state_.unknownCommits =
        static_cast<U8_t>(state_.unknownCommits + (outcome == Outcome::KNOWN ? 0 : 1));
    if (!isUpToDate(link) || !opensBehind(link)) {
        dropPlan(link);
        look(link);
        closeOvertaken(number);
        return;
    }
    if (outcome != Outcome::FAILED_UNKNOWN) {
        noteCommit();
    }
    for (unsigned i = 0; outcome != Outcome::FAILED_UNKNOWN && i < link.planned; ++i) {
        if (state_.generation + 1U > MOST_GENERATIONS && link.plan[i].opens != 0) {
            state_.faults |= TOO_MANY_GENERATIONS;
            break;
        }
        apply(link, link.plan[i], number);
    }
    const bool opens =
        std::any_of(link.plan.begin(), link.plan.begin() + link.planned,
                    [](Planned plan) { return plan.opens != 0 && plan.generation > 1; });
    if (outcome == Outcome::KNOWN || !rules_.repeatsUnknown) {
        if (opens || link.owesResend != 0) {
            tellToResend(link, number);
        }
        dropDone(link);
        return;
    }
    link.owesResend = (opens && rules_.remembersResend) || link.owesResend != 0 ? 1 : 0;
    dropPlan(link);
    look(link);
}

// What was shed counts as never received, unless it waits or is held somewhere else.
void World::forgetShed() {
    EventSet there = state_.aside;
    for (const EventSet held : state_.held) {
        there = static_cast<EventSet>(there | held);
    }
    for (const Link& link : state_.links) {
        for (unsigned i = 0; i < link.waiting; ++i) {
            there = static_cast<EventSet>(there | link.queue[i].bit());
        }
    }
    state_.received = static_cast<EventSet>(state_.received & there);
}

void World::drain(unsigned number) {
    for (int rounds = 0; state_.links[number].waiting > 0; ++rounds) {
        if (rounds == 50) {
            state_.faults |= ENDLESS;
            return;
        }
        while (canPlan(number)) {
            plan(number);
        }
        commit(number, Outcome::KNOWN);
    }
}

void World::drainLate() {
    for (unsigned number = 0; number < MOST_LINKS; ++number) {
        if (number != state_.present) {
            drain(number);
        }
    }
}

// The blade sends all that it has, over the link that it has, if that will do.
void World::catchUp() {
    for (int rounds = 0; rounds < 50; ++rounds) {
        if (state_.present == NONE || state_.links[state_.present].claims == 0) {
            normalise();
            state_.linksMade = 0;
            while (state_.links[state_.linksMade].isUsed != 0) {
                ++state_.linksMade;
            }
            connect(false);
        }
        while (canSend() && state_.links[state_.present].waiting < MOST_IDS) {
            send();
        }
        drain(state_.present);
        if (state_.present != NONE && !canSend()) {
            return;
        }
    }
    state_.faults |= ENDLESS;
}

// From here the world stands still: everything arrives, and the blade logs once more; where the
// server has forgotten its claim, it takes an event to find that out, and another one.
void World::finish(bool lateFirst) {
    state_.crashesLeft = 0;
    if (lateFirst) {
        drainLate();
    }
    catchUp();
    for (int more = state_.hasCrashed != 0 ? 2 : 1; more > 0; --more) {
        log();
        catchUp();
    }
    drainLate();
    judge();
}

void World::judge() {
    EventSet all = state_.aside;
    EventSet seen = 0;
    for (unsigned generation = 1; generation <= MOST_GENERATIONS; ++generation) {
        const EventSet held = heldIn(generation);
        const EventSet sure = static_cast<EventSet>(held & ~unsigned{doubtfulIn(generation)});
        state_.faults = static_cast<U8_t>(state_.faults | ((seen & sure & ~1U) != 0 ? TWICE : 0U));
        seen = static_cast<EventSet>(seen | sure);
        all = static_cast<EventSet>(all | held);
        for (unsigned id = 0; id < MOST_IDS; ++id) {
            if (std::popcount(unsigned{held} & bitsOf(id)) > 1) {
                state_.faults |= TWO_UNDER_ONE_ID;
            }
        }
    }
    if ((state_.received & ~all) != 0) {
        state_.faults |= LOST;
    }
    for (U8_t id = 0; id < state_.count; ++id) {
        if ((heldIn(state_.generation) & Event{state_.log, id}.bit()) == 0) {
            state_.faults |= NOT_THE_BLADES_LOG;
        }
    }
    if (state_.generation > state_.log + 1U) {
        state_.faults |= TOO_MANY_GENERATIONS;
    }
}

} // namespace fleet
