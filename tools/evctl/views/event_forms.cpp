#include "evctl/views/event_forms.h"

#include "catalog/event_names.h"
#include "catalog/event_text.h"
#include "common/text.h"

#include <initializer_list>

namespace evctl {
namespace {

constexpr char CSV_HEADER[] =
    "sequenceId,instanceNumber,time,type,source,category,id,idVersion,enclosureId,bladeId,slotId,"
    "length,text,data,from\n";

/** Nothing in it but letters, digits and the like needs no quotes. */
std::string csvField(const std::string& text) {
    if (text.find_first_of("\",") == std::string::npos && !text.starts_with(' ') &&
        !text.ends_with(' ')) {
        return text;
    }
    std::string quoted = "\"";
    for (char letter : text) {
        quoted.append(letter == '"' ? 2 : 1, letter);
    }
    return quoted + '"';
}

constexpr U32_t LOCAL0 = 16 * 8;

/** A word of the header: of printable ASCII, not longer than the protocol takes it. */
std::string syslogWord(std::string text, size_t longest) {
    for (char& letter : text) {
        letter = letter > ' ' && letter < 0x7F ? letter : '_';
    }
    return text.substr(0, longest);
}

std::string syslogValue(const std::string& text) {
    std::string escaped;
    for (char letter : text) {
        if (letter == '"' || letter == '\\' || letter == ']') {
            escaped += '\\';
        }
        escaped += letter;
    }
    return escaped;
}

/** The number of the example enterprise, since the element is nobody's but ours. */
std::string structuredData(const EmpEvLogHeader_t& header) {
    std::string element = "[event@32473";
    auto add = [&element](const char* name, const std::string& value) {
        element.append(" ").append(name).append("=\"").append(syslogValue(value)).append("\"");
    };
    add("seq", std::to_string(U32_t{header.evSequenceId}));
    add("instance", std::to_string(U32_t{header.evInstanceNumber}));
    add("enclosure", escapedText(header.evEnclosureId));
    add("slot", std::to_string(U32_t{header.evSlotId}));
    add("category", tools::categoryNames.brief(header.evCategory));
    add("idVersion", std::to_string(header.evIdVersion));
    return element + "]";
}

std::string nameOrNumber(const EmpEvLogHeader_t& header) {
    const std::string_view name = catalog::eventName(header);
    return name.empty() ? std::to_string(U32_t{header.evId}) : std::string(name);
}

} // namespace

std::string csvHeader() {
    return CSV_HEADER;
}

std::string csvLine(const EventView& event, const std::string& from, NameText nameText) {
    const EmpEvLogHeader_t& header = *event.header;
    std::string line = std::to_string(U32_t{header.evSequenceId});
    for (const std::string& field : {
             std::to_string(U32_t{header.evInstanceNumber}),
             isoTime(header.evTime),
             tools::eventTypeNames.brief(header.evType),
             tools::endpointNames.brief(header.evSource),
             tools::categoryNames.brief(header.evCategory),
             nameOrNumber(header),
             std::to_string(header.evIdVersion),
             nameText(std::span(header.evEnclosureId)),
             nameText(std::span(header.evBladeId)),
             std::to_string(U32_t{header.evSlotId}),
             std::to_string(event.data.size()),
             catalog::eventText(event).value_or(""),
             hexDigits(event.data),
             from,
         }) {
        line.append(1, ',').append(csvField(field));
    }
    return line + "\n";
}

std::string syslogLine(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    std::string line = "<" + std::to_string(LOCAL0 + syslogSeverity(header.evType)) + ">1 ";
    line += isoTime(header.evTime) + " ";
    line += syslogWord(bladeName(header), 255) + " ";
    line += syslogWord(tools::endpointNames.brief(header.evSource), 48) + " - ";
    line += syslogWord(nameOrNumber(header), 32) + " ";
    line += structuredData(header);
    std::string text = catalog::textColumn(event);
    return text.empty() ? line + "\n" : line + " " + text + "\n";
}

U32_t syslogSeverity(U32_t type) {
    switch (type) {
    case EMP_E_TYPE_ERROR:
        return 3;
    case EMP_E_TYPE_WARNING:
        return 4;
    case EMP_E_TYPE_INFORMATION:
        return 6;
    default:
        return 5;
    }
}

} // namespace evctl
