#include "evctl/event_view.h"

#include "common/names.h"
#include "common/text.h"
#include "evctl/event_text.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace evctl {
namespace {

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

std::string isoTime(U32_t seconds) {
    // Not gmtime: the board's time_t has 32 bits and a sign.
    using namespace std::chrono;
    constexpr U32_t secondsADay = 86'400;
    year_month_day date{sys_days{days{seconds / secondsADay}}};
    U32_t rest = seconds % secondsADay;
    std::array<char, 40> text{};
    snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02u:%02u:%02uZ",
             static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
             static_cast<unsigned>(date.day()), rest / 3600, rest / 60 % 60, rest % 60);
    return text.data();
}

std::string escapedText(std::span<const U8_t> field) {
    return tools::escapedText({reinterpret_cast<const char*>(field.data()), field.size()});
}

std::string eventIdText(U32_t source, U32_t id) {
    return named(tools::eventNamesOf(source), id);
}

std::string eventLine(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    std::array<char, 256> text{};
    snprintf(text.data(), text.size(), "%10u  %s  %-11s  %-15s  %-13s  %-20s  ",
             U32_t{header.evSequenceId}, isoTime(header.evTime).c_str(),
             tools::eventTypeNames.brief(header.evType).c_str(),
             tools::endpointNames.brief(header.evSource).c_str(),
             tools::categoryNames.brief(header.evCategory).c_str(),
             eventIdText(header.evSource, header.evId).c_str());
    std::string line = text.data() + textColumn(event);
    line.erase(line.find_last_not_of(' ') + 1);
    std::optional<size_t> columns = outputColumns();
    return columns ? tools::cutToColumns(line, *columns) : line;
}

std::string recordLines(const EmpEvRecord_t& header, std::span<const U8_t> data) {
    std::ostringstream lines;
    lines << "version      " << U32_t{header.evRdVersion} << "\n"
          << "checksum     0x" << std::hex << std::uppercase << U32_t{header.evRdCRCChecksum}
          << std::dec << "\n"
          << "sequence id  " << U32_t{header.evSequenceId} << "\n"
          << "instance     " << U32_t{header.evInstanceNumber} << "\n"
          << "time         " << isoTime(header.evTime) << "\n"
          << "type         " << named(tools::eventTypeNames, header.evType) << "\n"
          << "source       " << named(tools::endpointNames, header.evSource) << "\n"
          << "category     " << named(tools::categoryNames, header.evCategory) << "\n"
          << "id           " << eventIdText(header.evSource, header.evId) << "\n"
          << "id version   " << U32_t{header.evIdVersion} << "\n"
          << "enclosure    " << escapedText(header.evEnclosureId) << "\n"
          << "blade        " << escapedText(header.evBladeId) << "\n"
          << "slot         " << U32_t{header.evSlotId} << "\n"
          << "length       " << U32_t{header.evStructLength} << "\n";
    const auto* bytes = reinterpret_cast<const U8_t*>(&header);
    EventView event{reinterpret_cast<const EmpEvLogHeader_t*>(bytes + EMP_CRC_START), data};
    if (std::optional<std::string> said = eventText(event)) {
        lines << "text         " << *said << "\n";
    }
    lines << fieldLines(event);
    if (std::string advice = adviceOf(event); !advice.empty()) {
        lines << "advice       " << advice << "\n";
    }
    lines << hexDump(data);
    return lines.str();
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
