/** The archive's answers: what is claimed of a log, and what an inquiry finds. */
#include "archive.h"

namespace evarchive {
namespace {

// A run is written down when it has grown by so much: a start walks from there.
constexpr U32_t RUN_GROWTH_NOTED = 4096;

// Stands for the link of a blade that speaks on one of another process.
constexpr LinkNumber ELSEWHERE = ~LinkNumber{0};

} // namespace

StatusVerdict Archive::answerStatus(LinkNumber link, const EmpGetEvArchiverStatusMsg_t& request) {
    const SeriesKey key = logOf(request);
    ++counts_.statusAnswers;
    Series* series = store_.isShared() ? &claim(speakers_[link], request) : findSeries(key);
    setOwner(link, key.blade);
    Told& told = speakers_[link].told.emplace(Told{key, request.evSequenceIdFirst});
    const StatusVerdict verdict =
        series == nullptr ? NOTHING_HELD : verdictFor(request, *series, told);
    say(Level::INFO, nameOf(key) + " from id " + std::to_string(U32_t{request.evSequenceIdFirst}) +
                         (verdict == NOTHING_HELD
                              ? ", nothing of it claimed"
                              : ", claimed to id " + std::to_string(verdict.sequenceIdLast)));
    return verdict;
}

void Archive::noteSpeaker(LinkNumber link, const BladeKey& blade) {
    setOwner(link, blade);
}

void Archive::setOwner(LinkNumber link, const BladeKey& blade) {
    Speaker& speaker = speakers_[link];
    speaker.blade = blade;
    speaker.series = nullptr;
    LinkNumber& owner = owners_[blade];
    ownersBefore_.emplace_back(blade, owner);
    owner = link;
}

// What was known by heart may be what it was before another process had the blade.
void Archive::claimAhead(const std::vector<EmpGetEvArchiverStatusMsg_t>& requests) {
    std::vector<Claimant> claimants;
    for (const EmpGetEvArchiverStatusMsg_t& request : requests) {
        const SeriesKey key = logOf(request);
        claimants.push_back({key, request.evSequenceIdFirst});
        series_.try_emplace(key, key).first->second.isForgotten = true;
    }
    std::vector<Claim> claims = store_.claimAll(claimants);
    ahead_.clear();
    for (std::size_t i = 0; i < claims.size(); ++i) {
        ahead_.emplace(std::move(claimants[i].key), std::move(claims[i]));
    }
}

Archive::Series& Archive::claim(Speaker& speaker, const EmpGetEvArchiverStatusMsg_t& request) {
    const SeriesKey key = logOf(request);
    if (!ahead_.contains(key)) {
        claimAhead({request});
    }
    const Claim claimed = ahead_.extract(key).mapped();
    Series& series = series_.try_emplace(key, key).first->second;
    speaker.claimed = claimed.series;
    load(series, claimed);
    return series;
}

std::vector<LinkNumber> Archive::loseClaims(const std::vector<SeriesNumber>& lost) {
    std::vector<LinkNumber> links;
    for (auto& [link, speaker] : speakers_) {
        if (speaker.claimed != 0 && std::ranges::count(lost, speaker.claimed) > 0) {
            LinkNumber& owner = owners_[*speaker.blade];
            if (owner == link) {
                owner = ELSEWHERE;
                links.push_back(link);
            }
        }
    }
    return links;
}

StatusVerdict Archive::verdictFor(const EmpGetEvArchiverStatusMsg_t& request, Series& series,
                                  Told& told) {
    save(series);
    const U32_t first = request.evSequenceIdFirst;
    std::optional<StoredEvent> held;
    const Place place = placeOf(series, first, held);
    const bool isSame = isSameLog(request, place);
    if (isAnotherLog(first, series.oldest, isSame)) {
        told.isNot = series.newest;
    }
    if (!isSame) {
        return NOTHING_HELD;
    }
    if (!place.image) {
        say(Level::INFO, nameOf(series.key) + ": its id " + std::to_string(first) +
                             " has expired here and could not be compared");
    }
    const IdRun run = runFrom(series, first);
    if (settings_.clear == Clear::NOTHING || !place.image) {
        return claimOf(run);
    }
    const auto clear = clearOf(run, settings_.clear);
    if (!clear || !cleared_.insert(series.key).second) {
        return claimOf(run);
    }
    clearedNow_.push_back(series.key);
    say(Level::NOTICE, nameOf(series.key) + ": asked to drop its events up to id " +
                           std::to_string(clear->sequenceIdLast));
    return *clear;
}

IdRun Archive::runFrom(Series& series, U32_t first) {
    if (!series.proven || !series.proven->contains(first)) {
        // Another run: from now on it is the one that is known.
        series.proven = IdRun{first, first};
        series.notedTo = 0;
    }
    if (series.highestId.value_or(0) > series.proven->last) {
        extendProven(series);
    }
    if (series.proven->last - series.notedTo >= RUN_GROWTH_NOTED) {
        ensureTransaction();
        noteRun(series);
    }
    return {first, series.proven->last};
}

// The last id of the run may be one that retention took; the next one tells whether it goes on.
void Archive::extendProven(Series& series) {
    const U32_t next = series.proven->last + 1;
    const auto held = store_.heldEvent(series.newest, next);
    if (held && !held->doubtful) {
        series.proven->last = store_.endOfRun(series.newest, next);
    }
}

void Archive::noteRun(Series& series) {
    store_.noteProven(series.newest, *series.proven);
    series.notedTo = series.proven->last;
}

void Archive::noteRuns() {
    for (auto& [key, series] : series_) {
        if (!series.isForgotten && series.proven && series.newest.generation > 0 &&
            series.proven->last != series.notedTo) {
            ensureTransaction();
            save(series);
            noteRun(series);
        }
    }
}

std::optional<StoredEvent> Archive::answerInquiry(const EmpEvInquiryMsg_t& inquiry) {
    const SeriesKey key = logOf(inquiry);
    const auto newest = newestOf(key);
    const auto type = static_cast<EMP_INQUIRY_TYPE_e>(U32_t{inquiry.evInquiryType});
    auto event = newest ? store_.findEvent(*newest, type, inquiry.evSeqIdInquiry) : std::nullopt;
    if (event && !isWholeEvent(event->image)) {
        say(Level::WARNING,
            nameOf(key) + ": event " + std::to_string(event->sequenceId) + " is damaged");
        event.reset();
    }
    ++(event ? counts_.found : counts_.notFound);
    return event;
}

std::optional<GenerationKey> Archive::newestOf(const SeriesKey& key) {
    if (!store_.isShared()) {
        const Series* series = findSeries(key);
        return series != nullptr ? std::optional(series->newest) : std::nullopt;
    }
    const auto number = store_.findSeries(key);
    const auto newest = number ? store_.newestGeneration(*number) : std::nullopt;
    return newest ? std::optional(newest->number) : std::nullopt;
}

} // namespace evarchive
