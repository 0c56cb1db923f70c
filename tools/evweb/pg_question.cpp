#include "pg_question.h"

#include <algorithm>

namespace evweb {
namespace {

constexpr std::size_t MOST_KINDS = 100; // sources times ids that are looked for together

std::string orderedTypes(std::vector<U32_t> types) {
    std::ranges::sort(types);
    types.erase(std::unique(types.begin(), types.end()), types.end());
    std::string list;
    for (const U32_t type : types) {
        list += (list.empty() ? "" : ", ") + std::to_string(type);
    }
    return list;
}

std::vector<S64_t> wide(const std::vector<U32_t>& values) {
    return {values.begin(), values.end()};
}

// What no column holds stands for itself as a number that none does, too.
std::vector<S64_t> wide(const std::vector<U32_t>& values, U32_t most) {
    std::vector<S64_t> all;
    for (const U32_t value : values) {
        all.push_back(value <= most ? S64_t{value} : -1);
    }
    return all;
}

// As the index of kinds has them.
std::vector<S64_t> kindsOf(const std::vector<U32_t>& sources, const std::vector<U32_t>& ids) {
    std::vector<S64_t> kinds;
    for (const U32_t source : sources) {
        for (const U32_t id : ids) {
            const bool isAny = source <= UINT8_MAX && id <= UINT16_MAX;
            kinds.push_back(isAny ? S64_t{source} * 65'536 + id : -1);
        }
    }
    return kinds;
}

unsigned digitOfHex(char letter) {
    return static_cast<unsigned>(letter <= '9' ? letter - '0' : letter - 'A' + 10);
}

bool isHex(char letter) {
    return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'F');
}

} // namespace

std::string bytesOfName(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size() && text[at + 1] == 'x' &&
            isHex(text[at + 2]) && isHex(text[at + 3])) {
            bytes += static_cast<char>(digitOfHex(text[at + 2]) << 4U | digitOfHex(text[at + 3]));
            at += 3;
        } else {
            bytes += text[at];
        }
    }
    return bytes;
}

evarchive::SeriesKey keyOf(const PgRows& rows, int row, int column) {
    return {{bytesOfName(rows.text(row, column)), bytesOfName(rows.text(row, column + 1)),
             static_cast<U32_t>(rows.integer(row, column + 2))},
            static_cast<U32_t>(rows.integer(row, column + 3))};
}

PgQuestion& PgQuestion::place(const std::string& before, const std::string& after) {
    sql_ += before + "$" + std::to_string(++count_) + after;
    return *this;
}

PgQuestion& PgQuestion::integer(const std::string& before, S64_t value, const std::string& after) {
    parameters_.integer(value);
    return place(before, after);
}

PgQuestion& PgQuestion::time(const std::string& before, S64_t seconds, const std::string& after) {
    parameters_.time(seconds);
    return place(before, after);
}

PgQuestion& PgQuestion::instant(const std::string& before, S64_t value, const std::string& after) {
    return integer(before + " timestamptz '2000-01-01 00:00:00+00' + interval '1 microsecond' * ",
                   value, after);
}

PgQuestion& PgQuestion::text(const std::string& before, const std::string& value,
                             const std::string& after) {
    parameters_.text(value);
    return place(before, after);
}

PgQuestion& PgQuestion::integers(const std::string& before, const std::vector<S64_t>& values,
                                 const std::string& after) {
    evarchive::PgArray array(evarchive::PgType::BIGINT);
    for (const S64_t value : values) {
        array.addNumber(value);
    }
    parameters_.array(array);
    return place(before, after);
}

PgQuestion& PgQuestion::oneOf(const std::string& what, const char* type,
                              const std::vector<S64_t>& values) {
    if (values.size() == 1) { // the server expects ten of an array
        return integer(" AND " + what + " = ", values.front(), std::string("::") + type);
    }
    return integers(" AND " + what + " = ANY(", values, std::string("::") + type + "[])");
}

PgQuestion& PgQuestion::kinds(const evctl::EventFilter& filter) {
    if (!filter.sources.empty()) {
        oneOf("source", "smallint", wide(filter.sources, UINT8_MAX));
    }
    if (!filter.ids.empty()) {
        oneOf("event", "integer", wide(filter.ids, UINT16_MAX));
    }
    if (!filter.sources.empty() && !filter.ids.empty() &&
        filter.sources.size() * filter.ids.size() <= MOST_KINDS) {
        oneOf("(source::integer * 65536 + event)", "integer", kindsOf(filter.sources, filter.ids));
    }
    return *this;
}

PgQuestion& PgQuestion::filters(const Search& search) {
    const evctl::EventFilter& filter = search.filter;
    const bool areKnown =
        std::ranges::all_of(filter.types, [](U32_t type) { return typeIndex(type); });
    if (!filter.types.empty() && areKnown) {
        add(" AND type IN (" + orderedTypes(filter.types) + ")"); // the index is one of some types
    } else if (!filter.types.empty()) {
        integers(" AND type = ANY(", wide(filter.types), ")");
    }
    kinds(filter);
    if (!filter.categories.empty()) {
        integers(" AND category = ANY(", wide(filter.categories), ")");
    }
    if (filter.firstSequenceId) {
        integer(" AND id >= ", *filter.firstSequenceId);
    }
    if (filter.lastSequenceId) {
        integer(" AND id <= ", *filter.lastSequenceId);
    }
    if (filter.since) {
        time(" AND time >= ", *filter.since);
    }
    if (filter.until) {
        time(" AND time <= ", *filter.until);
    }
    const sources::LogChoice& choice = filter.logs;
    if (choice.enclosure) {
        text(" AND enclosure = ", *choice.enclosure);
    }
    if (choice.blade) {
        text(" AND blade = ", *choice.blade);
    }
    if (choice.slot) {
        integer(" AND slot = ", *choice.slot);
    }
    if (choice.instance) {
        integer(" AND instance = ", *choice.instance);
    }
    return *this;
}

PgRows PgQuestion::ask(PgConnection& connection) const {
    // The same text is the same statement; it is prepared once for each connection.
    const std::string name = "web" + std::to_string(std::hash<std::string>()(sql_));
    return connection.run({name.c_str(), sql_.c_str()}, parameters_);
}

} // namespace evweb
