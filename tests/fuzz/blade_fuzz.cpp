/**
 * The whole event manager, from its start on, while messages, the archiver, time and failing calls
 * reach it in any order and in any pieces. A bug-check may come; undefined behaviour, another end,
 * a hang or a message out of form may not. Where nothing was broken on purpose, the log that is
 * left must say to the next start what the event manager had in memory.
 */
#include "messages.h"
#include "simulated_blade.h"

#include "evlog/evlog.h"
#include "state/control.h"

#include <array>
#include <cstring>

namespace {

using fuzz::ArchiverLink;
using fuzz::Blade;
using fuzz::Bytes;
using fuzz::Input;
using fuzz::Log;

/** What an input may make happen; the first byte of each step, modulo their number. */
enum Step {
    SILENCE,           ///< count: passes that end by time-out
    RAW_FROM_SWITCH,   ///< length (2), bytes
    EVENT,             ///< repetitions, source, event id (2), length (2)
    INQUIRY,           ///< type, whose, instance, sequence id (4), requestor, cont
    SET_ARCHIVER,      ///< 0: off
    GET_STATUS,        ///< requestor
    LINK,              ///< what becomes of it
    RAW_FROM_ARCHIVER, ///< length (2), bytes
    ARCHIVER_STATUS,   ///< last id (4), control flags, 0: with another handle
    ARCHIVER_ANSWER,   ///< return code, sequence id (4), length (2), stated length (2)
    ROOM,              ///< bytes (2) that the link still takes; 65,535: all
    ALTERNATE_EVENT,   ///< source, event id (2), length (2)
    PIECES,            ///< size that a receive gives at most; 0: all
    FAIL,              ///< which call fails
    OTHER_MESSAGE,     ///< type, protocol, cont, body length (2)
    CLOCK,             ///< seconds that pass
    STEPS,
};

/** The first byte of an input. */
enum Option { FULL_REPORT = 1, REMEMBER = 2 };

constexpr unsigned REPETITIONS_MAX = 32;

void event(Blade& blade, Input& input) {
    unsigned count = 1 + input.byte() % REPETITIONS_MAX;
    fuzz::EventFields fields;
    fields.source = input.byte();
    fields.eventId = input.half();
    fields.length = input.half() % 4096;
    Bytes message = fuzz::localMessage(EMP_E_MSGS_LOG, fuzz::eventBody(fields), fields.source);
    for (; count > 0; count--) {
        blade.sendToManager(message);
    }
}

void alternateEvent(Blade& blade, Input& input) {
    fuzz::EventFields fields;
    fields.source = input.byte();
    fields.eventId = input.half();
    fields.length = input.half() % 4096;
    blade.sendToManager(
        fuzz::localMessage(EMP_E_MSGS_ALTERNATE_LOG, fuzz::eventBody(fields), fields.source));
}

void inquiry(Blade& blade, Input& input) {
    std::uint32_t type = input.byte();
    unsigned whose = input.byte();
    std::uint32_t instance = input.byte();
    Bytes body = fuzz::inquiryBody(type, input.word(), instance, whose);
    std::uint8_t requestor = input.byte();
    std::uint8_t cont = input.byte();
    blade.sendToManager(fuzz::localMessage(EMP_E_MSGS_INQUIRY, body, requestor, requestor, cont));
}

void setArchiver(Blade& blade, Input& input) {
    Bytes body(8);
    if (input.byte() != 0) {
        body = {127, 0, 0, 1, 4, 0, 0, 0};
    }
    blade.sendToManager(fuzz::localMessage(EMP_E_MSGS_SET_EVENT_ARCHIVER, body));
}

void changeLink(Blade& blade, Input& input) {
    ArchiverLink& link = blade.archiver;
    switch (input.byte() % 6) {
    case 0:
        link.connectsAtOnce = !link.connectsAtOnce;
        break;
    case 1:
        if (link.state == ArchiverLink::CONNECTING) {
            link.state = ArchiverLink::REFUSED;
        }
        break;
    case 2:
        if (link.state == ArchiverLink::CONNECTED) {
            link.state = ArchiverLink::CLOSED;
        }
        break;
    case 3:
        if (link.state == ArchiverLink::CONNECTED) {
            link.state = ArchiverLink::RESET;
        }
        break;
    default:
        if (link.state == ArchiverLink::CONNECTING) {
            link.state = ArchiverLink::CONNECTED;
        }
        break;
    }
}

void fromArchiver(Blade& blade, std::span<const std::uint8_t> bytes) {
    if (blade.archiver.state == ArchiverLink::CONNECTED) {
        auto& queue = blade.archiver.toManager;
        queue.insert(queue.end(), bytes.begin(), bytes.end());
    }
}

void archiverStatus(Blade& blade, Input& input) {
    EmpGetEvArchiverStatusMsg_t status = {};
    status.evSequenceIdLast = input.word();
    status.evArchiverControlFlag = U32_t{input.byte()};
    // What is dropped at the archiver's wish stands in the file still, and is there again later.
    blade.disturbed |= (status.evArchiverControlFlag & EMP_E_ARCHIVER_CONTROL_CLEAR) != 0;
    Bytes body(sizeof(status));
    std::memcpy(body.data(), &status, sizeof(status));
    std::uint32_t handle = input.byte() == 0 ? 7 : blade.archiver.statusHandle;
    fromArchiver(blade, fuzz::archiverMessage(EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS, body, handle));
}

void archiverAnswer(Blade& blade, Input& input) {
    std::uint32_t returnCode = input.byte();
    fuzz::EventFields fields;
    fields.sequenceId = input.word();
    fields.length = input.half() % 4096;
    Bytes body = fuzz::eventBody(fields);
    reinterpret_cast<EmpEvLogHeader_t*>(body.data())->evStructLength = input.half();
    fromArchiver(blade, fuzz::archiverMessage(EMP_E_MSGS_LOG, body, blade.archiver.inquiryHandle,
                                              returnCode));
}

void otherMessage(Blade& blade, Input& input) {
    std::uint8_t type = input.byte();
    std::uint8_t protocol = input.byte();
    std::uint8_t cont = input.byte();
    Bytes message = fuzz::localMessage(type, Bytes(input.half() % 4096), 255, 1, cont);
    reinterpret_cast<MMCH_t*>(message.data())->opcode.request.protocol = protocol;
    blade.sendToManager(message);
}

void step(Blade& blade, Input& input) {
    switch (input.byte() % STEPS) {
    case SILENCE:
        blade.silentPasses = input.byte();
        break;
    case RAW_FROM_SWITCH:
        blade.sendToManager(input.take(input.half()));
        break;
    case EVENT:
        event(blade, input);
        break;
    case INQUIRY:
        inquiry(blade, input);
        break;
    case SET_ARCHIVER:
        setArchiver(blade, input);
        break;
    case GET_STATUS:
        blade.sendToManager(
            fuzz::localMessage(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, {}, input.byte()));
        break;
    case LINK:
        changeLink(blade, input);
        break;
    case RAW_FROM_ARCHIVER:
        blade.disturbed = true;
        fromArchiver(blade, input.take(input.half()));
        break;
    case ARCHIVER_STATUS:
        archiverStatus(blade, input);
        break;
    case ARCHIVER_ANSWER:
        archiverAnswer(blade, input);
        break;
    case ROOM: {
        std::uint16_t room = input.half();
        blade.archiver.room = room == 0xFFFF ? 0xFFFFFFFF : room;
        break;
    }
    case ALTERNATE_EVENT:
        alternateEvent(blade, input);
        break;
    case PIECES:
        blade.pieceSize = input.byte();
        break;
    case FAIL:
        blade.failingCall = 1U + input.byte();
        break;
    case OTHER_MESSAGE:
        otherMessage(blade, input);
        break;
    default:
        blade.clock += input.byte();
        break;
    }
}

/** One thing that the next start must find as it is in memory now. */
void expectSame(std::uint32_t found, std::uint32_t inMemory, const char* what) {
    if (found != inMemory) {
        fuzz::fail(std::string("the next start finds another ") + what + ": " +
                   std::to_string(found) + ", in memory " + std::to_string(inMemory));
    }
}

/** The next start must find what is in memory now. */
void checkLog(const Blade& blade) {
    EvlogImage_t image = evlogImageOf(*blade.files.at(fuzz::LOG_PATH));
    EvlogState_t state = evlogWalk(image, {});
    fuzz::expect(!evlogIsFatal(state.verdict) && state.verdict != EVLOG_E_VERDICT_REBUILT,
                 "the next start would not take the log");
    expectSame(state.empSequenceId, empControl.empSequenceId, "next sequence id");
    expectSame(state.empWrite, empControl.empWrite, "place to write at");
    expectSame(state.empStartSequenceId, empControl.empStartSequenceId, "oldest event");
    expectSame(state.empEventInLogFile, empControl.empEventInLogFile, "number of events");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Blade blade;
    unsigned options = input.byte();
    auto kind = static_cast<Log>(input.byte() % static_cast<unsigned>(Log::KINDS));
    blade.fullReport = (options & FULL_REPORT) != 0;
    if (kind != Log::NONE) {
        blade.setFile(fuzz::LOG_PATH, fuzz::logOf(kind));
    }
    blade.idle = [&input](Blade& self) {
        if (input.over()) {
            return false;
        }
        step(self, input);
        return true;
    };
    fuzz::Ending ending = blade.run();
    fuzz::expect(ending != fuzz::Ending::EXIT, "main() came back");
    if ((options & REMEMBER) != 0 && ending == fuzz::Ending::INPUT_OVER && !blade.disturbed) {
        checkLog(blade);
    }
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    std::vector<Bytes> all;
    // Reports and walks take most of the time of a run: few begin with them.
    auto begin = [](Log log, unsigned options = 0) {
        return Seed().byte(options).byte(static_cast<unsigned>(log));
    };
    for (unsigned log = 0; log < static_cast<unsigned>(Log::KINDS); log++) {
        Seed seed = begin(static_cast<Log>(log), log % 2 == 0 ? REMEMBER : FULL_REPORT);
        seed.byte(EVENT)
            .byte(31)
            .byte(18)
            .half(300)
            .half(3848)
            .byte(EVENT)
            .byte(1)
            .byte(28)
            .half(1)
            .half(0);
        for (unsigned type = 0; type <= 6; type++) {
            seed.byte(INQUIRY).byte(type).byte(1).byte(0).word(2).byte(28).byte(0);
        }
        all.push_back(seed.byte(GET_STATUS).byte(28).byte(SILENCE).byte(2).bytes);
    }
    Seed linked = begin(Log::SHORT);
    linked.byte(SET_ARCHIVER).byte(1).byte(LINK).byte(5).byte(SILENCE).byte(2);
    linked.byte(ARCHIVER_STATUS).word(3).byte(0).byte(1).byte(SILENCE).byte(20);
    linked.byte(INQUIRY).byte(3).byte(2).byte(0).word(4).byte(28).byte(0);
    linked.byte(ARCHIVER_ANSWER).byte(1).word(4).half(40).half(40);
    linked.byte(INQUIRY).byte(3).byte(2).byte(0).word(5).byte(29).byte(0);
    linked.byte(ARCHIVER_ANSWER).byte(1).word(5).half(40).half(61'440);
    linked.byte(ROOM).half(50).byte(EVENT).byte(3).byte(18).half(3).half(40);
    linked.byte(ROOM).half(0xFFFF).byte(SILENCE).byte(20).byte(LINK).byte(2).byte(SILENCE).byte(
        255);
    all.push_back(linked.byte(SILENCE).byte(60).bytes);
    Seed cleared = begin(Log::SHORT);
    cleared.byte(SET_ARCHIVER).byte(1).byte(LINK).byte(5).byte(SILENCE).byte(1);
    all.push_back(
        cleared.byte(ARCHIVER_STATUS).word(3).byte(2).byte(1).byte(SILENCE).byte(20).bytes);
    Seed pieces = begin(Log::EMPTY);
    Bytes raw = localMessage(EMP_E_MSGS_LOG, eventBody({.length = 8}));
    pieces.byte(PIECES).byte(60).byte(RAW_FROM_SWITCH).half(static_cast<unsigned>(raw.size()));
    append(pieces.bytes, raw);
    pieces.byte(OTHER_MESSAGE).byte(6).byte(8).byte(0).half(10);
    pieces.byte(ALTERNATE_EVENT).byte(18).half(4).half(30).byte(CLOCK).byte(9);
    all.push_back(pieces.byte(FAIL).byte(3).byte(EVENT).byte(0).byte(18).half(3).half(40).bytes);
    return all;
}

} // namespace fuzz
