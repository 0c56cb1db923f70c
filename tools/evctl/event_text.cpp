#include "evctl/event_text.h"

#include "common/text.h"
#include "emp_evl.h"
#include "evctl/advice.h"
#include "evctl/options.h"
#include "mmsg.h"

#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace evctl {
namespace {

// Enough to recognise data by; 'file show' has all of it.
constexpr size_t HEX_BYTES_MAX = 32;
constexpr size_t NAME_WIDTH = 13;

catalog::Catalog loadAndSay() {
    std::vector<catalog::Problem> problems;
    catalog::Catalog loaded = catalog::loadCatalog(&problems);
    for (const catalog::Problem& problem : problems) {
        std::cerr << "evctl: " << catalog::problemLine(problem) << "\n";
    }
    return loaded;
}

/** The message of a bug-check, as it is stored: its first 64 bytes. */
std::optional<std::string> bugCheckMessage(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    if (header.evSource != MMSG_E_EPID_EVENTLOGMP ||
        header.evId != EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG ||
        event.data.size() != sizeof(EmpErrorMsg_t)) {
        return std::nullopt;
    }
    const auto& error = *reinterpret_cast<const EmpErrorMsg_t*>(event.data.data());
    return tools::escapedUtf8(fieldText(error.empErrorMsg, sizeof(error.empErrorMsg)));
}

/** Completes the message in a text where it was cut. */
std::string completed(std::string text, const std::string& message) {
    const std::string whole = wholeMessage(message);
    const size_t at = text.find(message);
    return at == std::string::npos ? text : text.replace(at, message.size(), whole);
}

} // namespace

const catalog::Catalog& knownEvents() {
    static const catalog::Catalog known = loadAndSay();
    return known;
}

const catalog::Entry* entryOf(const EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    return knownEvents().find(header.evSource, header.evId, header.evIdVersion);
}

std::optional<std::string> eventText(const EventView& event) {
    const catalog::Entry* entry = entryOf(event);
    if (entry == nullptr) {
        return catalog::plainText(event.data);
    }
    std::optional<std::string> message = bugCheckMessage(event);
    std::string text = catalog::messageOf(*entry, event.data);
    return message ? completed(std::move(text), *message) : text;
}

std::string textColumn(const EventView& event) {
    if (std::optional<std::string> text = eventText(event)) {
        return *text;
    }
    if (event.data.size() <= HEX_BYTES_MAX) {
        return hexDigits(event.data);
    }
    return hexDigits(event.data.first(HEX_BYTES_MAX)) + "... (" +
           std::to_string(event.data.size()) + " bytes)";
}

std::string adviceOf(const EventView& event) {
    const std::optional<std::string> message = bugCheckMessage(event);
    if (const Advice* row = message ? adviceFor(*message) : nullptr) {
        return row->meaning + "; what to do: " + row->whatToDo;
    }
    const catalog::Entry* entry = entryOf(event);
    return entry == nullptr ? "" : entry->advice;
}

std::string fieldLines(const EventView& event) {
    const catalog::Entry* entry = entryOf(event);
    if (entry == nullptr) {
        return "";
    }
    std::string lines;
    for (const catalog::Field& field : entry->fields) {
        std::string line = "  " + field.name;
        line.resize(std::max(line.size() + 1, NAME_WIDTH), ' ');
        lines += line + catalog::valueText(field, event.data) + "\n";
    }
    return lines;
}

std::optional<size_t> outputColumns() {
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return std::nullopt;
    }
    return size.ws_col;
}

} // namespace evctl
