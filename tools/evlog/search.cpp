#include "evlog/search.h"

#include "emp_evl.h"
#include "mmsg.h"

#include <algorithm>
#include <cstring>

namespace {

bool isSignature(std::span<const U8_t> bytes) {
    return bytes.size() >= 2 && bytes[0] == (EMP_RECORD_SIGNATURE >> 8) &&
           bytes[1] == (EMP_RECORD_SIGNATURE & 0xFF);
}

} // namespace

bool evlogIsBadSource(const EmpEvRecord_t& header) {
    return header.evRdSignature == EMP_RECORD_SIGNATURE &&
           header.evRdVersion <= EMP_RECORD_VERSION && header.evType <= EMP_E_TYPE_ERROR &&
           header.evSource > MMSG_E_MAX_DEFINED_EPIDS;
}

bool evlogIsDummy(const EmpEvRecord_t& header) {
    return header.evSource == MMSG_E_EPID_EVENTLOGMP && header.evId == EMP_E_ID_EVENTMGRMP_DUMMY;
}

EVLOG_REASON_e evlogJudgeHeader(const EmpEvRecord_t& header) {
    if (header.evRdSignature != EMP_RECORD_SIGNATURE) {
        return EVLOG_E_REASON_NO_HEADER;
    }
    if (header.evRdVersion > EMP_RECORD_VERSION) {
        return EVLOG_E_REASON_VERSION;
    }
    if (header.evSource > MMSG_E_MAX_DEFINED_EPIDS) {
        return EVLOG_E_REASON_SOURCE;
    }
    // KEEP: the limit is waived for the event manager's own records and for id 1 of any source.
    if (header.evStructLength > EMP_MAX_STRUCT && header.evSource != MMSG_E_EPID_EVENTLOGMP &&
        header.evId != EMP_E_ID_EVENTMGRMP_DUMMY) {
        return EVLOG_E_REASON_LENGTH;
    }
    return EVLOG_E_REASON_NONE;
}

U32_t evlogBodyLength(const EmpEvRecord_t& header) {
    return evlogIsDummy(header) ? 0 : U32_t{header.evStructLength};
}

EvlogFinder_t::EvlogFinder_t(std::span<const U8_t> bytes)
    : bytes_(bytes), checkpoints_(RangeCrc_t::checkpointsFor(bytes.size())),
      crc_(bytes.data(), checkpoints_.data()) {
    crc_.reach(static_cast<U32_t>(bytes.size()));
}

EVLOG_REASON_e EvlogFinder_t::judge(U32_t offset) const {
    if (size_t{offset} + EMP_RECORD_SIZE > bytes_.size()) {
        return isSignature(bytes_.subspan(offset)) ? EVLOG_E_REASON_CUT : EVLOG_E_REASON_NO_HEADER;
    }
    const EmpEvRecord_t& header = *evlogHeaderAt(bytes_, offset);
    EVLOG_REASON_e reason = evlogJudgeHeader(header);
    if (reason != EVLOG_E_REASON_NONE) {
        return reason;
    }
    U32_t bodyLength = evlogBodyLength(header);
    if (size_t{offset} + EMP_RECORD_SIZE + bodyLength > bytes_.size()) {
        return EVLOG_E_REASON_CUT;
    }
    U32_t crc = crc_.ofRange(offset + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + bodyLength);
    return crc == header.evRdCRCChecksum ? EVLOG_E_REASON_NONE : EVLOG_E_REASON_CHECKSUM;
}

std::optional<U32_t> EvlogFinder_t::nextSignature(U32_t start) const {
    // The nominal end itself is still probed: a longer file may hold a header there.
    size_t probes = std::min<size_t>(EMP_LOG_FILE_SIZE + 1, bytes_.size());
    for (size_t at = start; at + EMP_RECORD_SIZE <= bytes_.size() && at < probes; at++) {
        const void* hit = memchr(bytes_.data() + at, EMP_RECORD_SIGNATURE >> 8, probes - at);
        if (hit == nullptr) {
            return std::nullopt;
        }
        at = static_cast<size_t>(static_cast<const U8_t*>(hit) - bytes_.data());
        if (at + EMP_RECORD_SIZE > bytes_.size()) {
            return std::nullopt;
        }
        if (isSignature(bytes_.subspan(at))) {
            return static_cast<U32_t>(at);
        }
    }
    return std::nullopt;
}

EvlogSearch_t EvlogFinder_t::next(U32_t start) const {
    EvlogSearch_t search;
    for (std::optional<U32_t> at = nextSignature(start); at; at = nextSignature(*at + 1)) {
        EVLOG_REASON_e reason = judge(*at);
        if (reason == EVLOG_E_REASON_NONE) {
            search.found = at;
            return search;
        }
        if (reason == EVLOG_E_REASON_CUT && !search.cut) {
            search.cut = at;
        }
        if (!search.badSource && evlogIsBadSource(*evlogHeaderAt(bytes_, *at))) {
            search.badSource = at;
            search.badSourceValue = evlogHeaderAt(bytes_, *at)->evSource;
        }
    }
    return search;
}
