#include "evctl/views/event_json.h"

#include "catalog/event_names.h"
#include "catalog/event_text.h"

#include <algorithm>
#include <array>
#include <charconv>
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

    void number(std::string_view name, U64_t value) {
        std::array<char, 20> digits{};
        const auto end = std::to_chars(digits.begin(), digits.end(), value).ptr;
        begin(name).append(digits.begin(), end);
    }

    /** A text in which nothing needs an escape. */
    void plain(std::string_view name, std::string_view value) {
        begin(name).append(1, '"').append(value).append(1, '"');
    }

    void text(std::string_view name, std::string_view value) {
        if (std::ranges::all_of(value, isPlain)) {
            plain(name, value);
        } else {
            raw(name, Json(value).dump(-1, ' ', false, Json::error_handler_t::replace));
        }
    }

    void flag(std::string_view name, bool value) { raw(name, value ? "true" : "false"); }

    /** The number and, as a member of its own, the name of a value; null for one without. */
    void named(std::string_view name, std::string_view nameOfName, const tools::NameTable& names,
               U32_t value) {
        number(name, value);
        const tools::EnumName* row = names.find(value);
        if (row == nullptr) {
            nothing(nameOfName);
        } else {
            plain(nameOfName, row->brief);
        }
    }

    void nothing(std::string_view name) { raw(name, "null"); }

    void object(std::string_view name, const Members& members) {
        begin(name).append(1, '{').append(members.text_).append(1, '}');
    }

    /** A value as JSON has it. */
    void raw(std::string_view name, std::string_view value) { begin(name).append(value); }

    std::string take() { return std::move(text_); }

  private:
    std::string& begin(std::string_view name) {
        return text_.append(text_.empty() ? "\"" : ",\"").append(name).append("\":");
    }

    std::string text_;
};

constexpr size_t FIELD_RESERVE = 64;

/** What data hold of a field; null where they end before it. */
Members valueOf(const catalog::Field& field, std::span<const U8_t> data) {
    Members value(FIELD_RESERVE);
    const std::optional<S64_t> number = catalog::valueNumber(field, data);
    if (!catalog::hasValue(field, data)) {
        value.nothing("value");
    } else if (!number) {
        value.text("value", catalog::valueText(field, data));
    } else if (field.kind == catalog::Kind::SIGNED) {
        value.raw("value", std::to_string(*number));
    } else {
        value.number("value", static_cast<U64_t>(*number));
    }
    const auto name = number ? field.names.find(*number) : field.names.end();
    if (name != field.names.end()) {
        value.text("name", name->second);
    }
    if (!field.unit.empty()) {
        value.text("unit", field.unit);
    }
    return value;
}

/** A name as it stands between quotes: a catalogue may have any. */
std::string escapedName(const std::string& name) {
    if (std::ranges::all_of(name, isPlain)) {
        return name;
    }
    const std::string quoted = Json(name).dump(-1, ' ', false, Json::error_handler_t::replace);
    return quoted.substr(1, quoted.size() - 2);
}

/** What the catalogue knows of an event beside its text. */
void addDecoded(Members& members, const EventView& event) {
    const catalog::Entry* entry = catalog::entryOf(event);
    if (entry == nullptr) {
        return;
    }
    if (!entry->severity.empty()) {
        members.text("severity", entry->severity);
    }
    if (entry->fields.empty()) {
        return;
    }
    Members fields(FIELD_RESERVE * entry->fields.size());
    for (const catalog::Field& field : entry->fields) {
        fields.object(escapedName(field.name), valueOf(field, event.data));
    }
    members.object("fields", fields);
}

} // namespace

std::string textMember(std::string_view name, std::string_view value) {
    Members member(name.size() + value.size() + 6);
    member.text(name, value);
    return member.take();
}

std::string numberMember(std::string_view name, S64_t value) {
    Members member(FIELD_RESERVE);
    member.raw(name, std::to_string(value));
    return member.take();
}

std::string eventMembers(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    Members members(MEMBERS_RESERVE + 3 * event.data.size());
    members.number("sequenceId", header.evSequenceId);
    members.number("instanceNumber", header.evInstanceNumber);
    members.plain("time", isoTime(header.evTime));
    members.number("seconds", header.evTime);
    members.named("type", "typeName", tools::eventTypeNames, header.evType);
    members.named("source", "sourceName", tools::endpointNames, header.evSource);
    members.named("category", "categoryName", tools::categoryNames, header.evCategory);
    members.number("id", header.evId);
    const std::string_view idName = catalog::eventName(header);
    idName.empty() ? members.nothing("idName") : members.text("idName", idName);
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
    addDecoded(members, event);
    return members.take();
}

std::string placeMembers(const EvlogRecord_t& record) {
    Members members(MEMBERS_RESERVE);
    members.number("offset", record.offset);
    members.plain("part", roleName(record.role));
    members.flag("taken", record.taken);
    return members.take();
}

std::string jsonLineOf(std::initializer_list<std::string_view> members) {
    size_t length = 3;
    for (std::string_view some : members) {
        length += some.size() + 1;
    }
    std::string line = "{";
    line.reserve(length);
    for (std::string_view some : members) {
        line.append(line.size() > 1 && !some.empty() ? "," : "").append(some);
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
