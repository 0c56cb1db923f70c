#include "evctl/event_view.h"

#include "common/names.h"
#include "common/text.h"
#include "evctl/event_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace evctl {
namespace {

constexpr size_t SEQUENCE_ID_WIDTH = 10;
constexpr size_t LINE_RESERVE = 256; // most lines are shorter

/** A text, filled up to @p width, and the two blanks behind it. */
void addColumn(std::string& line, const std::string& text, size_t width) {
    line += text;
    line.append(width - std::min(text.size(), width) + 2, ' ');
}

bool isPrintable(U8_t byte) {
    return byte >= 0x20 && byte < 0x7F;
}

/** One line of at most 16 bytes. */
std::string dumpLine(size_t offset, std::span<const U8_t> bytes) {
    std::array<char, 24> text{};
    snprintf(text.data(), text.size(), "%04zx ", offset);
    std::string line = text.data();
    std::string characters;
    for (U8_t byte : bytes) {
        snprintf(text.data(), text.size(), " %02x", static_cast<unsigned>(byte));
        line += text.data();
        characters += isPrintable(byte) ? static_cast<char>(byte) : '.';
    }
    line.resize(5 + 3 * 16, ' ');
    return line + "  |" + characters + "|\n";
}

std::span<const U8_t> textOf(const U8_t (&field)[EMP_ID_TEXT_SIZE]) {
    return field;
}

/** "warning(2)", or "77" for a value without a name. */
std::string named(const tools::NameTable& names, U32_t value) {
    std::string number = std::to_string(value);
    return names.find(value) != nullptr ? names.brief(value) + "(" + number + ")" : number;
}

} // namespace

Json nameOrNull(const tools::NameTable& names, U32_t value) {
    return names.find(value) != nullptr ? Json(names.brief(value)) : Json(nullptr);
}

std::string escapedText(std::span<const U8_t> field) {
    return tools::escapedText({reinterpret_cast<const char*>(field.data()), field.size()});
}

std::string eventIdText(U32_t source, U32_t id) {
    return named(tools::eventNamesOf(source), id);
}

std::string bladeName(const EmpEvLogHeader_t& header) {
    std::string name = escapedText(header.evBladeId);
    return !name.empty()
               ? name
               : escapedText(header.evEnclosureId) + "/" + std::to_string(U32_t{header.evSlotId});
}

std::string eventLine(const EventView& event, const LineStyle& style) {
    const EmpEvLogHeader_t& header = *event.header;
    std::string id = std::to_string(U32_t{header.evSequenceId});
    std::string line(SEQUENCE_ID_WIDTH - std::min(id.size(), SEQUENCE_ID_WIDTH), ' ');
    line.reserve(LINE_RESERVE);
    line.append(id).append(2, ' ');
    line.append(zonedTime(header.evTime, style.zone)).append(2, ' ');
    if (style.blade) {
        addColumn(line, bladeName(header), 12);
    }
    addColumn(line, tools::eventTypeNames.brief(header.evType), 11);
    addColumn(line, tools::endpointNames.brief(header.evSource), 15);
    addColumn(line, tools::categoryNames.brief(header.evCategory), 13);
    addColumn(line, eventIdText(header.evSource, header.evId), 20);
    line += textColumn(event);
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string eventLines(const EventView& event, Zone zone) {
    const EmpEvLogHeader_t& header = *event.header;
    std::ostringstream lines;
    lines << "sequence id  " << U32_t{header.evSequenceId} << "\n"
          << "instance     " << U32_t{header.evInstanceNumber} << "\n"
          << "time         " << zonedTime(header.evTime, zone) << "\n"
          << "type         " << named(tools::eventTypeNames, header.evType) << "\n"
          << "source       " << named(tools::endpointNames, header.evSource) << "\n"
          << "category     " << named(tools::categoryNames, header.evCategory) << "\n"
          << "id           " << eventIdText(header.evSource, header.evId) << "\n"
          << "id version   " << U32_t{header.evIdVersion} << "\n"
          << "enclosure    " << escapedText(header.evEnclosureId) << "\n"
          << "blade        " << escapedText(header.evBladeId) << "\n"
          << "slot         " << U32_t{header.evSlotId} << "\n"
          << "length       " << U32_t{header.evStructLength} << "\n";
    if (std::optional<std::string> said = eventText(event)) {
        lines << "text         " << *said << "\n";
    }
    lines << fieldLines(event);
    if (std::string advice = adviceOf(event); !advice.empty()) {
        lines << "advice       " << advice << "\n";
    }
    lines << hexDump(event.data);
    return lines.str();
}

std::string recordLines(const EmpEvRecord_t& header, std::span<const U8_t> data) {
    std::ostringstream lines;
    lines << "version      " << U32_t{header.evRdVersion} << "\n"
          << "checksum     0x" << std::hex << std::uppercase << U32_t{header.evRdCRCChecksum}
          << "\n";
    const auto* bytes = reinterpret_cast<const U8_t*>(&header);
    return lines.str() +
           eventLines({reinterpret_cast<const EmpEvLogHeader_t*>(bytes + EMP_CRC_START), data});
}

Json eventJson(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    std::optional<std::string> text = eventText(event);
    return {
        {"sequenceId", U32_t{header.evSequenceId}},
        {"instanceNumber", U32_t{header.evInstanceNumber}},
        {"time", isoTime(header.evTime)},
        {"seconds", U32_t{header.evTime}},
        {"type", header.evType},
        {"typeName", nameOrNull(tools::eventTypeNames, header.evType)},
        {"source", header.evSource},
        {"sourceName", nameOrNull(tools::endpointNames, header.evSource)},
        {"category", header.evCategory},
        {"categoryName", nameOrNull(tools::categoryNames, header.evCategory)},
        {"id", U32_t{header.evId}},
        {"idName", nameOrNull(tools::eventNamesOf(header.evSource), header.evId)},
        {"idVersion", header.evIdVersion},
        {"enclosureId", escapedText(textOf(header.evEnclosureId))},
        {"bladeId", escapedText(textOf(header.evBladeId))},
        {"slotId", U32_t{header.evSlotId}},
        {"length", event.data.size()},
        {"data", hexDigits(event.data)},
        {"text", text ? Json(*text) : Json(nullptr)},
    };
}

const char* roleName(EVLOG_ROLE_e role) {
    constexpr std::array<const char*, 3> names = {"newest", "oldest", "dummy"};
    return names.at(role);
}

Json recordJson(const EvlogRecord_t& record) {
    Json json = {
        {"offset", record.offset}, {"part", roleName(record.role)}, {"taken", record.taken}};
    json.update(eventJson(eventOf(record)));
    return json;
}

std::string jsonLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string hexDigits(std::span<const U8_t> bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (U8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string hexDump(std::span<const U8_t> bytes) {
    std::string text;
    for (size_t offset = 0; offset < bytes.size(); offset += 16) {
        text +=
            dumpLine(offset, bytes.subspan(offset, std::min<size_t>(16, bytes.size() - offset)));
    }
    return text;
}

} // namespace evctl
