#include "evlog/guess.h"

#include "evlog/search.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

struct Magic_t {
    size_t offset;
    std::string_view bytes;
    const char* meaning;
};

using namespace std::string_view_literals;

constexpr Magic_t MAGICS[] = {
    {0, "SQLite format 3\0"sv, "an SQLite database ('evctl archive' reads archives)"},
    {0, "\x1F\x8B"sv, "compressed with gzip"},
    {0, "\x28\xB5\x2F\xFD"sv, "compressed with zstd"},
    {0, "\xFD\x37zXZ"sv, "compressed with xz"},
    {0, "BZh"sv, "compressed with bzip2"},
    {0, "PK\x03\x04"sv, "a zip archive"},
    {257, "ustar"sv, "a tar archive"},
    {0, "\x7F\x45LF"sv, "a program, a library or a core dump"},
    {0, "\xD4\xC3\xB2\xA1"sv, "a network capture"},
    {0, "\xA1\xB2\xC3\xD4"sv, "a network capture"},
    {0, "\x0A\x0D\x0D\x0A"sv, "a network capture"},
    {0, "{"sv, "JSON"},
    {0, "["sv, "JSON"},
};

// An image of the parameter block, as its configuration file.
constexpr U64_t PARAMETER_BLOCK_SIZE = 744;

bool isText(std::span<const U8_t> bytes) {
    return std::ranges::all_of(bytes, [](U8_t byte) {
        return byte >= 0x20 ? byte != 0x7F : isspace(byte) != 0 || byte == 0x1B;
    });
}

} // namespace

bool evlogIsLog(const EvlogImage_t& image) {
    std::span<const U8_t> bytes = image.bytes;
    if (image.fileSize == EMP_LOG_FILE_SIZE) {
        return true;
    }
    if (bytes.size() >= EMP_RECORD_SIZE &&
        evlogJudgeHeader(*evlogHeaderAt(bytes, 0)) != EVLOG_E_REASON_NO_HEADER) {
        return true;
    }
    return EvlogFinder_t(bytes).next(0).found.has_value();
}

const char* evlogGuess(const EvlogImage_t& image) {
    std::string_view text(reinterpret_cast<const char*>(image.bytes.data()), image.bytes.size());
    if (text.empty()) {
        return "empty";
    }
    for (const Magic_t& magic : MAGICS) {
        if (text.size() >= magic.offset && text.substr(magic.offset).starts_with(magic.bytes)) {
            return magic.meaning;
        }
    }
    if (text.find_first_not_of('\0') == std::string_view::npos) {
        return "nothing but zeros";
    }
    if (image.fileSize == PARAMETER_BLOCK_SIZE) {
        return "an image of a parameter block";
    }
    return isText(image.bytes) ? "text" : "data of an unknown kind";
}
