#include "evctl/views/event_json.h"

#include "catalog/event_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr size_t MEMBERS_RESERVE = 512; // most events' are shorter, but for their data

bool isPlain(char letter) {
    return letter >= 0x20 && letter < 0x7F && letter != '"' && letter != '\\';
}

/** Members one behind the other. */
class Members {
  public:
    explicit Members(size_t reserve) { text_.reserve(reserve); }

    void number(std::string_view name, U64_t value) { begin(name).append(std::to_string(value)); }

    /** A text in which nothing needs an escape. */
    void plain(std::string_view name, std::string_view value) {
        begin(name).append(1, '"').append(value).append(1, '"');
    }

    void text(std::string_view name, std::string_view value) {
        if (std::ranges::all_of(value, isPlain)) {
            plain(name, value);
        } else {
            begin(name).append(Json(value).dump(-1, ' ', false, Json::error_handler_t::replace));
        }
    }

    void flag(std::string_view name, bool value) { begin(name).append(value ? "true" : "false"); }

    /** The number and, as a member of its own, the name of a value; null for one without. */
    void named(const std::string& name, const tools::NameTable& names, U32_t value) {
        number(name, value);
        const tools::EnumName* row = names.find(value);
        if (row == nullptr) {
            nothing(name + "Name");
        } else {
            plain(name + "Name", row->brief);
        }
    }

    void nothing(std::string_view name) { begin(name).append("null"); }

    std::string take() { return std::move(text_); }

  private:
    std::string& begin(std::string_view name) {
        return text_.append(text_.empty() ? "\"" : ",\"").append(name).append("\":");
    }

    std::string text_;
};

/** The object without its braces. */
std::string membersOf(const Json& object) {
    std::string line = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    return line.substr(1, line.size() - 2);
}

} // namespace

std::string eventMembers(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    Members members(MEMBERS_RESERVE + 3 * event.data.size());
    members.number("sequenceId", header.evSequenceId);
    members.number("instanceNumber", header.evInstanceNumber);
    members.plain("time", isoTime(header.evTime));
    members.number("seconds", header.evTime);
    members.named("type", tools::eventTypeNames, header.evType);
    members.named("source", tools::endpointNames, header.evSource);
    members.named("category", tools::categoryNames, header.evCategory);
    members.named("id", tools::eventNamesOf(header.evSource), header.evId);
    members.number("idVersion", header.evIdVersion);
    members.text("enclosureId", escapedText(header.evEnclosureId));
    members.text("bladeId", escapedText(header.evBladeId));
    members.number("slotId", header.evSlotId);
    members.number("length", event.data.size());
    members.plain("data", hexDigits(event.data));
    if (std::optional<std::string> said = catalog::eventText(event)) {
        members.text("text", *said);
    } else {
        members.nothing("text");
    }
    return members.take();
}

std::string placeMembers(const EvlogRecord_t& record) {
    Members members(MEMBERS_RESERVE);
    members.number("offset", record.offset);
    members.plain("part", roleName(record.role));
    members.flag("taken", record.taken);
    return members.take();
}

std::string jsonLineOf(const Json& before, const std::string& members, const Json& behind) {
    std::string line = "{";
    line.reserve(members.size() + MEMBERS_RESERVE);
    if (!before.empty()) {
        line.append(membersOf(before)).append(1, ',');
    }
    line.append(members);
    if (!behind.empty()) {
        line.append(1, ',').append(membersOf(behind));
    }
    return line.append("}\n");
}

Json eventJson(const EventView& event) {
    return Json::parse("{" + eventMembers(event) + "}");
}

Json recordJson(const EvlogRecord_t& record) {
    return Json::parse("{" + placeMembers(record) + "," + eventMembers(eventOf(record)) + "}");
}

} // namespace evctl
