#include "rules.h"

namespace evarchive {
namespace {

Fate fateOfSameBytes(const Arrival& arrival, const Place& place) {
    if (arrival.certainty != Certainty::CERTAIN) {
        return Fate::LEAVE;
    }
    return place.isDoubtful ? Fate::CONFIRM : Fate::DUPLICATE;
}

// The archive holds, for certain, other bytes under the id, or those of another log.
Fate fateOfOtherBytes(const Arrival& arrival) {
    switch (arrival.certainty) {
    case Certainty::CERTAIN:
        return arrival.mayOpen ? Fate::OPEN_GENERATION : Fate::SET_ASIDE;
    case Certainty::SILENT:
        return Fate::LEAVE;
    default:
        return Fate::SET_ASIDE;
    }
}

// The place was taken once, and what was there cannot be compared any more. A log's times ascend,
// so an event younger than what followed it is one of another log.
Fate fateOfExpired(const Arrival& arrival, U32_t oldestTime) {
    const auto header = imageOf<EmpEvLogHeader_t>(arrival.image);
    return header.evTime <= oldestTime ? Fate::DUPLICATE : fateOfOtherBytes(arrival);
}

} // namespace

Fate fateOf(const Arrival& arrival, const Place& place) {
    if (place.image && std::ranges::equal(*place.image, arrival.image)) {
        return fateOfSameBytes(arrival, place);
    }
    if (arrival.isSuperseded) {
        return arrival.certainty == Certainty::SILENT ? Fate::LEAVE : Fate::SET_ASIDE;
    }
    if (arrival.isOfAnotherLog) {
        return fateOfOtherBytes(arrival);
    }
    if (place.image) {
        return place.isDoubtful ? Fate::REPLACE : fateOfOtherBytes(arrival);
    }
    return place.expiredBefore ? fateOfExpired(arrival, *place.expiredBefore) : Fate::STORE;
}

std::optional<IdRun> gapBefore(std::optional<U32_t> highestId, U32_t id) {
    // 64 bits: behind the last id of all there is none, the instance rises and ids begin at 0.
    if (!highestId || U64_t{id} <= U64_t{*highestId} + 1) {
        return std::nullopt;
    }
    return IdRun{*highestId + 1, id - 1};
}

bool isSameLog(const EmpGetEvArchiverStatusMsg_t& request, const Place& oldest) {
    if (!oldest.image) {
        return oldest.expiredBefore.has_value();
    }
    if (oldest.isDoubtful || !isWholeEvent(*oldest.image)) {
        return false;
    }
    const View data = oldest.image->subspan(EMP_EVENT_HEADER_SIZE);
    const std::size_t compared = std::min(data.size(), sizeof(request.evRandom));
    return data.size() == request.evStructLength &&
           std::ranges::equal(data.first(compared), View(request.evRandom).first(compared));
}

bool isAnotherLog(U32_t first, std::optional<U32_t> firstThen, bool isSame) {
    return !isSame && firstThen && first < *firstThen;
}

StatusVerdict claimOf(const IdRun& run) {
    return run.last == run.first ? NOTHING_HELD : StatusVerdict{run.last - 1, 0};
}

std::optional<StatusVerdict> clearOf(const IdRun& run, Clear clear) {
    const U32_t kept = clear == Clear::ALL_BUT_NEWEST ? 1 : 0;
    if (clear == Clear::NOTHING || run.last - run.first < kept) {
        return std::nullopt;
    }
    return StatusVerdict{run.last - kept, EMP_E_ARCHIVER_CONTROL_CLEAR};
}

bool isWholeEvent(View image) {
    return image.size() >= sizeof(EmpEvLogHeader_t) && image.size() <= LARGEST_EVENT_BODY &&
           image.size() ==
               sizeof(EmpEvLogHeader_t) + imageOf<EmpEvLogHeader_t>(image).evStructLength;
}

} // namespace evarchive
