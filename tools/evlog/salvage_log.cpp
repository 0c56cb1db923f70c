#include "evlog/salvage_log.h"

#include "altEventLog.h"
#include "emp_evl.h"
#include "mmsg.h"

#include <algorithm>
#include <cstring>

namespace salvage {
namespace {

/** Appends records to a result's bytes. */
class Log_t {
  public:
    explicit Log_t(EvlogSalvage_t& result) : result_(result) {
        result_.bytes.reserve(EMP_LOG_FILE_SIZE);
    }

    void writeEvent(const Event_t& event);
    void writeMarks(U64_t from, U64_t to, const EmpEvRecord_t& neighbour);
    void writeDummy(const Event_t& newest);

  private:
    U8_t* writeRecord(std::span<const U8_t> record);
    U8_t* writeOwnHeader(const EmpEvRecord_t& like, U16_t id);

    EvlogSalvage_t& result_;
};

void setKey(EmpEvRecord_t& header, U64_t key) {
    header.evInstanceNumber = static_cast<U32_t>(key >> 32);
    header.evSequenceId = static_cast<U32_t>(key);
}

/** The checksum of a record whose other fields are filled in. */
void seal(U8_t* record, U32_t dataLength) {
    reinterpret_cast<EmpEvRecord_t*>(record)->evRdCRCChecksum =
        computeCRC32(record + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + dataLength);
}

U8_t* Log_t::writeRecord(std::span<const U8_t> record) {
    size_t at = result_.bytes.size();
    result_.bytes.insert(result_.bytes.end(), record.begin(), record.end());
    auto* header = reinterpret_cast<EmpEvRecord_t*>(result_.bytes.data() + at);
    // The replay takes an alternate event of any version, the log holds none of a later one.
    header->evRdVersion = std::min<U8_t>(header->evRdVersion, EMP_RECORD_VERSION);
    return result_.bytes.data() + at;
}

/** A header of the event manager's own, without data. @param like whose blade and instance it is
 */
U8_t* Log_t::writeOwnHeader(const EmpEvRecord_t& like, U16_t id) {
    EmpEvRecord_t header = like;
    header.evRdVersion = EMP_RECORD_VERSION;
    memcpy(header.evEnclosureId, result_.identity.enclosureId, sizeof(header.evEnclosureId));
    header.evSlotId = result_.identity.slotId;
    header.evStructLength = 0;
    header.evSource = MMSG_E_EPID_EVENTLOGMP;
    header.evType = EMP_E_TYPE_INFORMATION;
    header.evCategory = EMP_E_CATEGORY_MANAGEMENT;
    header.evIdVersion = 1;
    header.evId = id;
    return writeRecord({reinterpret_cast<const U8_t*>(&header), sizeof(header)});
}

void Log_t::writeEvent(const Event_t& event) {
    U8_t* record = writeRecord(event.record);
    if (keyOf(event.header()) != event.key) {
        auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
        setKey(header, event.key);
        seal(record, header.evStructLength);
        result_.renumbered++;
    }
}

void Log_t::writeMarks(U64_t from, U64_t to, const EmpEvRecord_t& neighbour) {
    for (U64_t key = from; key < to; key++) {
        U8_t* record = writeOwnHeader(neighbour, EMP_E_ID_EVENTMGRMP_CORRUPTED_EVENT_LOG_FILE);
        auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
        setKey(header, key);
        header.evType = EMP_E_TYPE_WARNING;
        header.evIdVersion = EVLOG_LOST_ID_VERSION;
        seal(record, 0);
        result_.marks++;
    }
}

void Log_t::writeDummy(const Event_t& newest) {
    auto left = static_cast<U32_t>(EMP_LOG_LAST_HEADER - result_.bytes.size());
    U8_t* record = writeOwnHeader(newest.header(), EMP_E_ID_EVENTMGRMP_DUMMY);
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
    setKey(header, newest.key);
    header.evSequenceId = 0;
    header.evStructLength =
        static_cast<U16_t>(std::min<U32_t>(left, static_cast<U16_t>(EMP_DUMMY_TO_END)));
    seal(record, 0);
    result_.bytes.resize(EMP_LOG_FILE_SIZE);
}

} // namespace

void writeLog(const Events_t& events, bool beginsBefore, EvlogSalvage_t& result) {
    Log_t log(result);
    U64_t next = events.front().key - (beginsBefore ? 1 : 0);
    result.firstId = static_cast<U32_t>(next);
    result.lastId = static_cast<U32_t>(events.back().key);
    const EmpEvRecord_t* neighbour = &events.front().header();
    for (const Event_t& event : events) {
        log.writeMarks(next, event.key, *neighbour);
        log.writeEvent(event);
        neighbour = &event.header();
        next = event.key + 1;
    }
    result.saved = static_cast<U32_t>(events.size());
    log.writeDummy(events.back());
}

} // namespace salvage
