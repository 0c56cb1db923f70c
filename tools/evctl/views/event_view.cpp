#include "evctl/views/event_view.h"

#include "catalog/event_text.h"
#include "common/names.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <sstream>

namespace evctl {
namespace {

constexpr size_t SEQUENCE_ID_WIDTH = 10;
constexpr size_t LINE_RESERVE = 256; // most lines are shorter
constexpr size_t LINES_RESERVE = 768;

// "2006-11-21T14:00:00Z"
constexpr size_t MONTH_AT = 5;
constexpr size_t MONTH_TO_SECOND = 14;

/** The first letter of a type's name, or its number. */
std::string letterOf(U32_t type) {
    const std::string name = tools::eventTypeNames.brief(type);
    return tools::eventTypeNames.find(type) != nullptr ? name.substr(0, 1) : name;
}

/** A text, filled up to @p width, and the two blanks behind it. */
void addColumn(std::string& line, const std::string& text, size_t width) {
    line += text;
    line.append(width - std::min(text.size(), width) + 2, ' ');
}

bool isPrintable(U8_t byte) {
    return byte >= 0x20 && byte < 0x7F;
}

constexpr char HEX_DIGITS[] = "0123456789abcdef";
constexpr size_t DUMP_LINE_MAX = 80;

/** One line of at most 16 bytes. */
void addDumpLine(std::string& text, size_t offset, std::span<const U8_t> bytes) {
    std::array<char, DUMP_LINE_MAX> line;
    line.fill(' ');
    char* place = line.data();
    for (int shift = offset > 0xFFFF ? 16 : 12; shift >= 0; shift -= 4) {
        *place++ = HEX_DIGITS[offset >> shift & 0x0F];
    }
    place++;
    char* letter = place + 3 * 16 + 2;
    *letter++ = '|';
    for (U8_t byte : bytes) {
        place[1] = HEX_DIGITS[byte >> 4];
        place[2] = HEX_DIGITS[byte & 0x0F];
        place += 3;
        *letter++ = isPrintable(byte) ? static_cast<char>(byte) : '.';
    }
    *letter++ = '|';
    *letter++ = '\n';
    text.append(line.data(), letter);
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

std::string eventIdText(U32_t source, U32_t id, U32_t version) {
    const std::string_view name = catalog::eventName(source, id, version);
    const std::string number = std::to_string(id);
    return name.empty() ? number : std::string(name) + "(" + number + ")";
}

std::string eventIdText(const EmpEvLogHeader_t& header) {
    return eventIdText(header.evSource, header.evId, header.evIdVersion);
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
    const std::string time = zonedTime(header.evTime, style.zone);
    const bool isSlim = style.width == Width::SLIM;
    line.append(time, isSlim ? MONTH_AT : 0, isSlim ? MONTH_TO_SECOND : time.npos).append(2, ' ');
    if (style.blade) {
        addColumn(line, bladeName(header), 12);
    }
    const std::string eventId = eventIdText(header);
    if (style.width != Width::WIDE) {
        addColumn(line,
                  isSlim ? letterOf(header.evType) : tools::eventTypeNames.brief(header.evType),
                  isSlim ? 1 : 7);
        if (!isSlim || !catalog::eventText(event)) {
            addColumn(line, tools::endpointNames.brief(header.evSource) + " " + eventId, 0);
        }
    } else {
        addColumn(line, tools::eventTypeNames.brief(header.evType), 11);
        addColumn(line, tools::endpointNames.brief(header.evSource), 15);
        addColumn(line, tools::categoryNames.brief(header.evCategory), 13);
        addColumn(line, eventId, 20);
    }
    line += catalog::textColumn(event);
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string eventLines(const EventView& event, Zone zone) {
    const EmpEvLogHeader_t& header = *event.header;
    std::string lines;
    lines.reserve(LINES_RESERVE + event.data.size() * DUMP_LINE_MAX / 16);
    auto add = [&lines](const char* name, const std::string& value) {
        lines.append(name).append(value).append(1, '\n');
    };
    add("sequence id  ", std::to_string(U32_t{header.evSequenceId}));
    add("instance     ", std::to_string(U32_t{header.evInstanceNumber}));
    add("time         ", zonedTime(header.evTime, zone));
    add("type         ", named(tools::eventTypeNames, header.evType));
    add("source       ", named(tools::endpointNames, header.evSource));
    add("category     ", named(tools::categoryNames, header.evCategory));
    add("id           ", eventIdText(header));
    add("id version   ", std::to_string(header.evIdVersion));
    add("enclosure    ", escapedText(header.evEnclosureId));
    add("blade        ", escapedText(header.evBladeId));
    add("slot         ", std::to_string(U32_t{header.evSlotId}));
    add("length       ", std::to_string(U32_t{header.evStructLength}));
    if (std::optional<std::string> said = catalog::eventText(event)) {
        add("text         ", *said);
    }
    lines += catalog::fieldLines(event);
    if (std::string advice = catalog::adviceOf(event); !advice.empty()) {
        add("advice       ", advice);
    }
    return lines += hexDump(event.data);
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

const char* roleName(EVLOG_ROLE_e role) {
    constexpr std::array<const char*, 3> names = {"newest", "oldest", "dummy"};
    return names.at(role);
}

std::string jsonLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string hexDump(std::span<const U8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() / 16 + 1) * DUMP_LINE_MAX);
    for (size_t offset = 0; offset < bytes.size(); offset += 16) {
        addDumpLine(text, offset,
                    bytes.subspan(offset, std::min<size_t>(16, bytes.size() - offset)));
    }
    return text;
}

std::string countText(U64_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

} // namespace evctl
