#include "evlog/append_model.h"

#include "altEventLog.h"
#include "emp_evl.h"
#include "evlog/search.h"
#include "mmsg.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char INCORRECT_SIGNATURE[] = "Incorrect Signature in Event Entry!";
constexpr char MISMATCHING[] = "Mismatching empStartSequenceId in Event Entry!";
constexpr char REACH_DUMMY[] = "Reach Dummy Entry but still not enough space!";
constexpr char READ_FAILS[] = "Linux read function fails for Event Log File!";
constexpr char BAD_SOURCE[] = "Bad Event Source";
constexpr char INVALID_FIRST[] = "empStartSequenceId = [";
constexpr char INVALID_ENTRY[] = "Start points to invalid Event Entry?";

U32_t slotOf(U32_t sequenceId) {
    return sequenceId % EMP_INDEX_ENTRIES;
}

bool hasSignature(const EmpEvRecord_t& header) {
    return header.evRdSignature == EMP_RECORD_SIGNATURE;
}

} // namespace

EvlogAppendModel_t::EvlogAppendModel_t(const EvlogImage_t& image, const EvlogState_t& state,
                                       const std::vector<EvlogRecord_t>& records)
    : bytes_(image.bytes), index_(EMP_INDEX_ENTRIES), write_(state.empWrite),
      start_(state.empStart), startId_(state.empStartSequenceId), sequenceId_(state.empSequenceId),
      wrapOver_(state.wrapOver) {
    bool anew = state.end == EVLOG_E_END_CLEARED || state.verdict == EVLOG_E_VERDICT_FRESH;
    if (anew) {
        write_ = 0;
        bytes_.clear();
        writeRecord(0, sizeof(EmpEventData_t));
        writeDummy(write_, static_cast<U16_t>(EMP_DUMMY_TO_END), true);
        return;
    }
    for (const EvlogRecord_t& record : records) {
        if (record.taken) {
            index_[slotOf(record.header->evSequenceId)] = {true, record.offset};
        }
    }
    if (state.end == EVLOG_E_END_NOT_FOUND && state.dummyOffset <= EMP_LOG_FILE_SIZE) {
        writeDummy(state.dummyOffset, state.dummyLength, true);
    }
}

const char* EvlogAppendModel_t::append(U32_t dataLength) {
    U32_t id = sequenceId_++;
    need_ = static_cast<U16_t>(EMP_RECORD_SIZE + dataLength);
    const char* bugcheck = nullptr;
    if (U64_t{write_} + need_ <= start_) {
        bugcheck = makeRoomInGap();
    } else if (!evlogBeyondEnd(write_, need_)) {
        bugcheck = makeRoomAtStart();
    } else {
        bugcheck = wrapToTop(id);
    }
    if (bugcheck != nullptr) {
        return bugcheck;
    }
    writeRecord(id, dataLength);
    if (start_ == EMP_LOG_FILE_SIZE) {
        writeDummy(write_, EMP_LOG_LAST_HEADER - write_, wrapOver_);
    }
    return nullptr;
}

const char* EvlogAppendModel_t::inquiryBugcheck() const {
    for (bool isFirst : {true, false}) {
        // KEEP: whether there is such an event is not looked at: that of none leads to offset 0.
        const U32_t offset = index_[slotOf(isFirst ? startId_ : sequenceId_ - 1U)].offset;
        const EmpEvRecord_t* header = headerAt(offset);
        if (header == nullptr) {
            return READ_FAILS;
        }
        if (!hasSignature(*header)) {
            return isFirst ? INVALID_FIRST : INVALID_ENTRY;
        }
        const U32_t length = header->evStructLength;
        if (length > EMP_MAX_STRUCT || bytes_.size() < size_t{offset} + EMP_RECORD_SIZE + length) {
            return READ_FAILS;
        }
    }
    return nullptr;
}

const EmpEvRecord_t* EvlogAppendModel_t::headerAt(U32_t offset) const {
    bool there = size_t{offset} + EMP_RECORD_SIZE <= bytes_.size();
    return there ? evlogHeaderAt(bytes_, offset) : nullptr;
}

void EvlogAppendModel_t::forgetOldest(U32_t slot) {
    index_[slot] = {};
    startId_++;
}

const char* EvlogAppendModel_t::discard(const EmpEvRecord_t& header) {
    U32_t slot = slotOf(header.evSequenceId);
    if (slot != slotOf(startId_)) {
        return MISMATCHING;
    }
    forgetOldest(slot);
    return nullptr;
}

/** The next record, as the event manager's own search meets it. */
std::optional<U32_t> EvlogAppendModel_t::findFrom(U32_t start, const char** bugcheck) {
    // The nominal end itself is still probed: a longer file may hold a header there.
    size_t probes = std::min<size_t>(EMP_LOG_FILE_SIZE + 1, bytes_.size());
    for (size_t at = start; at < probes && at + EMP_RECORD_SIZE <= bytes_.size(); at++) {
        const void* hit = memchr(bytes_.data() + at, EMP_RECORD_SIGNATURE >> 8, probes - at);
        if (hit == nullptr) {
            return std::nullopt;
        }
        at = static_cast<size_t>(static_cast<const U8_t*>(hit) - bytes_.data());
        if (at + EMP_RECORD_SIZE > bytes_.size()) {
            return std::nullopt;
        }
        const EmpEvRecord_t& header = *evlogHeaderAt(bytes_, static_cast<U32_t>(at));
        EvlogRecord_t record;
        EVLOG_REASON_e reason = evlogReadRecord(std::span(bytes_).subspan(at), &record);
        looked_ += reason == EVLOG_E_REASON_CHECKSUM ? evlogRecordLength(header) : 1;
        if (reason == EVLOG_E_REASON_NONE) {
            return static_cast<U32_t>(at);
        }
        if (evlogIsBadSource(header)) {
            *bugcheck = BAD_SOURCE;
        }
        if (*bugcheck != nullptr || reason == EVLOG_E_REASON_CUT) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

const char* EvlogAppendModel_t::makeRoomInGap() {
    if (write_ >= EMP_LOG_FILE_SIZE) {
        write_ = 0;
        start_ = 0;
        startId_++;
    }
    const char* bugcheck = nullptr;
    std::optional<U32_t> found = findFrom(write_, &bugcheck);
    if (bugcheck != nullptr || !found || *found == start_) {
        return bugcheck;
    }
    need_ = static_cast<U16_t>(need_ - (*found - write_));
    return discardInGap(*found);
}

const char* EvlogAppendModel_t::discardInGap(U32_t position) {
    for (;;) {
        const EmpEvRecord_t* header = headerAt(position);
        if (header == nullptr) {
            return READ_FAILS;
        }
        bool dummy = evlogIsDummy(*header);
        bool toTheEnd = dummy && header->evStructLength >= EMP_DUMMY_TO_END;
        if (!toTheEnd && !hasSignature(*header)) {
            return INCORRECT_SIGNATURE;
        }
        U32_t length = toTheEnd ? EMP_LOG_FILE_SIZE - position : evlogRecordLength(*header);
        bool enough = length >= need_;
        if (dummy && !enough && wrapOver_) {
            return REACH_DUMMY;
        }
        if (const char* bugcheck = dummy ? nullptr : discard(*header)) {
            return bugcheck;
        }
        if (enough) {
            return nullptr;
        }
        // KEEP: in an unwrapped log the dummy stays where it is, its length counting once more.
        position += dummy ? 0 : length;
        need_ = static_cast<U16_t>(need_ - length);
    }
}

const char* EvlogAppendModel_t::makeRoomAtStart() {
    need_ = static_cast<U16_t>(need_ + (write_ - start_));
    while (!evlogBeyondEnd(start_, EMP_RECORD_SIZE)) {
        const EmpEvRecord_t* header = headerAt(start_);
        if (header == nullptr) {
            return READ_FAILS;
        }
        if (!hasSignature(*header)) {
            return INCORRECT_SIGNATURE;
        }
        // KEEP: a dummy that runs to the end of the file counts by its stated length here.
        U32_t length = evlogRecordLength(*header);
        bool enough = length >= need_;
        if (evlogIsDummy(*header)) {
            if (!enough && bytes_.size() >= EMP_LOG_FILE_SIZE) {
                return REACH_DUMMY;
            }
            start_ = EMP_LOG_FILE_SIZE;
            return nullptr;
        }
        if (const char* bugcheck = discard(*header)) {
            return bugcheck;
        }
        start_ += length;
        if (enough) {
            return nullptr;
        }
        need_ = static_cast<U16_t>(need_ - length);
    }
    start_ = EMP_LOG_FILE_SIZE;
    return nullptr;
}

const char* EvlogAppendModel_t::wrapToTop(U32_t newId) {
    const EmpEvRecord_t* top = headerAt(0);
    if (top == nullptr) {
        return READ_FAILS;
    }
    if (!hasSignature(*top)) {
        return INCORRECT_SIGNATURE;
    }
    // KEEP: slot numbers are compared, not ids.
    U32_t topSlot = slotOf(top->evSequenceId);
    for (U32_t slot = slotOf(startId_); slot < topSlot; slot++) {
        forgetOldest(slot);
    }
    writeDummy(write_, EMP_LOG_LAST_HEADER - write_, wrapOver_);
    write_ = 0;
    start_ = 0;
    wrapOver_ = true;
    wraps_++;
    discardFromTop(newId);
    return nullptr;
}

void EvlogAppendModel_t::discardFromTop(U32_t newId) {
    for (;;) {
        U32_t here = index_[slotOf(startId_)].offset;
        U32_t next = index_[slotOf(startId_ + 1)].offset;
        auto leadsNowhere = [](const Slot_t& slot) { return slot.offset == 0; };
        if (here == 0 && next == 0 && std::ranges::all_of(index_, leadsNowhere)) {
            // Nothing sizes anything: the log starts again with the new record.
            std::ranges::fill(index_, Slot_t{});
            startId_ = newId;
            start_ = EMP_LOG_FILE_SIZE;
            return;
        }
        U32_t length = next - here;
        forgetOldest(slotOf(startId_));
        start_ += length;
        if (length >= need_) {
            return;
        }
        need_ = static_cast<U16_t>(need_ - length);
    }
}

void EvlogAppendModel_t::writeBytes(U32_t offset, std::span<const U8_t> bytes) {
    if (bytes_.size() < size_t{offset} + bytes.size()) {
        bytes_.resize(size_t{offset} + bytes.size());
    }
    std::ranges::copy(bytes, bytes_.begin() + offset);
}

void EvlogAppendModel_t::writeZeros(U32_t offset, U32_t length) {
    if (bytes_.size() < size_t{offset} + length) {
        bytes_.resize(size_t{offset} + length);
    }
    std::fill_n(bytes_.begin() + offset, length, U8_t{0});
}

void EvlogAppendModel_t::writeRecord(U32_t id, U32_t dataLength) {
    std::vector<U8_t> record(EMP_RECORD_SIZE + dataLength);
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(record.data());
    header.evRdSignature = EMP_RECORD_SIGNATURE;
    header.evRdVersion = EMP_RECORD_VERSION;
    header.evSequenceId = id;
    header.evStructLength = static_cast<U16_t>(dataLength);
    header.evSource = MMSG_E_EPID_SNMPMP;
    header.evRdCRCChecksum =
        computeCRC32(record.data() + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + dataLength);
    writeBytes(write_, record);
    index_[slotOf(id)] = {true, write_};
    write_ += static_cast<U32_t>(record.size());
}

void EvlogAppendModel_t::writeDummy(U32_t offset, U32_t length, bool fill) {
    if (evlogBeyondEnd(offset, EMP_RECORD_SIZE)) {
        if (offset <= EMP_LOG_FILE_SIZE) {
            writeZeros(offset, EMP_LOG_FILE_SIZE - offset);
        }
        return;
    }
    EmpEvRecord_t header;
    memset(static_cast<void*>(&header), 0, sizeof(header));
    header.evRdSignature = EMP_RECORD_SIGNATURE;
    header.evRdVersion = EMP_RECORD_VERSION;
    header.evStructLength =
        static_cast<U16_t>(std::min<U32_t>(length, static_cast<U16_t>(EMP_DUMMY_TO_END)));
    header.evSource = MMSG_E_EPID_EVENTLOGMP;
    header.evId = EMP_E_ID_EVENTMGRMP_DUMMY;
    const auto* bytes = reinterpret_cast<const U8_t*>(&header);
    header.evRdCRCChecksum = computeCRC32(bytes + EMP_CRC_START, EMP_EVENT_HEADER_SIZE);
    writeBytes(offset, {bytes, EMP_RECORD_SIZE});
    if (fill) {
        U32_t covered = length == EMP_DUMMY_TO_END ? EMP_LOG_LAST_HEADER - offset : length;
        writeZeros(offset + EMP_RECORD_SIZE, covered);
    }
}
