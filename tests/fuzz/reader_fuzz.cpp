/**
 * What tools read and show: any bytes as a log, a damaged copy, an alternate event file, a bundle,
 * compressed or not; every event of it in every form. An input says which of the rest is made of
 * it, too: pictures, numbers, cursors, the bug-checks in it, a prediction, a log without names.
 */
#include "messages.h"

#include "bundle/bundle.h"
#include "catalog/catalog.h"
#include "catalog/event_text.h"
#include "evctl/files/file.h"
#include "evctl/files/log_map.h"
#include "evctl/files/predict_view.h"
#include "evctl/filters/cursor.h"
#include "evctl/numbers/event_stats.h"
#include "evctl/support/redact.h"
#include "evctl/views/crash_view.h"
#include "evctl/views/event_forms.h"
#include "evctl/views/event_json.h"
#include "evctl/views/event_view.h"
#include "sources/source.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace {

using fuzz::Bytes;
using fuzz::Input;

constexpr std::array names = {"kelta_eventlog", "kelta_eventlog.debug", "kelta_alteventlog1",
                              "anything.gz", "a\x1B\n,\"name"};
constexpr std::size_t LONGEST = 70'000;

/** What the bytes begin with; the first bytes of an input, up to the first 0. */
enum Step { END, EVENT, DUMMY, CRASH_RECORD, STEPS };

Bytes made(Input& input) {
    Bytes bytes;
    while (bytes.size() < LONGEST) {
        fuzz::EventFields fields;
        switch (input.byte() % STEPS) {
        case END:
            fuzz::append(bytes, input.rest());
            return bytes;
        case EVENT:
            fields.sequenceId = input.half();
            fields.source = input.byte();
            fields.eventId = input.byte();
            fields.length = input.half() % 4096;
            fields.fill = static_cast<char>(input.byte());
            fuzz::append(bytes, fuzz::record(fields));
            break;
        case DUMMY:
            fuzz::append(bytes, fuzz::dummyEntry(input.half()));
            break;
        default:
            fields.source = 27;
            fields.eventId = static_cast<std::uint16_t>(evctl::CRASH_FIRST_ID + input.byte() % 26);
            fields.length = static_cast<std::uint16_t>(
                input.byte() + evctl::crashDataLength(evctl::CRASH_FIRST_ID + input.byte() % 24));
            fields.fill = static_cast<char>(input.byte());
            fuzz::append(bytes, fuzz::record(fields));
            break;
        }
    }
    return bytes;
}

/** Shows an event in every form. What is said must be one line, and JSON that can be read back. */
void show(const sources::Event& event) {
    std::string line = evctl::eventLine(event.view);
    fuzz::expect(line.find('\n') == std::string::npos, "an event is more than one line");
    std::string json = evctl::jsonLine(evctl::eventJson(event.view));
    fuzz::expect(evctl::Json::accept(json), "an event's JSON cannot be read back");
    if (event.record != nullptr) {
        evctl::recordLines(*event.record->header, event.record->body);
        evctl::jsonLine(evctl::recordJson(*event.record));
    }
    evctl::eventLines(event.view);
    catalog::adviceOf(event.view);
    const std::string csv = evctl::csvLine(event.view, event.origin->name);
    const std::string syslog = evctl::syslogLine(event.view);
    for (const std::string& form : {csv, syslog}) {
        fuzz::expect(form.find('\n') == form.size() - 1,
                     "a form of an event is more than one line");
        fuzz::expect(form.find('\x1B') == std::string::npos, "a form of an event has a control");
    }
    evctl::hexDump(event.view.data);
    if (auto text = catalog::plainText(event.view.data)) {
        fuzz::expect(text->find('\n') == std::string::npos, "a text is more than one line");
    }
}

void showCrashes(const Bytes& bytes) {
    std::vector<EvlogRecord_t> records;
    EvlogImage_t image = evlogImageOf(bytes);
    evlogWalk(image, {.onRecord = [&](const EvlogRecord_t& each) { records.push_back(each); },
                      .onFinding = {}});
    const std::span all(records);
    const std::size_t logged = records.size() / 2; // the others wait
    std::size_t found = 0;
    for (const evctl::Crash& crash : evctl::findCrashes(all.first(logged), all.subspan(logged))) {
        // All entries of an index are 10,000 objects.
        evctl::Json json = evctl::crashJson(crash, found++ == 0);
        evctl::crashLines(json);
        fuzz::expect(evctl::Json::accept(evctl::jsonLine(json)),
                     "a bug-check's JSON cannot be read back");
    }
}

void showNumbers(const Bytes& bytes) {
    EvlogImage_t image = evlogImageOf(bytes);
    evctl::LogContent content = evctl::readLog(image);
    evctl::EventStats stats;
    for (const EvlogRecord_t& record : content.records) {
        stats.add(sources::eventOf(record));
    }
    evctl::statsLines(stats, 80);
    evctl::statsPicture(stats, names.back());
    evctl::jsonLine(evctl::statsJson(stats));
}

void showPicture(const Bytes& bytes) {
    EvlogImage_t image = evlogImageOf(bytes);
    evctl::LogContent content = evctl::readLog(image);
    evctl::LogMap map = evctl::mapOf(content);
    evctl::mapLines(map, content);
    fuzz::expect(evctl::mapPicture(map, content, names.back()).find('\x1B') == std::string::npos,
                 "a picture has a control");
}

/** Without names and data there are the same records at the same places, each of them valid. */
void showRedacted(const Bytes& bytes) {
    EvlogImage_t image = evlogImageOf(bytes);
    evctl::Redaction redaction;
    const Bytes shown = redaction.log(image);
    EvlogImage_t redacted = evlogImageOf(shown);
    std::vector<EvlogRecord_t> before = evctl::readLog(image).records;
    std::vector<EvlogRecord_t> after = evctl::readLog(redacted).records;
    fuzz::expect(shown.size() == image.bytes.size() && after.size() == before.size(),
                 "a log without names has other records");
    for (std::size_t place = 0; place < before.size(); place++) {
        fuzz::expect(before[place].offset == after[place].offset &&
                         before[place].body.size() == after[place].body.size(),
                     "a record without names stands elsewhere");
    }
    EvlogRecord_t record;
    const bool isRecord = evlogReadAlternate(bytes, &record) == EVLOG_E_REASON_NONE;
    const Bytes alternate = redaction.record(bytes);
    fuzz::expect(isRecord == (!alternate.empty() &&
                              evlogReadAlternate(alternate, &record) == EVLOG_E_REASON_NONE),
                 "an alternate event without names is none");
}

void showPrediction(const Bytes& bytes) {
    EvlogImage_t image = evlogImageOf(bytes);
    EvlogIdentity_t identity{};
    identity.slotId = bytes.size() % 4;
    const EvlogPrediction_t prediction = evlogPredict(image, &identity);
    evctl::Json json = evctl::predictionJson(names[0], prediction, &identity);
    fuzz::expect(evctl::Json::accept(evctl::jsonLine(json)),
                 "a prediction's JSON cannot be read back");
    fuzz::expect(!prediction.isFatal() || json["bugcheck"]["forGood"] == true,
                 "a fatal prediction names no bug-check");
}

/** A cursor of what has been read can be read back; any log can be gone on with behind it. */
void resume(sources::Source& source) {
    evctl::Cursor cursor;
    while (auto event = source.next()) {
        cursor.moveTo(*event);
    }
    source.rewind();
    auto parsed = evctl::Cursor::parse(cursor.text());
    fuzz::expect(parsed && parsed->text() == cursor.text(), "a cursor cannot be read back");
    evctl::Resume behind(*parsed, false);
    behind.look(source);
    while (auto event = source.next()) {
        behind.wants(*event);
    }
    source.rewind();
}

/** The bytes as what a bundle holds, and as a bundle. */
void showBundle(const Bytes& bytes) {
    std::vector<std::string> problems;
    bundle::unpack(bytes, &problems);
    for (const std::string& problem : problems) {
        fuzz::expect(problem.find('\n') == std::string::npos, "a problem is more than one line");
    }
}

/** What an input chooses. All of it for each input would be a few dozen inputs a second. */
enum Part { CRASHES, NUMBERS, PICTURE, BUNDLE, REDACTED, PREDICTION };

void (*partOf(std::uint8_t choice))(const Bytes&) {
    constexpr std::array parts = {showCrashes, showNumbers,  showPicture,
                                  showBundle,  showRedacted, showPrediction};
    return parts.at(choice / 2U % parts.size());
}

/** @param shown of the first ones: all forms of an event take as long as everything else */
std::size_t count(sources::Source& source, std::size_t shown) {
    std::size_t events = 0;
    while (auto event = source.next()) {
        if (events < shown) {
            show(*event);
        }
        events++;
    }
    return events;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const char* name = names.at(input.byte() % names.size());
    const std::uint8_t choice = input.byte(); // in the order of the file, and 2 * a Part
    bool fileOrder = choice % 2 != 0;
    Bytes bytes = made(input);
    // What holds a database is opened by its path, which none of this has.
    if (bytes.size() >= 6 && std::equal(bytes.begin(), bytes.begin() + 6, "SQLite")) {
        return 0;
    }
    try {
        sources::Sources all = sources::openBytes(name, bytes, {.fileOrder = fileOrder});
        for (auto& source : all) {
            constexpr std::size_t some = 4;
            std::size_t events = count(*source, some);
            source->rewind();
            fuzz::expect(count(*source, 0) == events,
                         "a source gives other events when read again");
            source->rewind();
            resume(*source);
        }
        sources::Merge merge(std::move(all));
        while (merge.next()) {
        }
    } catch (const std::runtime_error&) {
        // it is no source
    }
    partOf(choice)(bytes);
    evctl::Cursor::parse(std::string(bytes.begin(), bytes.end()));
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    auto event = [](Seed& seed, unsigned id, unsigned source) -> Seed& {
        return seed.byte(EVENT).half(id).byte(source).byte(44).half(20).byte('t');
    };
    auto crash = [](Seed& seed, unsigned id) -> Seed& {
        return seed.byte(CRASH_RECORD).byte(id).byte(0).byte(id).byte(1);
    };
    Seed log = Seed().byte(0).byte(2 * NUMBERS);
    event(event(log, 0, 18), 1, 26).byte(DUMMY).half(65'535).byte(END).byte(0);
    Seed wrapped = Seed().byte(1).byte(2 * PICTURE);
    event(event(wrapped, 1000, 18), 7, 34).byte(END).text("rest");
    Seed alternate = Seed().byte(2).byte(2 * REDACTED);
    event(alternate, 0, 18);
    Seed crashes = Seed().byte(0).byte(2 * CRASHES + 1);
    for (unsigned id = 0; id < 24; id++) {
        crash(crashes, id);
    }
    Seed zipped = Seed().byte(3).byte(0).byte(END);
    zipped.text(std::string("\x1F\x8B\x08\x00\x00\x00\x00\x00\x00\x03\x03\x00\x00\x00", 14));
    Input logOnly(log.bytes.data() + 2, log.bytes.size() - 2);
    Seed named = Seed().byte(4).byte(2 * PICTURE);
    event(named, 3, 26).byte(END).byte(0);
    Seed bundled = Seed().byte(4).byte(2 * BUNDLE).byte(END);
    const Bytes packed = bundle::pack({{"a/kelta_eventlog", made(logOnly)}, {"parameters", {}}}, 0);
    std::optional<std::string> problem;
    Bytes tar = sources::decompress(packed, LONGEST, &problem);
    tar.resize(std::min<std::size_t>(tar.size(), 2048));
    fuzz::append(bundled.bytes, tar);
    Seed packedToo = Seed().byte(4).byte(2 * BUNDLE).byte(END);
    fuzz::append(packedToo.bytes, packed);
    Seed cursor = Seed().byte(4).byte(1).byte(END).text("c1:0123456789abcdef.1.2.3,1.2.3.4");
    Seed predicted = log;
    predicted.bytes[1] = 2 * PREDICTION;
    Seed redacted = crashes;
    redacted.bytes[1] = 2 * REDACTED;
    return {predicted.bytes, redacted.bytes, log.bytes,    wrapped.bytes,
            alternate.bytes, crashes.bytes,  zipped.bytes, bundled.bytes,
            packedToo.bytes, cursor.bytes,   named.bytes};
}

} // namespace fuzz
