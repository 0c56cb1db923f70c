#include "archive.h"

#include <algorithm>
#include <ctime>

namespace evarchive {
namespace {

// Series known by heart at most: enough for a fleet, and a bound on memory.
constexpr std::size_t KNOWN_SERIES = 100'000;

std::string printable(const std::string& text) {
    std::string shown = text.empty() ? "\"\"" : text;
    std::ranges::replace_if(
        shown, [](unsigned char letter) { return letter < ' ' || letter > '~'; }, '?');
    return shown;
}

// Whether a stored event is one that can be sent: the file may have been damaged since.
bool isWhole(const StoredEvent& event) {
    return event.image.size() >= sizeof(EmpEvLogHeader_t) &&
           event.image.size() <= LARGEST_EVENT_BODY &&
           event.image.size() ==
               sizeof(EmpEvLogHeader_t) + imageOf<EmpEvLogHeader_t>(event.image).evStructLength;
}

bool haveSameFirstData(const StoredEvent& event, const EmpGetEvArchiverStatusMsg_t& request) {
    const View data = View(event.image).subspan(EMP_EVENT_HEADER_SIZE);
    const std::size_t compared = std::min(data.size(), sizeof(request.evRandom));
    return data.size() == request.evStructLength &&
           std::ranges::equal(data.first(compared), View(request.evRandom).first(compared));
}

} // namespace

BladeKey bladeOf(const EmpGetEvArchiverStatusMsg_t& request) {
    return {textOf(request.evEnclosureId), textOf(request.evBladeId), request.evSlotId};
}

std::string nameOf(const BladeKey& blade) {
    return "enclosure " + printable(blade.enclosure) + " blade " + printable(blade.blade) +
           " slot " + std::to_string(blade.slot);
}

std::string nameOf(const SeriesKey& series) {
    return nameOf(series.blade) + " instance " + std::to_string(series.instance);
}

Archive::Archive(Store& store, const ArchiveSettings& settings, Say say)
    : store_(store), settings_(settings), say_(std::move(say)), rows_(store.rowCount()) {}

Filed Archive::fileEvent(const BladeKey* speaker, View body) {
    const auto header = imageOf<EmpEvLogHeader_t>(body);
    const SeriesKey key{{textOf(header.evEnclosureId), textOf(header.evBladeId), header.evSlotId},
                        header.evInstanceNumber};
    StoredEvent event{header.evSequenceId, true, Bytes(body.begin(), body.end())};
    ensureTransaction();
    const Filed filed = fileIn(key, event);
    if (speaker != nullptr && *speaker != key.blade && filed != Filed::REFUSED) {
        ++counts_.strangers;
        event.own = false;
        fileIn({*speaker, key.instance}, event);
    }
    if (++uncommitted_ >= settings_.batch) {
        commit();
    }
    return filed;
}

Filed Archive::fileIn(const SeriesKey& key, const StoredEvent& event) {
    Series& series = seriesOf(key);
    const bool canBeHeld = series.highestId && event.sequenceId <= *series.highestId;
    const auto held = canBeHeld ? store_.heldEvent(series.newest, event.sequenceId) : std::nullopt;
    if (held && held->image == event.image) {
        ++counts_.duplicates;
        touched_.insert(series.newest);
        store_.countDuplicate(series.newest);
        return Filed::DUPLICATE;
    }
    if (rows_ >= settings_.rowLimit) {
        refuse();
        return Filed::REFUSED;
    }
    if (held) {
        openGeneration(series);
        ++counts_.generations;
        say_(nameOf(key) + ": other bytes under id " + std::to_string(event.sequenceId) +
             ", generation " + std::to_string(series.newest.generation) + " opened");
    }
    store(key, series, event);
    return held ? Filed::NEW_GENERATION : Filed::STORED;
}

void Archive::refuse() {
    ++counts_.refused;
    if (!saidFull_) {
        say_("the archive is full: " + std::to_string(rows_) + " events; further ones are refused");
        saidFull_ = true;
    }
}

void Archive::store(const SeriesKey& key, Series& series, const StoredEvent& event) {
    noteGap(key, series, event.sequenceId);
    if (series.newest.series == 0) {
        series.newest.series = store_.addSeries(key);
    }
    if (series.newest.generation == 0) {
        openGeneration(series);
    }
    store_.addEvent(series.newest, event);
    touched_.insert(series.newest);
    series.highestId = std::max(series.highestId.value_or(0), event.sequenceId);
    ++rows_;
    ++counts_.stored;
}

void Archive::noteGap(const SeriesKey& key, const Series& series, U32_t id) {
    // 64 bits: behind the last id of all there is none, the instance rises and ids begin at 0.
    if (!series.highestId || U64_t{id} <= U64_t{*series.highestId} + 1) {
        return;
    }
    ++counts_.gaps;
    say_(nameOf(key) + ": gap, ids " + std::to_string(*series.highestId + 1) + " to " +
         std::to_string(id - 1) + " are missing");
}

void Archive::openGeneration(Series& series) {
    ++series.newest.generation;
    series.highestId.reset();
    store_.addGeneration(series.newest, time(nullptr));
}

Archive::Series& Archive::seriesOf(const SeriesKey& key) {
    if (const auto known = series_.find(key); known != series_.end()) {
        return known->second;
    }
    if (series_.size() >= KNOWN_SERIES) {
        series_.clear();
    }
    return series_.emplace(key, findSeries(key).value_or(Series{})).first->second;
}

std::optional<Archive::Series> Archive::findSeries(const SeriesKey& key) {
    const auto number = store_.findSeries(key);
    if (!number) {
        return std::nullopt;
    }
    const GenerationKey newest{*number, store_.newestGeneration(*number)};
    return Series{newest, store_.highestId(newest)};
}

StatusVerdict Archive::answerStatus(const EmpGetEvArchiverStatusMsg_t& request) {
    commit();
    ++counts_.statusAnswers;
    const SeriesKey key{bladeOf(request), request.evInstanceNumber};
    const U32_t first = request.evSequenceIdFirst;
    const auto series = findSeries(key);
    const auto held = series ? store_.heldEvent(series->newest, first) : std::nullopt;
    if (!held || !isWhole(*held) || !haveSameFirstData(*held, request)) {
        return {0, EMP_E_ARCHIVER_CONTROL_NO_DATA};
    }
    StatusVerdict verdict{store_.endOfRun(series->newest, first), 0};
    clearUpTo(key, first, verdict);
    return verdict;
}

void Archive::clearUpTo(const SeriesKey& key, U32_t first, StatusVerdict& verdict) {
    const U32_t kept = settings_.clear == Clear::ALL_BUT_NEWEST ? 1 : 0;
    const bool isEmpty = verdict.sequenceIdLast - first < kept;
    if (settings_.clear == Clear::NOTHING || isEmpty || !cleared_.insert(key).second) {
        return;
    }
    verdict.sequenceIdLast -= kept;
    verdict.controlFlag |= EMP_E_ARCHIVER_CONTROL_CLEAR;
    say_(nameOf(key) + ": asked to drop its events up to id " +
         std::to_string(verdict.sequenceIdLast));
}

std::optional<StoredEvent> Archive::answerInquiry(const EmpEvInquiryMsg_t& inquiry) {
    const SeriesKey key{
        {textOf(inquiry.evEnclosureId), textOf(inquiry.evBladeId), inquiry.evSlotId},
        inquiry.evInstanceNumber};
    const auto series = findSeries(key);
    const auto type = static_cast<EMP_INQUIRY_TYPE_e>(U32_t{inquiry.evInquiryType});
    auto event =
        series ? store_.findEvent(series->newest, type, inquiry.evSeqIdInquiry) : std::nullopt;
    if (event && !isWhole(*event)) {
        say_(nameOf(key) + ": event " + std::to_string(event->sequenceId) + " is damaged");
        event.reset();
    }
    ++(event ? counts_.found : counts_.notFound);
    return event;
}

void Archive::ensureTransaction() {
    if (!inTransaction_) {
        store_.begin();
        inTransaction_ = true;
    }
}

void Archive::commit() {
    if (inTransaction_) {
        store_.commit();
        inTransaction_ = false;
        uncommitted_ = 0;
    }
}

U64_t Archive::countGaps() {
    U64_t gaps = 0;
    for (const GenerationKey& generation : touched_) {
        U64_t runs = 0;
        store_.forEachRun(generation, [&runs](const IdRun&) { ++runs; });
        gaps += runs > 0 ? runs - 1 : 0;
    }
    return gaps;
}

} // namespace evarchive
