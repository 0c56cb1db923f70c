#include "feed.h"

#include "engine.h"

#include <fstream>
#include <stdexcept>
#include <string_view>

namespace evbridge {
namespace {

// Also one without any log yet.
constexpr std::string_view ARCHIVE_START = "SQLite format 3";

constexpr std::size_t SKIPPED_AT_A_TIME = 500;

bool isArchive(const std::string& from) {
    if (evarchive::isPgPlace(from)) {
        return true;
    }
    std::ifstream file(from);
    if (!file) {
        throw std::runtime_error(from + ": there is no such file, or it cannot be read");
    }
    std::string start(ARCHIVE_START.size(), '\0');
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    return start == ARCHIVE_START;
}

} // namespace

std::optional<U64_t> Feed::skip() {
    U64_t skipped = 0;
    for (std::size_t got = 1; got > 0;) {
        got = more(SKIPPED_AT_A_TIME).size();
        skipped += got;
        taken();
    }
    return skipped;
}

std::unique_ptr<Feed> openFeed(const FeedOptions& from, const std::string& position,
                               const evarchive::Say& say) {
    using Kind = FeedOptions::Kind;
    if (from.kind == Kind::BLADE) {
        return bladeFeed(from.key, from.endpoint, position);
    }
    Kind kind = from.kind;
    if (kind == Kind::GUESSED) {
        kind = isArchive(from.place) ? Kind::ARCHIVE : Kind::LOG;
    }
#ifdef EVARCHIVER_POSTGRES
    if (kind == Kind::ARCHIVE && evarchive::isPgPlace(from.place)) {
        return arrivalFeed(from, position, say);
    }
#endif
    return kind == Kind::ARCHIVE ? archiveFeed(from.place, position, say)
                                 : logFeed(from.place, position);
}

} // namespace evbridge
