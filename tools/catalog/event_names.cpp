#include "catalog/event_names.h"

#include "catalog/event_text.h"
#include "common/names.h"

#include <strings.h>
#include <unordered_set>

namespace catalog {
namespace {

bool isSame(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

/** The first entry of a source that bears a name. */
const Entry* entryNamed(std::optional<U32_t> source, const std::string& name) {
    for (const Entry* entry : knownEvents().entries()) {
        if (source.value_or(entry->source) == entry->source && isSame(entry->name, name)) {
            return entry;
        }
    }
    return nullptr;
}

} // namespace

std::string_view eventName(U32_t source, U32_t id, U32_t version) {
    const Entry* entry = knownEvents().find(source, id, version);
    if (entry != nullptr && entry->version && !entry->name.empty()) {
        return entry->name;
    }
    if (const tools::EnumName* row = tools::eventNamesOf(source).find(id)) {
        return row->brief;
    }
    return entry == nullptr ? std::string_view() : entry->name;
}

std::string_view eventName(const EmpEvLogHeader_t& header) {
    return eventName(header.evSource, header.evId, header.evIdVersion);
}

bool hasName(const EmpEvLogHeader_t& header, const std::string& name) {
    return isSame(eventName(header), name);
}

std::vector<std::string> eventNames(U32_t source) {
    std::vector<std::string> names;
    std::unordered_set<std::string_view> known;
    auto add = [&names, &known](std::string_view name) {
        if (!name.empty() && known.insert(name).second) {
            names.emplace_back(name);
        }
    };
    for (const tools::EnumName& row : tools::eventNamesOf(source).rows()) {
        add(row.brief);
    }
    for (const Entry* entry : knownEvents().entries()) {
        add(entry->source == source ? std::string_view(entry->name) : "");
    }
    return names;
}

std::optional<std::string> knownName(const std::string& name) {
    for (U32_t source = 0; source <= UINT8_MAX; source++) {
        const tools::NameTable& names = tools::eventNamesOf(source);
        if (const std::optional<U32_t> id = names.value(name)) {
            return names.brief(*id);
        }
    }
    const Entry* entry = name.empty() ? nullptr : entryNamed(std::nullopt, name);
    return entry == nullptr ? std::nullopt : std::optional(entry->name);
}

std::optional<U32_t> eventIdOf(U32_t source, const std::string& name) {
    if (const std::optional<U32_t> id = tools::eventNamesOf(source).value(name)) {
        return id;
    }
    const Entry* entry = name.empty() ? nullptr : entryNamed(source, name);
    return entry == nullptr ? std::nullopt : std::optional(entry->firstId);
}

} // namespace catalog
