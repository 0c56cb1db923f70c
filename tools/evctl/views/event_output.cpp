#include "evctl/views/event_output.h"

#include "catalog/event_text.h"
#include "common/cli.h"
#include "common/text.h"
#include "evctl/views/event_forms.h"
#include "evctl/views/event_json.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

namespace evctl {
namespace {

const std::map<std::string, Form> FORMS = {{"short", Form::SHORT},   {"full", Form::FULL},
                                           {"json", Form::JSON},     {"csv", Form::CSV},
                                           {"syslog", Form::SYSLOG}, {"hex", Form::HEX}};

const std::map<std::string, Colour> COLOURS = {
    {"auto", Colour::AUTO}, {"always", Colour::ALWAYS}, {"never", Colour::NEVER}};

template <typename Value>
void addWordOption(CLI::App& command, const std::string& flags, Value& value,
                   const std::map<std::string, Value>& words, const std::string& type,
                   const std::string& what) {
    command
        .add_option_function<std::string>(
            flags,
            [&value, &words, flags, type](const std::string& word) {
                auto found = words.find(word);
                if (found == words.end()) {
                    throw CLI::ValidationError(flags, "'" + word + "' is not one of " + type);
                }
                value = found->second;
            },
            what)
        ->type_name(type);
}

bool isSet(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr && *value != '\0';
}

bool wantsColour(Colour colour, const OutputPlace& place) {
    if (colour != Colour::AUTO) {
        return colour == Colour::ALWAYS;
    }
    return !isSet("NO_COLOR") && !isDumbTerminal() && place.colours &&
           (place.paged || isatty(STDOUT_FILENO) != 0);
}

/** Nothing in the colour of the terminal. */
const char* colourOf(const EventView& event) {
    switch (event.header->evType) {
    case EMP_E_TYPE_ERROR:
        return "\x1B[31m";
    case EMP_E_TYPE_WARNING:
        return "\x1B[33m";
    default:
        return "";
    }
}

// On fewer columns little or nothing would be seen of the texts.
constexpr size_t WIDE_COLUMNS = 130;
constexpr size_t NARROW_COLUMNS = 72;

/** @param paged lines are not cut, but may be scrolled */
Width widthOf(std::optional<size_t> columns, bool paged) {
    const size_t room = columns.value_or(WIDE_COLUMNS);
    const Width narrowest = paged || room >= NARROW_COLUMNS ? Width::NARROW : Width::SLIM;
    return room >= WIDE_COLUMNS ? Width::WIDE : narrowest;
}

std::optional<size_t> columnsOf(int terminal) {
    struct winsize size {};
    if (ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return std::nullopt;
    }
    return size.ws_col;
}

/** The whole event, header and data, as it is stored and sent. */
std::string dumpOf(const EventView& event) {
    const auto* header = reinterpret_cast<const U8_t*>(event.header);
    std::vector<U8_t> image;
    image.reserve(sizeof(EmpEvLogHeader_t) + event.data.size());
    image.assign(header, header + sizeof(EmpEvLogHeader_t));
    image.insert(image.end(), event.data.begin(), event.data.end());
    return hexDump(image);
}

} // namespace

void addOutputOptions(CLI::App& command, OutputOptions& options) {
    addWordOption(command, "-o,--output", options.form, FORMS, "short|full|json|csv|syslog|hex",
                  "How events are printed (default short)");
    command.add_flag_callback(
        "--json", [&options] { options.form = Form::JSON; }, "As -o json: one object a line");
    command.add_flag("--data", options.data, "A hex dump of its data below each event");
    command.add_flag("-x,--advice", options.advice, "What may be done about it below each event");
    addWordOption(command, "--color", options.colour, COLOURS, "auto|always|never",
                  "Lines in the colour of the event's type (default auto: on a terminal, unless "
                  "NO_COLOR is set)");
}

bool isDumbTerminal() {
    const char* terminal = getenv("TERM");
    return terminal == nullptr || std::string_view(terminal) == "dumb";
}

std::optional<size_t> outputColumns() {
    return columnsOf(STDOUT_FILENO);
}

EventPrinter::EventPrinter(const OutputOptions& options, const OutputPlace& place)
    : options_(options), place_(place), columns_(place.paged ? std::nullopt : outputColumns()),
      // Standard output is the pager's by then.
      width_(widthOf(place.paged ? columnsOf(STDERR_FILENO) : columns_, place.paged)),
      colour_(wantsColour(options.colour, place)) {
    if (options.form == Form::CSV) {
        std::cout << csvHeader();
    }
}

const std::string& EventPrinter::nameOf(const sources::Event& event) const {
    static const std::string none;
    return event.origin != nullptr ? event.origin->name : none;
}

std::string EventPrinter::coloured(std::string line, const EventView& event) const {
    if (columns_) {
        line = tools::cutToColumns(line, *columns_);
    }
    const char* colour = colour_ ? colourOf(event) : "";
    return *colour == '\0' ? line + "\n" : colour + line + "\x1B[0m\n";
}

std::string EventPrinter::styled(std::string line, const EventView& event) const {
    std::string lines = coloured(std::move(line), event);
    if (std::string advice = options_.advice ? catalog::adviceOf(event) : ""; !advice.empty()) {
        lines += "            -- " + advice + "\n";
    }
    return options_.data ? lines + hexDump(event.data) : lines;
}

std::string EventPrinter::lineOf(const sources::Event& event) const {
    return eventLine(event.view, {.zone = options_.zone, .blade = place_.several, .width = width_});
}

std::string EventPrinter::jsonOf(const sources::Event& event) const {
    const std::string advice = options_.advice ? catalog::adviceOf(event.view) : "";
    return jsonLineOf({place_.several ? textMember("from", nameOf(event)) : "",
                       event.record != nullptr ? placeMembers(*event.record) : "",
                       eventMembers(event.view),
                       !advice.empty() ? textMember("advice", advice) : ""});
}

std::string EventPrinter::fullOf(const sources::Event& event) const {
    std::string lines = any_ ? "\n" : "";
    if (place_.several) {
        lines += "from         " + nameOf(event) + "\n";
    }
    if (event.record != nullptr) {
        lines += "offset       " + std::to_string(event.record->offset) + "\n" + "part         " +
                 roleName(event.record->role) + "\n";
    }
    return lines + eventLines(event.view, options_.zone);
}

std::string EventPrinter::textOf(const sources::Event& event) const {
    switch (options_.form) {
    case Form::FULL:
        return fullOf(event);
    case Form::JSON:
        return jsonOf(event);
    case Form::CSV:
        return csvLine(event.view, nameOf(event));
    case Form::SYSLOG:
        return syslogLine(event.view);
    case Form::HEX:
        return coloured(lineOf(event), event.view) + dumpOf(event.view);
    default:
        return styled(lineOf(event), event.view);
    }
}

void EventPrinter::print(const sources::Event& event) {
    std::string text = textOf(event);
    std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
    any_ = true;
}

void EventPrinter::printNow(const EventView& event) {
    sources::Event now;
    now.view = event;
    print(now);
    std::cout.flush();
}

void EventPrinter::printNote(const Json& object, const std::string& line) {
    bool onlyEvents = options_.form == Form::CSV || options_.form == Form::SYSLOG;
    (onlyEvents ? std::cerr : std::cout)
        << (options_.form == Form::JSON ? jsonLine(object) : line) << std::flush;
}

void EventPrinter::printCursor(const std::string& cursor) {
    printNote({{"cursor", cursor}}, "-- cursor: " + cursor + "\n");
}

} // namespace evctl
