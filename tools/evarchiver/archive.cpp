#include "archive.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace evarchive {
namespace {

std::string printable(const std::string& text) {
    std::string shown = text.empty() ? "\"\"" : text;
    std::ranges::replace_if(
        shown, [](unsigned char letter) { return letter < ' ' || letter > '~'; }, '?');
    return shown;
}

SeriesKey keyOf(View body) {
    const auto header = imageOf<EmpEvLogHeader_t>(body);
    return {{textOf(header.evEnclosureId), textOf(header.evBladeId), header.evSlotId},
            header.evInstanceNumber};
}

Aside reasonOf(const Arrival& arrival) {
    if (arrival.isSuperseded) {
        return Aside::SUPERSEDED;
    }
    return arrival.certainty == Certainty::CERTAIN ? Aside::OTHER_IDENTITY : Aside::NEVER_CONFIRMED;
}

} // namespace

BladeKey bladeOf(const EmpGetEvArchiverStatusMsg_t& request) {
    return {textOf(request.evEnclosureId), textOf(request.evBladeId), request.evSlotId};
}

SeriesKey logOf(const EmpGetEvArchiverStatusMsg_t& request) {
    return {bladeOf(request), request.evInstanceNumber};
}

SeriesKey logOf(const EmpEvInquiryMsg_t& inquiry) {
    return {{textOf(inquiry.evEnclosureId), textOf(inquiry.evBladeId), inquiry.evSlotId},
            inquiry.evInstanceNumber};
}

std::string nameOf(const BladeKey& blade) {
    return "enclosure " + printable(blade.enclosure) + " blade " + printable(blade.blade) +
           " slot " + std::to_string(blade.slot);
}

std::string nameOf(const SeriesKey& series) {
    return nameOf(series.blade) + " instance " + std::to_string(series.instance);
}

U32_t Share::shareOf(const BladeKey& blade, U32_t shares) {
    const std::hash<std::string> hash;
    const std::size_t mixed = hash(blade.enclosure) * 31 + hash(blade.blade) * 7 + blade.slot;
    return static_cast<U32_t>(mixed % shares);
}

ArchiveCounts& ArchiveCounts::operator+=(const ArchiveCounts& other) {
    stored += other.stored;
    bytes += other.bytes;
    duplicates += other.duplicates;
    generations += other.generations;
    gaps += other.gaps;
    strangers += other.strangers;
    setAside += other.setAside;
    refused += other.refused;
    statusAnswers += other.statusAnswers;
    found += other.found;
    notFound += other.notFound;
    return *this;
}

Archive::Archive(Store& store, const ArchiveSettings& settings, Say say)
    : store_(store), settings_(settings), say_(std::move(say)),
      rows_(settings.rowLimit > 0 ? store.rowCount() : 0), committedRows_(rows_) {}

Filed Archive::fileEvent(LinkNumber link, View body, Certainty certainty) {
    ensureTransaction();
    const U32_t id = imageOf<EmpEvLogHeader_t>(body).evSequenceId;
    Speaker& speaker = speakerOf(link, body);
    Series& series = *speaker.series;
    const Arrival arrival{body, certaintyIn(series, speaker, certainty), !speaker.isStranger,
                          isSuperseded(speaker, link), isOfAnotherLog(speaker, series)};
    const Filed filed =
        series.isOurs ? fileIn({series, arrival, true, id, speaker.told}) : Filed::LEFT;
    if (!speaker.isStranger || filed == Filed::REFUSED) {
        return filed;
    }
    const SeriesKey speakersLog{*speaker.blade, series.key.instance};
    if (!settings_.share.has(speakersLog)) {
        return filed;
    }
    counts_.strangers += certainty == Certainty::CERTAIN ? 1 : 0;
    Series& ownLog = seriesOf(speakersLog);
    const Arrival inOwnLog{body, certaintyIn(ownLog, speaker, certainty), true,
                           arrival.isSuperseded, isOfAnotherLog(speaker, ownLog)};
    return fileIn({ownLog, inOwnLog, false, id, speaker.told});
}

// Of a shared engine only the holder of a claim knows that the log is the one of now: what others
// bring must make room for what the holder brings.
Certainty Archive::certaintyIn(const Series& series, const Speaker& speaker,
                               Certainty certainty) const {
    const bool isClaimed = speaker.claimed != 0 && speaker.claimed == series.newest.series;
    const bool isAsGood = !store_.isShared() || isClaimed || certainty != Certainty::CERTAIN;
    return isAsGood ? certainty : Certainty::ENDED;
}

Archive::Speaker& Archive::speakerOf(LinkNumber link, View body) {
    Speaker& speaker = speakers_[link];
    if (speaker.series == nullptr ||
        memcmp(speaker.identity.data(), body.data(), IDENTITY_SIZE) != 0) {
        std::copy_n(body.begin(), IDENTITY_SIZE, speaker.identity.begin());
        speaker.series = &seriesOf(keyOf(body));
        speaker.isStranger = speaker.blade && *speaker.blade != speaker.series->key.blade;
    }
    reload(*speaker.series);
    return speaker;
}

std::vector<SeriesKey> Archive::logsOf(LinkNumber link, View body) const {
    std::vector<SeriesKey> logs = {keyOf(body)};
    const auto speaker = speakers_.find(link);
    if (speaker != speakers_.end() && speaker->second.blade &&
        *speaker->second.blade != logs.front().blade) {
        logs.push_back({*speaker->second.blade, logs.front().instance});
    }
    return logs;
}

bool Archive::isSuperseded(const Speaker& speaker, LinkNumber link) const {
    if (!speaker.blade) {
        return false;
    }
    const auto owner = owners_.find(*speaker.blade);
    return owner != owners_.end() && owner->second != 0 && owner->second != link;
}

bool Archive::isOfAnotherLog(const Speaker& speaker, const Series& series) {
    return speaker.told && speaker.told->isNot == series.newest;
}

Filed Archive::fileIn(const Filing& filing) {
    save(filing.series);
    if (settles(filing)) {
        const Bytes image = std::exchange(filing.series.unsettled, {});
        return act(filing, Fate::CONFIRM, Place{image, true, std::nullopt});
    }
    std::optional<StoredEvent> held;
    const Place place = placeOf(filing.series, filing.id, held);
    return act(filing, fateOf(filing.arrival, place), place);
}

// What a link filed itself need not be looked up: if anybody has changed it since, the storage says
// so when it is confirmed. Nothing else may rest on it.
bool Archive::settles(const Filing& filing) {
    return filing.arrival.certainty == Certainty::CERTAIN && !filing.series.unsettled.empty() &&
           std::ranges::equal(filing.series.unsettled, filing.arrival.image);
}

Place Archive::placeOf(const Series& series, U32_t id, std::optional<StoredEvent>& held) {
    Place place;
    if (!series.highestId || id > *series.highestId) {
        return place;
    }
    held = store_.heldEvent(series.newest, id);
    if (held) {
        place.image = held->image;
        place.isDoubtful = held->doubtful;
    } else if (series.proven && series.proven->contains(id)) {
        const auto oldest = store_.oldestEvent(series.newest);
        const bool isKnown = oldest && isWholeEvent(oldest->image);
        place.expiredBefore = isKnown ? U32_t{imageOf<EmpEvLogHeader_t>(oldest->image).evTime}
                                      : store_.droppedBefore();
    }
    return place;
}

Filed Archive::act(const Filing& filing, Fate fate, const Place& place) {
    Series& series = filing.series;
    switch (fate) {
    case Fate::STORE:
        return store(filing);
    case Fate::DUPLICATE:
        return dropDuplicate(series);
    case Fate::CONFIRM:
        store_.confirmEvent(series.newest, filing.arrival.image);
        extendRun(series, filing.id);
        return Filed::STORED;
    case Fate::REPLACE:
        setAside(series, Aside::REPLACED, *place.image, filing.own);
        removeFrom(series, filing.id);
        return store(filing);
    case Fate::OPEN_GENERATION:
        return openAndStore(filing);
    case Fate::SET_ASIDE:
        if (store_.isShared() && store_.isHeld(series.newest.series, filing.arrival.image)) {
            return dropDuplicate(series);
        }
        setAside(series, reasonOf(filing.arrival), filing.arrival.image, filing.own);
        return Filed::SET_ASIDE;
    default:
        return Filed::LEFT;
    }
}

Filed Archive::dropDuplicate(Series& series) {
    ++counts_.duplicates;
    ++series.duplicates;
    hasDuplicates_.insert(&series);
    touch(series);
    return Filed::DUPLICATE;
}

Filed Archive::refuse() {
    ++counts_.refused;
    if (!saidFull_) {
        say(Level::FAILURE,
            "the archive is full: " + std::to_string(rows_) + " events; further ones are refused");
        saidFull_ = true;
    }
    return Filed::REFUSED;
}

Filed Archive::store(const Filing& filing) {
    if (settings_.rowLimit > 0 && rows_ >= settings_.rowLimit) {
        return refuse();
    }
    Series& series = filing.series;
    const bool isDoubtful = filing.arrival.certainty != Certainty::CERTAIN;
    noteGap(series, filing.id);
    if (series.newest.series == 0) {
        series.newest.series = store_.addSeries(series.key);
    }
    if (series.newest.generation == 0) {
        openGeneration(series);
    }
    noteOldest(filing);
    store_.addEvent(series.newest, {filing.id, filing.arrival.image, filing.own, isDoubtful, now_});
    series.highestId = std::max(series.highestId.value_or(0), filing.id);
    touch(series);
    if (!isDoubtful) {
        extendRun(series, filing.id);
    } else if (filing.arrival.certainty == Certainty::SILENT) {
        series.unsettled.assign(filing.arrival.image.begin(), filing.arrival.image.end());
    }
    ++rows_;
    ++counts_.stored;
    counts_.bytes += filing.arrival.image.size();
    return Filed::STORED;
}

Filed Archive::openAndStore(const Filing& filing) {
    if (settings_.rowLimit > 0 && rows_ >= settings_.rowLimit) {
        return refuse();
    }
    openGeneration(filing.series);
    ++counts_.generations;
    const std::string why =
        filing.arrival.isOfAnotherLog ? ": begins anew, with id " : ": other bytes under id ";
    say(Level::WARNING, nameOf(filing.series.key) + why + std::to_string(filing.id) +
                            ", generation " + std::to_string(filing.series.newest.generation) +
                            " opened");
    store(filing);
    return Filed::NEW_GENERATION;
}

void Archive::touch(Series& series) {
    if (!series.isTouched) {
        touched_.insert(series.newest);
        series.isTouched = true;
    }
}

void Archive::extendRun(Series& series, U32_t id) {
    if (!series.proven) {
        series.proven = IdRun{id, id};
    } else if (id == U64_t{series.proven->last} + 1) {
        series.proven->last = id;
    }
}

void Archive::openGeneration(Series& series) {
    writeDuplicates(); // they belong to the generation before
    series.isTouched = false;
    ++series.newest.generation;
    series.highestId.reset();
    series.proven.reset();
    series.oldest.reset();
    series.notedTo = 0;
    series.unsettled.clear();
    store_.addGeneration(series.newest, now_);
}

// No id of a log is below its oldest one, whatever a damaged request has said.
void Archive::noteOldest(const Filing& filing) {
    Series& series = filing.series;
    const auto& told = filing.told;
    const U32_t oldest = told ? std::min(told->first, filing.id) : 0;
    const bool isNews = told && (!series.oldest || oldest > *series.oldest);
    if (isNews && told->log == series.key) {
        series.oldest = oldest;
        store_.noteOldest(series.newest, oldest);
    }
}

void Archive::noteGap(const Series& series, U32_t id) {
    const auto gap = gapBefore(series.highestId, id);
    if (!gap) {
        return;
    }
    ++counts_.gaps;
    say(Level::WARNING, nameOf(series.key) + ": gap, ids " + std::to_string(gap->first) + " to " +
                            std::to_string(gap->last) + " are missing");
}

void Archive::takeBack(LinkNumber link, View body) {
    ensureTransaction();
    const U32_t id = imageOf<EmpEvLogHeader_t>(body).evSequenceId;
    Speaker& speaker = speakerOf(link, body);
    if (speaker.series->isOurs) {
        takeBackFrom(*speaker.series, id, body);
    }
    if (!speaker.isStranger) {
        return;
    }
    const SeriesKey speakersLog{*speaker.blade, speaker.series->key.instance};
    if (settings_.share.has(speakersLog)) {
        takeBackFrom(seriesOf(speakersLog), id, body);
    }
}

void Archive::takeBackFrom(Series& series, U32_t id, View body) {
    save(series);
    std::optional<StoredEvent> held;
    const Place place = placeOf(series, id, held);
    if (!held || !std::ranges::equal(*place.image, body)) {
        return;
    }
    setAside(series, Aside::BORDERS_LOST, body, held->own);
    removeFrom(series, id);
    say(Level::NOTICE,
        nameOf(series.key) + ": event " + std::to_string(id) + " taken back, it may be damaged");
}

void Archive::removeFrom(Series& series, U32_t id) {
    series.unsettled.clear();
    store_.removeEvent(series.newest, id);
    series.highestId = store_.highestId(series.newest);
    if (series.proven && series.proven->contains(id)) {
        // What follows it is found again by the next walk.
        series.proven = id > series.proven->first
                            ? std::optional(IdRun{series.proven->first, id - 1})
                            : std::nullopt;
        store_.noteProven(series.newest, series.proven.value_or(IdRun{1, 0}));
        series.notedTo = series.proven ? series.proven->last : 0;
    }
    rows_ -= rows_ > 0 ? 1 : 0;
}

void Archive::setAside(const Series& series, Aside reason, View image, bool own) {
    ++counts_.setAside;
    store_.setAside(series.key, reason,
                    {imageOf<EmpEvLogHeader_t>(image).evSequenceId, image, own, true, now_});
}

} // namespace evarchive
