#include "catalog/event_text.h"

#include "catalog/advice.h"
#include "common/text.h"
#include "emp_evl.h"
#include "mmsg.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace catalog {
namespace {

// Enough to recognise data by; 'file show' has all of it.
constexpr size_t HEX_BYTES_MAX = 32;
constexpr size_t NAME_WIDTH = 13;

Catalog loadAndSay() {
    std::vector<Problem> problems;
    Catalog loaded = loadCatalog(&problems);
    for (const Problem& problem : problems) {
        std::cerr << program_invocation_short_name << ": " << problemLine(problem) << "\n";
    }
    return loaded;
}

/** The message of a bug-check, as it is stored: its first 64 bytes. */
std::optional<std::string> bugCheckMessage(const sources::EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    if (header.evSource != MMSG_E_EPID_EVENTLOGMP ||
        header.evId != EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG ||
        event.data.size() != sizeof(EmpErrorMsg_t)) {
        return std::nullopt;
    }
    const auto& error = *reinterpret_cast<const EmpErrorMsg_t*>(event.data.data());
    const auto* text = reinterpret_cast<const char*>(error.empErrorMsg);
    return tools::escapedUtf8({text, strnlen(text, sizeof(error.empErrorMsg))});
}

/** Completes the message in a text where it was cut. */
std::string completed(std::string text, const std::string& message) {
    const std::string whole = wholeMessage(message);
    const size_t at = text.find(message);
    return at == std::string::npos ? text : text.replace(at, message.size(), whole);
}

} // namespace

const Catalog& knownEvents() {
    static const Catalog known = loadAndSay();
    return known;
}

const Entry* entryOf(const sources::EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    return knownEvents().find(header.evSource, header.evId, header.evIdVersion);
}

std::optional<std::string> eventText(const sources::EventView& event) {
    const Entry* entry = entryOf(event);
    if (entry == nullptr) {
        return plainText(event.data);
    }
    std::optional<std::string> message = bugCheckMessage(event);
    std::string text = messageOf(*entry, event.data);
    return message ? completed(std::move(text), *message) : text;
}

std::string textColumn(const sources::EventView& event) {
    if (std::optional<std::string> text = eventText(event)) {
        return *text;
    }
    if (event.data.size() <= HEX_BYTES_MAX) {
        return tools::hexDigits(event.data);
    }
    return tools::hexDigits(event.data.first(HEX_BYTES_MAX)) + "... (" +
           std::to_string(event.data.size()) + " bytes)";
}

std::string adviceOf(const sources::EventView& event) {
    const std::optional<std::string> message = bugCheckMessage(event);
    if (const Advice* row = message ? adviceFor(*message) : nullptr) {
        return row->meaning + "; what to do: " + row->whatToDo;
    }
    const Entry* entry = entryOf(event);
    return entry == nullptr ? "" : entry->advice;
}

std::string fieldLines(const sources::EventView& event) {
    const Entry* entry = entryOf(event);
    if (entry == nullptr) {
        return "";
    }
    std::string lines;
    for (const Field& field : entry->fields) {
        std::string line = "  " + field.name;
        line.resize(std::max(line.size() + 1, NAME_WIDTH), ' ');
        lines += line + valueText(field, event.data) + "\n";
    }
    return lines;
}

} // namespace catalog
