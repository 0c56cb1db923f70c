#include "evfleet/fleet.h"

#include "../evarchiver/engine.h"

#include <algorithm>
#include <sys/resource.h>

namespace evfleet {
namespace {

using namespace std::chrono_literals;

constexpr auto STEP = 20ms;         // of logging and looking
constexpr auto CHECK_PAUSE = 500ms; // between two looks into the archive
// An archiver takes 15 s to be sure of an event with nothing behind it.
constexpr auto LONGEST_CHECK_PAUSE = 18000ms;
constexpr auto FOREVER = std::chrono::hours(24 * 365);

double secondsSince(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Each link takes a descriptor, each abandoned one too.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// How often something happens to one blade that on average happens @p mean times.
U32_t drawCount(double mean, std::mt19937_64& random) {
    return mean > 0 ? std::poisson_distribution<U32_t>(mean)(random) : 0;
}

} // namespace

Fleet::Fleet(FleetOptions options, Say say) : options_(std::move(options)), say_(std::move(say)) {
    raiseDescriptorLimit();
    if (!options_.check.empty()) {
        evarchive::readerOf(options_.check); // not after an hour's run
    }
    context_.archivers = options_.archivers;
    context_.reconnect = options_.reconnect;
    context_.oneByOne = options_.oneByOne;
    context_.random.seed(options_.shape.seed);
    for (U32_t blade = 0; blade < options_.blades; ++blade) {
        blades_.emplace_back(context_, SimulatedLog(options_.shape, blade));
    }
    plans_.resize(options_.blades);
    planOutages();
}

void Fleet::planOutages() {
    for (std::size_t blade = 0; blade < blades_.size(); ++blade) {
        Plan& plan = plans_[blade];
        for (U32_t i = drawCount(options_.rebuilds, context_.random); i > 0; --i) {
            plan.rebuildAt.push_back(static_cast<U32_t>(context_.random() % (options_.events + 1)));
        }
        std::ranges::sort(plan.rebuildAt, std::greater<>());
    }
}

void Fleet::connectSome() {
    const double due = options_.ramp > 0 ? secondsSince(begin_) * options_.ramp
                                         : static_cast<double>(blades_.size());
    while (connecting_ < blades_.size() && static_cast<double>(connecting_) < due) {
        blades_[connecting_++].connect();
    }
}

U32_t Fleet::dueEvents() const {
    const double due = options_.rate > 0 ? secondsSince(logBegin_) * options_.rate
                                         : static_cast<double>(options_.events);
    return static_cast<U32_t>(std::min(due, static_cast<double>(options_.events)));
}

void Fleet::logTo(std::size_t blade, U32_t count) {
    Plan& plan = plans_[blade];
    BladeLink& link = blades_[blade];
    // One outage at a time, spread over the events by chance.
    const double chance = options_.outages * count / std::max(options_.events, 1U);
    if (U32_t cuts = drawCount(chance, context_.random); cuts > 0) {
        const auto outage = static_cast<Outage>(context_.random() % OUTAGE_KINDS);
        link.cutAfter(1 + context_.random() % count, outage);
    }
    plan.logged += count;
    link.logEvents(count);
}

void Fleet::logSome() {
    const U32_t due = dueEvents();
    for (std::size_t blade = 0; blade < blades_.size(); ++blade) {
        Plan& plan = plans_[blade];
        while (plan.logged < due || (!plan.rebuildAt.empty() && plan.rebuildAt.back() <= due)) {
            const bool isRebuilt = !plan.rebuildAt.empty() && plan.rebuildAt.back() <= due;
            const U32_t until = isRebuilt ? plan.rebuildAt.back() : due;
            if (until > plan.logged) {
                // In pieces, so that outages fall between them as well.
                logTo(blade, std::min(until - plan.logged, std::max(options_.events / 8, 1U)));
            }
            if (isRebuilt && plan.logged >= until) {
                plan.rebuildAt.pop_back();
                blades_[blade].rebuild();
            }
        }
    }
}

bool Fleet::areAllOpen() const {
    return std::ranges::all_of(blades_, &BladeLink::isOpen);
}

bool Fleet::areAllCaughtUp() const {
    return std::ranges::all_of(blades_, &BladeLink::isCaughtUp);
}

bool Fleet::isAllLogged() const {
    return std::ranges::all_of(plans_, [this](const Plan& plan) {
        return plan.logged >= options_.events && plan.rebuildAt.empty();
    });
}

U32_t Fleet::openCount() const {
    return static_cast<U32_t>(std::ranges::count_if(blades_, &BladeLink::isOpen));
}

void Fleet::runUntil(const std::function<bool()>& done, Clock::time_point deadline,
                     const std::function<void()>& step) {
    while (!done() && Clock::now() < deadline) {
        step();
        context_.io.restart();
        context_.io.run_for(STEP);
        if (options_.progress.count() > 0 && Clock::now() >= nextProgress_) {
            sayProgress();
            nextProgress_ = Clock::now() + options_.progress;
        }
    }
}

void Fleet::sayProgress() {
    const FleetCounts& counts = context_.counts;
    const U64_t news = counts.sent - saidSent_;
    saidSent_ = counts.sent;
    say_(std::to_string(static_cast<U64_t>(secondsSince(begin_))) +
         " s: " + std::to_string(openCount()) + " of " + std::to_string(blades_.size()) +
         " links open, " + std::to_string(counts.sent) + " events sent (" + std::to_string(news) +
         " new), " + std::to_string(counts.handshakes) + " status answers, " +
         std::to_string(counts.outages) + " outages");
}

// An archive that is away for a moment may be back before the deadline.
void Fleet::checkOnce(FleetResult& result, Clock::time_point deadline) {
    for (;;) {
        try {
            result.check = checkContent(options_.check, options_.shape.enclosure, options_.blades,
                                        [this](U32_t blade) { return &blades_[blade].log(); });
            result.isChecked = true;
            return;
        } catch (const evarchive::StoreError&) {
            if (Clock::now() >= deadline) {
                throw;
            }
        }
        pause(CHECK_PAUSE);
    }
}

// Before any blade asks anew: what had been claimed and is gone would be sent again, and nobody
// knew.
void Fleet::lookForClaimed(FleetResult& result) {
    if (options_.check.empty()) {
        return;
    }
    const auto deadline = Clock::now() + options_.settle;
    for (;;) {
        checkOnce(result, deadline);
        result.lost = result.check.unkept;
        if (result.lost == 0 || Clock::now() >= deadline) {
            return;
        }
        pause(CHECK_PAUSE);
    }
}

void Fleet::pause(std::chrono::milliseconds time) {
    runUntil([] { return false; }, Clock::now() + time, [] {});
}

void Fleet::settle(FleetResult& result) {
    const auto deadline = Clock::now() + options_.settle;
    const auto nothing = [] {};
    const auto settled = [this] { return areAllCaughtUp(); };
    std::chrono::milliseconds time = CHECK_PAUSE;
    do {
        // A new link makes the archiver say what it holds; what it does not, comes again.
        for (BladeLink& blade : blades_) {
            blade.reconnectNow();
        }
        runUntil(settled, deadline, nothing);
        if (options_.check.empty()) {
            break;
        }
        pause(time);
        time = std::min<std::chrono::milliseconds>(4 * time, LONGEST_CHECK_PAUSE);
        checkOnce(result, deadline);
    } while (!result.check.isClean() && Clock::now() < deadline);
    result.unsettled = static_cast<U32_t>(
        std::ranges::count_if(blades_, [](const BladeLink& blade) { return !blade.isCaughtUp(); }));
}

FleetResult Fleet::run() {
    FleetResult result;
    const auto never = Clock::now() + FOREVER;
    begin_ = Clock::now();
    const auto settleDeadline = options_.settle;
    runUntil([this] { return connecting_ == blades_.size() && areAllOpen(); },
             options_.ramp > 0 ? never : begin_ + settleDeadline, [this] { connectSome(); });
    result.connectSeconds = secondsSince(begin_);
    logBegin_ = Clock::now();
    const auto logged = [this] { return isAllLogged(); };
    runUntil(logged, never, [this] { logSome(); });
    runUntil([this] { return areAllCaughtUp(); }, Clock::now() + settleDeadline, [] {});
    result.sendSeconds = secondsSince(logBegin_);
    runUntil([] { return false; }, Clock::now() + options_.hold, [] {});
    lookForClaimed(result);
    settle(result);
    for (BladeLink& blade : blades_) {
        blade.stop();
    }
    result.counts = context_.counts;
    return result;
}

} // namespace evfleet
