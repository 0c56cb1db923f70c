/**
 * Alternate event files of any content, replayed by a start: every file goes, each that holds a
 * valid record becomes one event, in the order of the files' ages.
 */
#include "messages.h"
#include "simulated_blade.h"

#include "evlog/evlog.h"
#include "state/control.h"

namespace {

using fuzz::Blade;
using fuzz::Bytes;
using fuzz::Input;

constexpr unsigned FILES_MAX = 8;

/** How a file is made; the first byte of each, modulo their number. */
enum Content { RECORD, DAMAGED, RAW, OTHER_NAME, CONTENTS };

Bytes recordOf(Input& input) {
    fuzz::EventFields fields;
    fields.source = input.byte();
    fields.eventId = input.half();
    fields.sequenceId = input.byte();
    fields.length = input.half();
    fields.version = input.byte();
    return fuzz::record(fields);
}

Bytes damagedRecord(Input& input) {
    Bytes bytes = recordOf(input);
    bytes[input.half() % bytes.size()] = input.byte();
    bytes.resize(input.half() % (bytes.size() + 9));
    return bytes;
}

/** Puts a file into the directory. @return whether it must become an event */
bool addFile(Blade& blade, Input& input, unsigned number) {
    std::string path = fuzz::ALTERNATE_PREFIX + std::to_string(number);
    Bytes bytes;
    switch (input.byte() % CONTENTS) {
    case RECORD:
        bytes = recordOf(input);
        break;
    case DAMAGED:
        bytes = damagedRecord(input);
        break;
    case RAW:
        fuzz::append(bytes, input.take(input.half()));
        break;
    default:
        path = "/nvram/aelfiles/other" + std::to_string(number);
        break;
    }
    blade.setFile(path, bytes);
    EvlogRecord_t record;
    return evlogReadAlternate(bytes, &record) == EVLOG_E_REASON_NONE &&
           !evlogIsDummy(*record.header);
}

bool isSound(const Blade& blade) {
    for (const auto& file : blade.files) {
        if (file.first.starts_with("/nvram/aelfiles/")) {
            return false;
        }
    }
    return true;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Blade blade;
    std::uint32_t events = 0;
    std::uint32_t files = 0;
    for (; !input.over() && files < FILES_MAX; files++) {
        events += addFile(blade, input, files) ? 1 : 0;
    }
    blade.idle = [](Blade& /*self*/) { return false; };
    fuzz::expect(blade.run() == fuzz::Ending::INPUT_OVER, "the replay ends the event manager");
    fuzz::expect(isSound(blade), "an alternate event file is left");
    // The log began with its first entry.
    fuzz::expect(empControl.empSequenceId >= 1 + events && empControl.empSequenceId <= 1 + files,
                 "a valid event is lost, or one was made of nothing");
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    auto record = [](Seed& seed, unsigned source, unsigned length) -> Seed& {
        return seed.byte(RECORD).byte(source).half(7).byte(3).half(length).byte(1);
    };
    std::vector<Bytes> all = {Seed().byte(OTHER_NAME).bytes};
    Seed sound;
    all.push_back(record(record(sound, 18, 40), 28, 3848).bytes);
    Seed lengths;
    all.push_back(record(record(record(lengths, 18, 3849), 34, 0), 35, 65'535).bytes);
    Seed damaged;
    damaged.byte(DAMAGED).byte(18).half(7).byte(3).half(40).byte(1).half(20).byte(9).half(200);
    all.push_back(damaged.byte(RAW).half(2).half(0xB68F).bytes);
    return all;
}

} // namespace fuzz
