#include "catalog/advice.h"

#include "common/nearest.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace catalog {
namespace {

constexpr std::string_view NUMBER = "%d";
// A shorter beginning would fit several bug-checks, and might be a whole other message. No verdict
// is as long.
constexpr size_t SHORTEST_CUT = 48;

bool isDigit(char letter) {
    return std::isdigit(static_cast<unsigned char>(letter)) != 0;
}

/** A cell without the blanks around it and the marks of code in it. */
std::string cellText(std::string_view cell) {
    size_t begin = cell.find_first_not_of(' ');
    size_t end = cell.find_last_not_of(' ');
    std::string text(begin == cell.npos ? "" : cell.substr(begin, end - begin + 1));
    std::erase(text, '`');
    return text;
}

/** The cells of a table's row; empty for any other line. */
std::vector<std::string> cellsOf(const std::string& line) {
    std::vector<std::string> cells;
    if (!line.starts_with("| `")) {
        return cells;
    }
    std::istringstream row(line.substr(1));
    for (std::string cell; std::getline(row, cell, '|');) {
        cells.push_back(cellText(cell));
    }
    return cells;
}

std::vector<Advice> readTables() {
    std::vector<Advice> advice;
    std::istringstream page(OPERATIONS_TABLES);
    for (std::string line; std::getline(page, line);) {
        std::vector<std::string> cells = cellsOf(line);
        if (cells.size() == 4) {
            advice.push_back({cells[0], cells[1], cells[2], cells[3]});
        } else if (cells.size() == 3) {
            advice.push_back({cells[0], "", cells[1], cells[2]});
        }
    }
    return advice;
}

/** Compares a message with a row's text.
 * @return what the text has behind the message's end; nothing when they differ */
std::optional<std::string_view> restBehind(std::string_view text, std::string_view message) {
    while (!text.empty() && !message.empty()) {
        if (text.starts_with(NUMBER) && (message[0] == '-' || isDigit(message[0]))) {
            size_t length = 1;
            while (length < message.size() && isDigit(message[length])) {
                length++;
            }
            message.remove_prefix(length);
            text.remove_prefix(NUMBER.size());
        } else if (text[0] != message[0]) {
            return std::nullopt;
        } else {
            message.remove_prefix(1);
            text.remove_prefix(1);
        }
    }
    return message.empty() ? std::optional(text) : std::nullopt;
}

/** The message of a bug-check in a line as listings print it: "bug-check: TEXT (FUNCTION, line 5)";
 * any other text as it is. */
std::string_view messageIn(std::string_view line) {
    constexpr std::string_view before = "bug-check: ";
    if (const size_t at = line.find(before); at != line.npos) {
        line.remove_prefix(at + before.size());
    }
    const size_t place = line.rfind(" (");
    const bool hasPlace = place != line.npos && line.find(", line ", place) != line.npos;
    return hasPlace && line.ends_with(')') ? line.substr(0, place) : line;
}

/** Whether a row's text holds a part of a message, with its numbers; both in lower case. */
bool holds(std::string_view text, std::string_view part) {
    for (size_t at = 0; at < text.size(); at++) {
        // A number alone is none of the text.
        if (!text.substr(at).starts_with(NUMBER) && restBehind(text.substr(at), part)) {
            return true;
        }
    }
    return false;
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    return lower;
}

} // namespace

const std::vector<Advice>& allAdvice() {
    static const std::vector<Advice> advice = readTables();
    return advice;
}

const Advice* adviceFor(std::string_view message) {
    const Advice* cut = nullptr;
    for (const Advice& advice : allAdvice()) {
        std::optional<std::string_view> rest = restBehind(advice.name, message);
        if (rest && rest->empty()) {
            return &advice;
        }
        if (rest && message.size() >= SHORTEST_CUT) {
            cut = &advice;
        }
    }
    return cut;
}

std::string wholeMessage(const std::string& message) {
    const Advice* advice = adviceFor(message);
    if (advice == nullptr) {
        return message;
    }
    std::string rest(*restBehind(advice->name, message));
    for (size_t at = rest.find(NUMBER); at != std::string::npos; at = rest.find(NUMBER)) {
        rest.replace(at, NUMBER.size(), "?");
    }
    return message + rest;
}

std::vector<const Advice*> adviceMeantBy(const std::string& text) {
    const std::string_view message = messageIn(text);
    if (const Advice* advice = adviceFor(message)) {
        return {advice};
    }
    std::vector<const Advice*> found;
    const std::string wanted = lowerCase(message);
    for (const Advice& advice : allAdvice()) {
        if (holds(lowerCase(advice.name), wanted)) {
            found.push_back(&advice);
        }
    }
    return found;
}

std::optional<std::string> adviceNearestTo(const std::string& text) {
    std::vector<std::string> names;
    for (const Advice& advice : allAdvice()) {
        names.push_back(advice.name);
    }
    return tools::nearestName(text, names);
}

} // namespace catalog
