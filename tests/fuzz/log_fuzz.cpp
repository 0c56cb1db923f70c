/**
 * Log files, sound and damaged in every way, judged by several parts of the system: the event
 * manager's scan, the model of it that tools use, what is predicted of the events behind it, and
 * the salvage, whose result must be a log that the event manager takes and keeps.
 */
#include "messages.h"
#include "simulated_blade.h"

#include "evlog/predict.h"
#include "evlog/salvage.h"
#include "state/control.h"

#include <cstring>

namespace {

using fuzz::Blade;
using fuzz::Bytes;
using fuzz::Input;

constexpr std::size_t RING = 1'600'000;
constexpr std::uint32_t EVENTS = 450; ///< of the largest: once round
constexpr std::uint16_t LARGEST = 3848;

/** How a log is made; the first byte of each step, modulo their number. */
enum Step {
    EVENTS_IN_ORDER, ///< count, length (2)
    RECORD,          ///< id (2), length (2), source, event id, version, whose
    DUMMY,           ///< length (2)
    RAW,             ///< length (2), bytes
    ZEROS,           ///< length (2)
    FILL,            ///< length (2), byte
    DAMAGE,          ///< offset (2) of the last 65,536 bytes, byte
    CUT,             ///< bytes (2) that go from the end
    AGAIN,           ///< offset (2), length (2): a stretch once more
    TO_THE_END,      ///< zeros up to the size of a log
    STEPS,
};

/** The first byte of an input. */
enum Option { APPEND = 1, SALVAGE = 2 };

struct LogMaker {
    Bytes bytes{};
    std::uint32_t nextId = 0;

    std::size_t placeFromEnd(std::uint16_t offset) const {
        return bytes.empty() ? 0 : bytes.size() - 1 - offset % bytes.size();
    }
    void step(Input& input);
    void record(Input& input);
    void again(Input& input);
};

void LogMaker::record(Input& input) {
    fuzz::EventFields fields;
    fields.sequenceId = nextId = input.half();
    nextId++;
    fields.length = input.half();
    fields.source = input.byte();
    fields.eventId = input.byte();
    fields.version = input.byte();
    fields.ours = input.byte() % 4 != 3;
    fuzz::append(bytes, fuzz::record(fields));
}

void LogMaker::again(Input& input) {
    std::size_t from = placeFromEnd(input.half());
    std::size_t length = std::min<std::size_t>(input.half(), bytes.size() - from);
    Bytes piece(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                bytes.begin() + static_cast<std::ptrdiff_t>(from + length));
    fuzz::append(bytes, piece);
}

void LogMaker::step(Input& input) {
    switch (input.byte() % STEPS) {
    case EVENTS_IN_ORDER: {
        unsigned count = input.byte();
        std::uint16_t length = input.half() % 4096;
        for (; count > 0; count--) {
            fuzz::append(bytes, fuzz::record({.length = length, .sequenceId = nextId++}));
        }
        break;
    }
    case RECORD:
        record(input);
        break;
    case DUMMY:
        fuzz::append(bytes, fuzz::dummyEntry(input.half()));
        break;
    case RAW:
        fuzz::append(bytes, input.take(input.half()));
        break;
    case ZEROS:
        bytes.resize(bytes.size() + input.half());
        break;
    case FILL: {
        std::size_t length = input.half();
        bytes.insert(bytes.end(), length, input.byte());
        break;
    }
    case DAMAGE:
        if (!bytes.empty()) {
            bytes[placeFromEnd(input.half())] = input.byte();
        }
        break;
    case CUT:
        bytes.resize(bytes.size() - std::min<std::size_t>(bytes.size(), input.half()));
        break;
    case AGAIN:
        again(input);
        break;
    default:
        bytes.resize(std::max(bytes.size(), RING));
        break;
    }
}

EvlogIdentity_t identity() {
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = fuzz::SLOT};
    std::memcpy(identity.enclosureId, fuzz::ENCLOSURE, sizeof(fuzz::ENCLOSURE));
    return identity;
}

void expectSame(std::uint32_t modelled, std::uint32_t scanned, const char* what) {
    if (modelled != scanned) {
        fuzz::fail(std::string("scan and model differ in ") + what + ": model " +
                   std::to_string(modelled) + ", scan " + std::to_string(scanned));
    }
}

/** The event manager's state right behind its scan, and what tools say of it. */
void compareScan(const EvlogState_t& state) {
    expectSame(state.empWrite, empControl.empWrite, "empWrite");
    expectSame(state.empStart, empControl.empStart, "empStart");
    expectSame(state.empStartSequenceId, empControl.empStartSequenceId, "empStartSequenceId");
    expectSame(state.empSequenceId, empControl.empSequenceId, "empSequenceId");
    expectSame(state.empInstanceNumber, empControl.empInstanceNumber, "empInstanceNumber");
    expectSame(state.empEventInLogFile, empControl.empEventInLogFile, "empEventInLogFile");
    expectSame(state.empEventAddToLogFile, empControl.empEventAddToLogFile, "empEventAddToLogFile");
    expectSame(state.wrapOver ? EMP_E_WRAP_OVER_TRUE : EMP_E_WRAP_OVER_FALSE,
               empControl.empWrapOver, "empWrapOver");
    expectSame(state.foundGap ? 1 : 0, empControl.foundGap, "foundGap");
}

/** What a start and so many events after it came to. */
struct Outcome {
    bool cameUp = false;
    std::uint32_t stored = 0;
    std::string bugCheck{};
};

Outcome start(const Bytes& bytes, std::uint32_t events, const EvlogState_t& state) {
    Blade blade;
    blade.setFile(fuzz::LOG_PATH, bytes);
    Outcome outcome;
    blade.scanned = [&] {
        outcome.cameUp = true;
        compareScan(state);
    };
    const Bytes message = fuzz::localMessage(
        EMP_E_MSGS_LOG, fuzz::eventBody({.source = 28, .eventId = 0, .length = LARGEST}));
    bool begun = false;
    blade.idle = [&](Blade& self) {
        outcome.stored += begun ? 1 : 0;
        begun = true;
        if (outcome.stored >= events) {
            return false;
        }
        self.sendToManager(message);
        return true;
    };
    fuzz::Ending ending = blade.run();
    fuzz::expect(ending != fuzz::Ending::EXIT, "main() came back");
    outcome.bugCheck = blade.bugCheck;
    return outcome;
}

/** The start, and what tools say that it will do. */
void compareStart(const Bytes& bytes) {
    const EvlogIdentity_t ours = identity();
    EvlogState_t state = evlogWalk(evlogImageOf(bytes), {}, &ours);
    Outcome outcome = start(bytes, 0, state);
    fuzz::expect(outcome.cameUp != evlogIsFatal(state.verdict), "start and model differ");
}

/** The start and the events behind it, and what is predicted of them. */
void compareAppends(const Bytes& bytes) {
    const EvlogIdentity_t ours = identity();
    EvlogPrediction_t prediction = evlogPredict(evlogImageOf(bytes), &ours, {LARGEST});
    EVLOG_VERDICT_e verdict = prediction.state.verdict;
    // The event that tells of a rebuilt log comes before all others, and is not predicted.
    if (evlogIsFatal(verdict) || verdict == EVLOG_E_VERDICT_REBUILT) {
        return;
    }
    Outcome outcome = start(bytes, EVENTS, prediction.state);
    std::uint32_t expected = prediction.bugcheck ? prediction.bugcheck->events : EVENTS;
    if (outcome.stored != std::min(expected, EVENTS)) {
        fuzz::fail("predicted are " + std::to_string(expected) + " events and " +
                   (prediction.bugcheck ? prediction.bugcheck->message : "no bug-check") +
                   ", stored " + std::to_string(outcome.stored) + " and then " + outcome.bugCheck);
    }
}

/** What is salvaged is a log that the event manager takes whole. */
void checkSalvage(const Bytes& bytes) {
    const EvlogIdentity_t ours = identity();
    const EvlogSource_t source = {.bytes = bytes};
    EvlogSalvage_t salvage = evlogSalvage({&source, 1}, {.identity = &ours});
    if (salvage.bytes.empty()) {
        fuzz::expect(salvage.saved == 0, "events are saved into no file");
        return;
    }
    std::uint32_t taken = 0;
    EvlogState_t state =
        evlogWalk(evlogImageOf(salvage.bytes),
                  {.onRecord = [&](const EvlogRecord_t& record) { taken += record.taken ? 1 : 0; },
                   .onFinding =
                       [](const EvlogFinding_t& finding) {
                           fuzz::fail(std::string("a finding in what is salvaged: ") +
                                      evlogReasonText(finding.reason));
                       }},
                  &ours);
    fuzz::expect(state.verdict == EVLOG_E_VERDICT_UNWRAPPED,
                 "what is salvaged is no unwrapped log");
    fuzz::expect(taken >= salvage.saved, "salvaged events are not taken");
    Outcome outcome = start(salvage.bytes, 1, state);
    fuzz::expect(outcome.bugCheck.empty(), "the event manager stops on what is salvaged");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    unsigned options = input.byte();
    LogMaker log;
    while (!input.over() && log.bytes.size() < RING + 70'000) {
        log.step(input);
    }
    log.bytes.resize(std::min<std::size_t>(log.bytes.size(), EVLOG_REACHABLE));
    compareStart(log.bytes);
    if ((options & APPEND) != 0) {
        compareAppends(log.bytes);
    }
    if ((options & SALVAGE) != 0) {
        checkSalvage(log.bytes);
    }
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    auto first = [](unsigned options) {
        Seed seed;
        return seed.byte(options).byte(RECORD).half(0).half(40).byte(27).byte(2).byte(1).byte(0);
    };
    auto events = [](Seed& seed, unsigned count, unsigned length) -> Seed& {
        return seed.byte(EVENTS_IN_ORDER).byte(count).half(length);
    };
    auto closed = [](Seed& seed) {
        return seed.byte(DUMMY).half(65'535).byte(ZEROS).half(5000).bytes;
    };
    std::vector<Bytes> all = {Seed().byte(0).bytes};
    Seed sound = first(SALVAGE);
    all.push_back(closed(events(sound, 9, 40)));
    Seed damaged = first(SALVAGE);
    events(damaged, 9, 40).byte(DAMAGE).half(700).byte(3);
    all.push_back(closed(damaged));
    Seed twice = first(SALVAGE);
    events(twice, 9, 40).byte(DAMAGE).half(700).byte(3).byte(DAMAGE).half(1300).byte(3);
    all.push_back(closed(twice));
    Seed wrapped = Seed().byte(SALVAGE);
    wrapped.byte(RECORD).half(1000).half(40).byte(18).byte(44).byte(1).byte(0);
    events(wrapped, 5, 60).byte(FILL).half(77).byte('g');
    wrapped.byte(RECORD).half(500).half(40).byte(18).byte(44).byte(1).byte(0);
    all.push_back(closed(events(wrapped, 5, 60)));
    Seed foreign =
        Seed().byte(SALVAGE).byte(RECORD).half(9).half(4).byte(18).byte(44).byte(1).byte(3);
    all.push_back(closed(foreign));
    Seed badSource = first(0);
    badSource.byte(RECORD).half(1).half(4).byte(99).byte(44).byte(1).byte(0);
    all.push_back(closed(badSource));
    Seed appended = first(APPEND);
    events(appended, 3, 3000).byte(DUMMY).half(65'535);
    all.push_back(appended.byte(TO_THE_END).bytes);
    Seed again = first(0);
    events(again, 4, 100).byte(AGAIN).half(900).half(500).byte(CUT).half(30).byte(RAW).half(4);
    all.push_back(again.text("\xB6\x8F\x01").bytes);
    return all;
}

} // namespace fuzz
