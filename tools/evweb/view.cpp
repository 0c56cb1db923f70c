#include "view.h"

#include "catalog/event_text.h"
#include "common/text.h"
#include "http.h"

#include <algorithm>
#include <charconv>

namespace evweb {
namespace {

constexpr std::size_t MOST_NUMBERS = 4;
constexpr char BY_ID = 'i'; // generation, id

} // namespace

std::string shownName(std::string_view name) {
    return tools::escapedUtf8(name);
}

std::string Position::text() const {
    std::string text(1, kind);
    for (const S64_t number : numbers) {
        text += (text.size() > 1 ? "." : "") + std::to_string(number);
    }
    return text;
}

std::optional<Position> Position::parse(const std::string& text) {
    if (text.empty() || text[0] < 'a' || text[0] > 'z') {
        return std::nullopt;
    }
    Position position{.kind = text[0]};
    const char* at = text.data() + 1;
    const char* end = text.data() + text.size();
    for (;;) {
        S64_t number = 0;
        const auto [stop, error] = std::from_chars(at, end, number);
        if (error != std::errc()) {
            return std::nullopt;
        }
        position.numbers.push_back(number);
        if (stop == end) {
            return position;
        }
        if (*stop != '.' || position.numbers.size() == MOST_NUMBERS) {
            return std::nullopt;
        }
        at = stop + 1;
    }
}

Position IdPlace::position() const {
    return {BY_ID, {generation, id}};
}

IdPlace IdPlace::of(const Position& position) {
    if (position.kind != BY_ID || position.numbers.size() != 2) {
        throw Refusal(400, "'" + position.text() + "' is no place in one log");
    }
    return {position.numbers[0], position.numbers[1]};
}

bool Search::matches(const EmpEvLogHeader_t& header) const {
    return filter.matches(header);
}

bool Search::holdsText(const sources::EventView& event) const {
    return text.empty() || lowerCase(catalog::textColumn(event)).find(text) != std::string::npos;
}

std::size_t typeIndex(U32_t type) {
    return type >= EMP_E_TYPE_INFORMATION && type <= EMP_E_TYPE_ERROR ? type : 0;
}

U32_t firstInDoubt(const std::optional<evarchive::IdRun>& proven, U32_t first, U32_t last) {
    const bool isProven = proven && proven->first <= first && first <= proven->last;
    return isProven ? std::min(proven->last, last) : first;
}

U32_t Timeline::end() const {
    const U64_t end = since + U64_t{width} * buckets.size();
    return static_cast<U32_t>(std::min<U64_t>(end, U64_t{UINT32_MAX} + 1) - 1);
}

void Timeline::count(U32_t time, std::size_t type, U64_t events) {
    if (time >= since && (time - since) / width < buckets.size()) {
        buckets[(time - since) / width][type] += events;
    }
}

} // namespace evweb
