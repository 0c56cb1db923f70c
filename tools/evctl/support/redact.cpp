#include "evctl/support/redact.h"

#include "altEventLog.h"
#include "catalog/advice.h"
#include "emp_evl.h"
#include "mmsg.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

/** The length of a text, which need not have a NUL. */
template <size_t Size>
size_t lengthOf(const U8_t (&text)[Size]) {
    return strnlen(reinterpret_cast<const char*>(text), Size);
}

template <size_t Size>
std::string textOf(const U8_t (&text)[Size]) {
    return {reinterpret_cast<const char*>(text), lengthOf(text)};
}

/** Nothing is left of what stood behind its end. */
template <size_t Size>
void clearBehind(U8_t (&text)[Size]) {
    size_t length = lengthOf(text);
    memset(text + length, 0, Size - length);
}

/** Whether one of the functions, divided by ", ", has this name. */
bool isOneOf(const std::string& functions, const std::string& name) {
    return !name.empty() && (", " + functions + ", ").find(", " + name + ", ") != std::string::npos;
}

/** The only data that hold nothing but what the program itself says; anybody may send what looks
 * like it, so only a message that is known is one. Its file goes, the function is enough. */
bool keepBugcheckMessage(const EmpEvRecord_t& header, U8_t* data, U32_t dataLength) {
    if (header.evSource != MMSG_E_EPID_EVENTLOGMP ||
        header.evId != EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG ||
        dataLength != sizeof(EmpErrorMsg_t)) {
        return false;
    }
    auto& error = *reinterpret_cast<EmpErrorMsg_t*>(data);
    const catalog::Advice* known = catalog::adviceFor(textOf(error.empErrorMsg));
    if (known == nullptr || !isOneOf(known->functions, textOf(error.empFunctionName))) {
        return false;
    }
    memset(error.empFileName, 0, sizeof(error.empFileName));
    clearBehind(error.empFunctionName);
    clearBehind(error.empErrorMsg);
    return true;
}

/** Numbers that name the hardware, as a text would. */
bool isIdentifying(const std::string& member) {
    return member == "serialNo";
}

/** Texts that name no customer, place or single piece: states, and what sort of product it is. */
bool isHarmless(const std::string& member) {
    constexpr std::array<std::string_view, 6> members = {"link",     "mpuVer",    "r7qVer",
                                                         "vendorId", "productId", "revisionLvl"};
    return std::ranges::find(members, member) != members.end();
}

} // namespace

void Redaction::rename(U8_t (&text)[EMP_ID_TEXT_SIZE], const char* kind) {
    std::string name = textOf(text);
    memset(text, 0, sizeof(text));
    if (name.empty()) {
        return;
    }
    auto [place, isNew] = names_.try_emplace(kind + name);
    if (isNew) {
        place->second = kind + std::to_string(names_.size());
    }
    memcpy(text, place->second.data(), place->second.size());
}

void Redaction::redact(U8_t* record, U32_t dataLength) {
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
    rename(header.evEnclosureId, "ENCLOSURE-");
    rename(header.evBladeId, "BLADE-");
    header.evRdReserved = 0;
    if (!keepBugcheckMessage(header, record + EMP_RECORD_SIZE, dataLength)) {
        memset(record + EMP_RECORD_SIZE, 0, dataLength);
    }
    header.evRdCRCChecksum =
        computeCRC32(record + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + dataLength);
}

std::vector<U8_t> Redaction::log(const EvlogImage_t& image) {
    std::vector<U8_t> bytes(image.bytes.size());
    evlogWalk(image, {.onRecord =
                          [&](const EvlogRecord_t& record) {
                              U8_t* place = bytes.data() + record.offset;
                              memcpy(place, record.header, EMP_RECORD_SIZE);
                              std::ranges::copy(record.body, place + EMP_RECORD_SIZE);
                              redact(place, static_cast<U32_t>(record.body.size()));
                          },
                      .onFinding = {}});
    return bytes;
}

std::vector<U8_t> Redaction::record(std::span<const U8_t> bytes) {
    EvlogRecord_t found;
    if (evlogReadAlternate(bytes, &found) != EVLOG_E_REASON_NONE) {
        return {};
    }
    auto length = static_cast<std::ptrdiff_t>(EMP_RECORD_SIZE + found.body.size());
    std::vector<U8_t> record(bytes.begin(), bytes.begin() + length);
    redact(record.data(), static_cast<U32_t>(found.body.size()));
    return record;
}

Json Redaction::object(Json json) {
    for (auto member = json.begin(); member != json.end(); ++member) {
        if (member->is_structured()) {
            *member = object(*member);
        } else if (json.is_object() && isHarmless(member.key())) {
            continue;
        } else if ((member->is_string() && !member->get_ref<const std::string&>().empty()) ||
                   (json.is_object() && isIdentifying(member.key()))) {
            *member = "redacted";
        }
    }
    return json;
}

} // namespace evctl
