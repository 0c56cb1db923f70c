#include "evctl/views/crash.h"

#include "mmsg.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string>

namespace evctl {
namespace {

/** Writing all files takes less; a process that is started again after its end takes part of it. */
constexpr U32_t LONGEST_PAUSE = 10; // seconds

using Records = std::vector<const EvlogRecord_t*>;

U32_t idOf(const EvlogRecord_t& record) {
    return record.header->evId;
}

bool isOfCrash(const EvlogRecord_t& record) {
    U32_t id = idOf(record);
    return record.role != EVLOG_E_ROLE_DUMMY && record.header->evSource == MMSG_E_EPID_EVENTLOGMP &&
           id >= CRASH_FIRST_ID && id < EMP_E_ID_EVENTMGRMP_NEXT_ID &&
           record.body.size() == crashDataLength(id);
}

/** The records of one second, by id; each list in the order of the log. */
class Second {
  public:
    explicit Second(std::span<const EvlogRecord_t* const> records) {
        for (const EvlogRecord_t* record : records) {
            byId_.at(idOf(*record) - CRASH_FIRST_ID).push_back(record);
        }
    }

    /** Whether this second's records are so many whole bug-checks and nothing else. */
    bool isWhole() const {
        size_t count = byId_.front().size();
        return count > 0 && std::ranges::all_of(
                                byId_, [count](const Records& of) { return of.size() == count; });
    }

    /** Gives @p crash one record of each id from place @p from on. @return whether it got any */
    bool give(Crash& crash, size_t from) {
        bool given = false;
        for (size_t place = from; place < CRASH_RECORDS; place++) {
            Records& records = byId_[place];
            if (!records.empty()) {
                crash.records[place] = records.front();
                records.erase(records.begin());
                given = true;
            }
        }
        return given;
    }

  private:
    std::array<Records, CRASH_RECORDS> byId_;
};

/** The place behind a crash's last record. */
size_t endOf(const Crash& crash) {
    size_t end = CRASH_RECORDS;
    while (end > 0 && crash.records[end - 1] == nullptr) {
        end--;
    }
    return end;
}

/** Whether a crash may go on in a later second: files are written in the order of their ids. */
bool mayGoOn(const Crash& crash, U32_t time) {
    size_t end = endOf(crash);
    if (end == 0 || end == CRASH_RECORDS) {
        return false;
    }
    U32_t last = crash.records[end - 1]->header->evTime;
    return time > last && time - last <= LONGEST_PAUSE;
}

/** What a record keeps when it is taken from its file into the log. */
std::string contentOf(const EvlogRecord_t& record) {
    EmpEvRecord_t header = *record.header;
    header.evInstanceNumber = 0;
    header.evSequenceId = 0;
    std::string content(reinterpret_cast<const char*>(&header) + EMP_CRC_START,
                        EMP_EVENT_HEADER_SIZE);
    return content.append(record.body.begin(), record.body.end());
}

bool isWithin(std::span<const EvlogRecord_t> records, const EvlogRecord_t* record) {
    return std::greater_equal<>()(record, records.data()) &&
           std::less<>()(record, records.data() + records.size());
}

/** Notes which records wait, and removes the bug-checks of which all do and stand in the log, too:
 * files may outlive their replay. Single records are not looked at, those of another bug-check may
 * be the same. */
void judgeWaiting(std::vector<Crash>& crashes, const Records& all,
                  std::span<const EvlogRecord_t> waiting) {
    std::set<std::string> logged;
    for (const EvlogRecord_t* record : all) {
        if (!isWithin(waiting, record)) {
            logged.insert(contentOf(*record));
        }
    }
    for (Crash& crash : crashes) {
        for (size_t place = 0; place < CRASH_RECORDS; place++) {
            crash.waiting[place] = isWithin(waiting, crash.records[place]);
        }
    }
    std::erase_if(crashes, [&logged](const Crash& crash) {
        for (size_t place = 0; place < CRASH_RECORDS; place++) {
            const EvlogRecord_t* record = crash.records[place];
            if (record != nullptr &&
                (!crash.waiting[place] || !logged.contains(contentOf(*record)))) {
                return false;
            }
        }
        return true;
    });
}

void addSecond(std::vector<Crash>& crashes, std::span<const EvlogRecord_t* const> records) {
    Second second(records);
    if (!crashes.empty() && !second.isWhole() &&
        mayGoOn(crashes.back(), records.front()->header->evTime)) {
        second.give(crashes.back(), endOf(crashes.back()));
    }
    for (Crash crash; second.give(crash, 0); crash = {}) {
        crashes.push_back(crash);
    }
}

/** Files are taken over in the order of their own times, whole seconds of a clock that may lag
 * behind the events' one: what is at most a second apart is put into the order in which it
 * happened. */
void orderByTime(Records& records) {
    auto timeOf = [](const EvlogRecord_t* record) { return U64_t{record->header->evTime}; };
    for (auto first = records.begin(); first != records.end();) {
        auto last =
            std::adjacent_find(first, records.end(), [&](const auto* one, const auto* next) {
                return timeOf(one) > timeOf(next) + 1 || timeOf(next) > timeOf(one) + 1;
            });
        auto end = last == records.end() ? last : last + 1;
        std::ranges::stable_sort(first, end, {}, timeOf);
        first = end;
    }
}

} // namespace

U32_t crashDataLength(U32_t id) {
    switch (id) {
    case EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG:
        return sizeof(EmpErrorMsg_t);
    case EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO:
        return sizeof(EmpInfo_t);
    case EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER:
    case EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER:
        return 256;
    default:
        return 2000;
    }
}

std::vector<Crash> findCrashes(std::span<const EvlogRecord_t> records,
                               std::span<const EvlogRecord_t> waiting) {
    Records all;
    for (std::span<const EvlogRecord_t> some : {records, waiting}) {
        for (const EvlogRecord_t& record : some) {
            if (isOfCrash(record)) {
                all.push_back(&record);
            }
        }
    }
    orderByTime(all);
    std::vector<Crash> crashes;
    for (auto first = all.begin(); first != all.end();) {
        U32_t time = (*first)->header->evTime;
        auto end = std::find_if(first, all.end(), [time](const EvlogRecord_t* record) {
            return record->header->evTime != time;
        });
        addSecond(crashes, {first, end});
        first = end;
    }
    if (!waiting.empty()) {
        judgeWaiting(crashes, all, waiting);
    }
    return crashes;
}

} // namespace evctl
