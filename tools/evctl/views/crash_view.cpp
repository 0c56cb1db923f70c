#include "evctl/views/crash_view.h"

#include "catalog/advice.h"
#include "common/names.h"
#include "configuration.h"
#include "evctl/views/event_view.h"
#include "evctl/views/lines.h"
#include "mmsg.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr U32_t PIECE_ENTRIES = 500; // of the index, in one record
constexpr size_t LINE_WIDTH = 14;
constexpr size_t CONTROL_WIDTH = 48;

std::string bytesOf(const Json& hex) {
    auto digits = hex.get<std::string>();
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

std::string dumpOf(const Json& hex) {
    std::string bytes = bytesOf(hex);
    return hexDump({reinterpret_cast<const U8_t*>(bytes.data()), bytes.size()});
}

/** The endpoints in a bitmap, by name. */
Json endpointsOf(const U32be_t (&bitmap)[2]) {
    Json endpoints = Json::array();
    for (U32_t endpoint = 0; endpoint < 64; endpoint++) {
        if ((bitmap[endpoint / 32] >> endpoint % 32 & 1U) != 0) {
            endpoints.push_back(tools::endpointNames.brief(endpoint));
        }
    }
    return endpoints;
}

/** What all records say alike, and which of them there are. */
void addPlace(Json& json, const Crash& crash) {
    const EmpEvRecord_t* first = nullptr;
    U32_t lowest = UINT32_MAX;
    U32_t highest = 0;
    U32_t present = 0;
    Json missing = Json::array();
    for (size_t place = 0; place < CRASH_RECORDS; place++) {
        if (crash.records[place] == nullptr) {
            missing.push_back(CRASH_FIRST_ID + place);
            continue;
        }
        const EmpEvRecord_t& header = *crash.records[place]->header;
        first = first == nullptr ? &header : first;
        present++;
        if (!crash.waiting[place]) {
            lowest = std::min<U32_t>(lowest, header.evSequenceId);
            highest = std::max<U32_t>(highest, header.evSequenceId);
        }
    }
    bool hasIds = crash.waiting.count() < present;
    json.update({{"time", isoTime(first->evTime)},
                 {"seconds", U32_t{first->evTime}},
                 {"records", present},
                 {"waiting", crash.waiting.count()},
                 {"missing", missing},
                 {"lowestSequenceId", hasIds ? Json(lowest) : Json(nullptr)},
                 {"highestSequenceId", hasIds ? Json(highest) : Json(nullptr)},
                 {"enclosureId", escapedText(first->evEnclosureId)},
                 {"bladeId", escapedText(first->evBladeId)},
                 {"slotId", U32_t{first->evSlotId}}});
}

const EmpErrorMsg_t& errorIn(const EvlogRecord_t& record) {
    return *reinterpret_cast<const EmpErrorMsg_t*>(record.body.data());
}

bool isZeros(const EvlogRecord_t& record) {
    return std::ranges::all_of(record.body, [](U8_t byte) { return byte == 0; });
}

/** Whether the event manager's data have been taken out of the records: it names its file in each
 * bug-check, and in no control block is everything 0. */
bool isRedacted(const Crash& crash) {
    const EvlogRecord_t* control = crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO);
    const EvlogRecord_t* error = crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG);
    return control != nullptr ? isZeros(*control)
                              : error != nullptr && errorIn(*error).empFileName[0] == 0;
}

/** @param redacted then a known message and its place may be left, and nothing else */
void addError(Json& json, const EvlogRecord_t* record, bool redacted) {
    json.update(
        {{"message", nullptr}, {"function", nullptr}, {"line", nullptr}, {"file", nullptr}});
    if (record == nullptr || (redacted && isZeros(*record))) {
        return;
    }
    const EmpErrorMsg_t& error = errorIn(*record);
    json.update({{"message", escapedText(error.empErrorMsg)},
                 {"function", escapedText(error.empFunctionName)},
                 {"line", static_cast<S32_t>(U32_t{error.empLineNumber})}});
    if (!redacted) {
        json["file"] = escapedText(error.empFileName);
    }
}

/** What the operators' page says of the message; its end, too, where the record holds only the
 * beginning. */
void addAdvice(Json& json) {
    json.update({{"wholeMessage", nullptr}, {"meaning", nullptr}, {"whatToDo", nullptr}});
    const Json& message = json["message"];
    const catalog::Advice* advice =
        message.is_null() ? nullptr : catalog::adviceFor(message.get<std::string>());
    if (advice != nullptr) {
        json["wholeMessage"] = catalog::wholeMessage(message.get<std::string>());
        json["meaning"] = advice->meaning;
        json["whatToDo"] = advice->whatToDo;
    }
}

Json dataOrNull(const EvlogRecord_t* record) {
    return record == nullptr ? Json(nullptr) : Json(hexDigits(record->body));
}

Json controlOrNull(const EvlogRecord_t* record) {
    return record == nullptr
               ? Json(nullptr)
               : controlJson(*reinterpret_cast<const EmpInfo_t*>(record->body.data()));
}

/** The index, its pieces behind each other: how much is known, and the range of its valid entries.
 */
Json indexJson(const Crash& crash, bool withEntries) {
    Json entries = Json::array();
    U32_t known = 0;
    U32_t lowest = UINT32_MAX;
    U32_t highest = 0;
    for (U32_t slot = 0; slot < EMP_INDEX_ENTRIES; slot++) {
        const EvlogRecord_t* piece = crash.record(CRASH_INDEX_ID + slot / PIECE_ENTRIES);
        if (piece == nullptr) {
            continue;
        }
        known++;
        const U8_t* entry = &piece->body[size_t{slot % PIECE_ENTRIES} * 4];
        if (entry[0] == 0) {
            continue;
        }
        U32_t offset = U32_t{entry[1]} << 16 | U32_t{entry[2]} << 8 | entry[3];
        lowest = std::min(lowest, offset);
        highest = std::max(highest, offset);
        entries.push_back({{"slot", slot}, {"offset", offset}});
    }
    Json json = {{"known", known}, {"valid", entries.size()}};
    if (!entries.empty()) {
        json.update({{"firstSlot", entries.front()["slot"]},
                     {"lastSlot", entries.back()["slot"]},
                     {"lowestOffset", lowest},
                     {"highestOffset", highest}});
    }
    if (withEntries) {
        json["entries"] = std::move(entries);
    }
    return json;
}

/** "13, 15-20": consecutive ids as ranges. */
std::string rangesText(const Json& ids) {
    std::string text;
    for (size_t at = 0; at < ids.size();) {
        size_t last = at;
        while (last + 1 < ids.size() && ids[last + 1].get<U32_t>() == ids[last].get<U32_t>() + 1) {
            last++;
        }
        text += (text.empty() ? "" : ", ") + ids[at].dump();
        text += last > at ? "-" + ids[last].dump() : "";
        at = last + 1;
    }
    return text;
}

/** "24 of 24, sequence ids 1 to 24", or that they are not in the log yet. */
std::string recordsText(const Json& json) {
    std::string text = json["records"].dump() + " of 24";
    if (!json["lowestSequenceId"].is_null()) {
        text += ", sequence ids " + json["lowestSequenceId"].dump() + " to " +
                json["highestSequenceId"].dump();
    }
    if (json["waiting"] == 0U) {
        return text;
    }
    bool areAll = json["waiting"] == json["records"];
    return text + (areAll ? ", which wait" : "; " + json["waiting"].dump() + " of them wait") +
           " for the event manager's next start";
}

/** Whether a record is there, without what it held. */
bool isRedacted(const Json& json, U32_t id) {
    const Json& missing = json["missing"];
    return json["redacted"].get<bool>() && std::ranges::find(missing, Json(id)) == missing.end();
}

std::string headLines(const Json& json) {
    Json head = {{"time", json["time"]}};
    bool redacted = isRedacted(json, EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG);
    for (const char* name : {"message", "function", "line", "file"}) {
        head[name] = redacted && json[name].is_null() ? Json("redacted") : json[name];
    }
    if (!json["wholeMessage"].is_null()) {
        head["message"] = json["wholeMessage"];
        head["meaning"] = json["meaning"];
        head["what to do"] = json["whatToDo"];
    }
    head["enclosure"] = json["enclosureId"];
    head["blade"] = json["bladeId"];
    head["slot"] = json["slotId"];
    head["records"] = recordsText(json);
    if (!json["missing"].empty()) {
        head["missing"] = "event ids " + rangesText(json["missing"]);
    }
    return namedLines(head, LINE_WIDTH);
}

std::string entryLines(const Json& entries) {
    std::string lines;
    for (const Json& entry : entries) {
        std::array<char, 48> text{};
        snprintf(text.data(), text.size(), "  slot %4u  offset %7u\n", entry["slot"].get<U32_t>(),
                 entry["offset"].get<U32_t>());
        lines += text.data();
    }
    return lines;
}

std::string indexLines(const Json& index) {
    std::string lines = "  " + index["valid"].dump() + " valid of " + index["known"].dump() +
                        " known entries of " + std::to_string(EMP_INDEX_ENTRIES) + "\n";
    if (index.contains("firstSlot")) {
        lines += "  slots " + index["firstSlot"].dump() + " to " + index["lastSlot"].dump() +
                 ", offsets " + index["lowestOffset"].dump() + " to " +
                 index["highestOffset"].dump() + "\n";
    }
    return index.contains("entries") ? lines + entryLines(index["entries"]) : lines;
}

/** @param member of the report, from the record with this id */
std::string section(const std::string& title, const Json& json, const char* member, U32_t id,
                    std::string (*linesOf)(const Json&)) {
    const Json& content = json[member];
    const char* nothing = isRedacted(json, id) ? "  redacted\n" : "  missing\n";
    return "\n" + title + "\n" + (content.is_null() ? nothing : linesOf(content));
}

std::string controlLines(const Json& control) {
    return namedLines(control, CONTROL_WIDTH, "  ");
}

std::string bufferLines(const Json& buffer) {
    const Json& header = buffer["header"];
    return (header.is_null() ? "  no local message\n" : namedLines(header, CONTROL_WIDTH, "  ")) +
           dumpOf(buffer["data"]);
}

} // namespace

Json bufferedHeaderJson(std::span<const U8_t> buffer) {
    const auto& mmch = *reinterpret_cast<const MMCH_t*>(buffer.data());
    if (buffer.size() < sizeof(MMCH_t) || mmch.message_type != MSG_E_TYPE_MMSG) {
        return nullptr;
    }
    U32_t protocol = mmch.opcode.request.protocol;
    U32_t type = mmch.opcode.request.type;
    return {{"message_type", mmch.message_type},
            {"mmch_version", mmch.mmch_version},
            {"mmsg_length", U16_t{mmch.mmsg_length}},
            {"protocol", protocol},
            {"protocolName", nameOrNull(tools::protocolNames, protocol)},
            {"type", type},
            {"typeName", nameOrNull(tools::messageTypeNamesOf(protocol), type)},
            {"requestor", mmch.requestor},
            {"requestorName", nameOrNull(tools::endpointNames, mmch.requestor)},
            {"mmsg_cont", mmch.mmsg_cont},
            {"dest_ep", mmch.dest_ep},
            {"recipient_loc_bm", endpointsOf(mmch.recipient_loc_bm)},
            {"recipient_ob_bm", endpointsOf(mmch.recipient_ob_bm)},
            {"return_code", U32_t{mmch.return_code}},
            {"handle", U32_t{mmch.handle}},
            {"general_use1", U32_t{mmch.general_use1}},
            {"general_use2", U32_t{mmch.general_use2}},
            {"general_use3", U32_t{mmch.general_use3}}};
}

Json crashJson(const Crash& crash, bool entries) {
    Json json = Json::object();
    bool redacted = isRedacted(crash);
    addPlace(json, crash);
    json["redacted"] = redacted;
    addError(json, crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG), redacted);
    addAdvice(json);
    for (const char* member : {"control", "messageBuffer", "workSpace", "index"}) {
        json[member] = nullptr;
    }
    if (redacted) {
        return json;
    }
    json["control"] = controlOrNull(crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO));
    const EvlogRecord_t* buffer = crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER);
    if (buffer != nullptr) {
        json["messageBuffer"] = {{"header", bufferedHeaderJson(buffer->body)},
                                 {"data", hexDigits(buffer->body)}};
    }
    json["workSpace"] = dataOrNull(crash.record(EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER));
    json["index"] = indexJson(crash, entries);
    return json;
}

std::string crashLines(const Json& json) {
    return headLines(json) +
           section("control block", json, "control", EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO,
                   controlLines) +
           section("message buffer", json, "messageBuffer", EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER,
                   bufferLines) +
           section("work space", json, "workSpace", EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER,
                   dumpOf) +
           section("index", json, "index", CRASH_INDEX_ID, indexLines);
}

} // namespace evctl
