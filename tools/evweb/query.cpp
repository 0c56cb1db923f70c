#include "query.h"

#include "answers.h"
#include "common/cli.h"
#include "common/text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace evweb {
namespace {

// Those that filters of all readers have, by the names of their options.
constexpr std::array SHARED = {"type",  "source",    "category", "id",   "seq",     "since",
                               "until", "enclosure", "blade",    "slot", "instance"};
constexpr std::array OWN = {"text", "log", "generation", "limit", "before"};

/** As whoever writes the answers takes it, to the byte. */
bool isUtf8(const std::string& text) {
    try {
        return !Json(text).dump().empty();
    } catch (const Json::type_error&) {
        return false;
    }
}

template <typename Names>
bool isOneOf(const Names& names, const std::string& name) {
    return std::ranges::find(names, name) != std::ranges::end(names);
}

/** The library's text without the dashes and short names of options, which nobody typed here. */
std::string reasonOf(const CLI::Error& error) {
    const std::string text = error.what();
    const std::size_t longName = text.find("--");
    return text.starts_with('-') && longName != std::string::npos ? text.substr(longName + 2)
                                                                  : text;
}

evctl::EventFilter filterOf(const Parameters& parameters) {
    evctl::EventFilter filter;
    CLI::App app;
    app.set_help_flag();
    evctl::addFilterOptions(app, filter);
    evctl::addLogChoice(app, filter.logs);
    std::vector<std::string> arguments;
    for (const auto& [name, value] : parameters) {
        if (isOneOf(SHARED, name) && !value.empty()) {
            arguments.push_back("--" + name + "=" + value);
        }
    }
    std::ranges::reverse(arguments); // as the library takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::Error& error) {
        throw Refusal(400, reasonOf(error));
    }
    return filter;
}

// What a width is rounded up to: seconds.
constexpr std::array<U32_t, 22> WIDTHS = {
    1,     2,     5,     10,     15,     30,     60,     120,     300,     600,       900,
    1'800, 3'600, 7'200, 10'800, 21'600, 43'200, 86'400, 172'800, 604'800, 2'592'000, 31'536'000};

} // namespace

bool isSearchParameter(const std::string& name) {
    return isOneOf(SHARED, name) || isOneOf(OWN, name);
}

void requireKnown(const Parameters& parameters, const std::vector<std::string>& names) {
    for (const auto& [name, value] : parameters) {
        if (!isOneOf(names, name)) {
            throw Refusal(400, "no such parameter: " + name.substr(0, LONGEST));
        }
        if (value.size() > LONGEST) {
            throw Refusal(400, name + ": longer than " + std::to_string(LONGEST) + " bytes");
        }
        if (value.find('\0') != std::string::npos) {
            throw Refusal(400, name + ": a NUL is in it");
        }
        if (!isUtf8(value)) {
            throw Refusal(400, name + ": no UTF-8; bytes of names that are none are asked for as "
                                      "they are shown: \\xNN");
        }
    }
}

std::string valueOf(const Parameters& parameters, const std::string& name) {
    if (parameters.count(name) > 1) {
        throw Refusal(400, name + ": given more than once");
    }
    const auto found = parameters.find(name);
    return found == parameters.end() ? "" : found->second;
}

std::string wordsOf(const Parameters& parameters, const std::string& name) {
    return lowerCase(tools::shownLine(valueOf(parameters, name)));
}

std::optional<S64_t> numberOf(const Parameters& parameters, const std::string& name, S64_t least,
                              S64_t most) {
    const std::string text = valueOf(parameters, name);
    if (text.empty()) {
        return std::nullopt;
    }
    S64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        throw Refusal(400, name + ": '" + text + "' is no number from " + std::to_string(least) +
                               " to " + std::to_string(most));
    }
    return number;
}

std::optional<Position> positionOf(const Parameters& parameters, const std::string& name) {
    const std::string text = valueOf(parameters, name);
    const std::optional<Position> position = Position::parse(text);
    if (!position && !text.empty()) {
        throw Refusal(400, name + ": '" + text + "' is no place to go on from");
    }
    return position;
}

Search searchOf(const Parameters& parameters, const std::vector<std::string>& more) {
    std::vector<std::string> names(SHARED.begin(), SHARED.end());
    names.insert(names.end(), OWN.begin(), OWN.end());
    names.insert(names.end(), more.begin(), more.end());
    requireKnown(parameters, names);
    Search search{.filter = filterOf(parameters)};
    for (auto* name : {&search.filter.logs.enclosure, &search.filter.logs.blade}) {
        *name = *name ? std::optional(tools::shownLine(**name)) : std::nullopt;
    }
    search.text = wordsOf(parameters, "text");
    search.log = numberOf(parameters, "log", INT64_MIN, INT64_MAX);
    if (const auto generation = numberOf(parameters, "generation", 1, UINT32_MAX)) {
        search.generation = static_cast<U32_t>(*generation);
    }
    if (search.generation && !search.log) {
        throw Refusal(400, "generation: of which log is not said");
    }
    search.before = positionOf(parameters, "before");
    search.limit =
        static_cast<U32_t>(numberOf(parameters, "limit", 1, MOST_ROWS).value_or(search.limit));
    return search;
}

Timeline bucketsOf(U32_t since, U32_t until, U32_t buckets) {
    if (until < since) {
        throw Refusal(400, "until: lies before since");
    }
    const U64_t least = std::max<U64_t>(1, (U64_t{until} - since) / buckets);
    const auto width = std::ranges::lower_bound(WIDTHS, least);
    Timeline timeline;
    timeline.width = width == WIDTHS.end() ? WIDTHS.back() : *width;
    timeline.since = since - since % timeline.width;
    timeline.buckets.resize((until - timeline.since) / timeline.width + 1);
    return timeline;
}

} // namespace evweb
