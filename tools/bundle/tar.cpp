#include "bundle/tar.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace bundle {
namespace {

constexpr size_t BLOCK = 512;
constexpr S64_t LATEST = 077777777777; // eleven octal digits
constexpr char FILE_TYPE = '0';
constexpr char EXTENDED_TYPE = 'x'; // of the header behind it

/** The header of a member; every field is text. */
struct UstarHeader_t {
    char name[100];     //   0
    char mode[8];       // 100
    char uid[8];        // 108
    char gid[8];        // 116
    char size[12];      // 124
    char mtime[12];     // 136
    char checksum[8];   // 148
    char type;          // 156
    char linkName[100]; // 157
    char magic[6];      // 257
    char version[2];    // 263
    char userName[32];  // 265
    char groupName[32]; // 297
    char major[8];      // 329
    char minor[8];      // 337
    char prefix[155];   // 345
    char pad[12];       // 500
};
static_assert(sizeof(UstarHeader_t) == BLOCK && offsetof(UstarHeader_t, magic) == 257);

/** Octal digits with zeros before them, and a NUL behind. */
template <size_t Size>
void putOctal(char (&field)[Size], U64_t value) {
    snprintf(field, Size, "%0*llo", static_cast<int>(Size - 1),
             static_cast<unsigned long long>(value));
}

void addHeader(std::vector<U8_t>& bytes, const std::string& name, size_t size, S64_t time,
               char type) {
    UstarHeader_t header{};
    memcpy(header.name, name.data(), std::min(name.size(), sizeof(header.name)));
    putOctal(header.mode, 0644);
    putOctal(header.uid, 0);
    putOctal(header.gid, 0);
    putOctal(header.size, size);
    putOctal(header.mtime, static_cast<U64_t>(std::clamp<S64_t>(time, 0, LATEST)));
    header.type = type;
    memcpy(header.magic, "ustar", sizeof(header.magic));
    memcpy(header.version, "00", sizeof(header.version));
    // Its own field counts as blanks.
    memset(header.checksum, ' ', sizeof(header.checksum));
    std::array<U8_t, BLOCK> block{};
    memcpy(block.data(), &header, BLOCK);
    U32_t sum = 0;
    for (U8_t byte : block) {
        sum += byte;
    }
    snprintf(header.checksum, sizeof(header.checksum), "%06o", sum);
    memcpy(block.data(), &header, BLOCK);
    bytes.insert(bytes.end(), block.begin(), block.end());
}

/** To the next whole block. */
void addContent(std::vector<U8_t>& bytes, std::span<const U8_t> content) {
    bytes.insert(bytes.end(), content.begin(), content.end());
    bytes.resize((bytes.size() + BLOCK - 1) / BLOCK * BLOCK);
}

/** "30 path=..." with the length of the whole line, its own digits among it. */
std::string extendedLine(const std::string& key, const std::string& value) {
    size_t rest = key.size() + value.size() + 3; // blank, equals sign, line feed
    size_t length = rest + std::to_string(rest).size();
    length = rest + std::to_string(length).size();
    return std::to_string(length) + " " + key + "=" + value + "\n";
}

} // namespace

std::vector<U8_t> tar(const std::vector<Member>& members, U32_t time) {
    std::vector<U8_t> bytes;
    for (const Member& member : members) {
        S64_t changed = member.time.value_or(time);
        std::string extended;
        if (member.name.size() > sizeof(UstarHeader_t::name)) {
            extended += extendedLine("path", member.name);
        }
        if (changed < 0 || changed > LATEST) {
            extended += extendedLine("mtime", std::to_string(changed));
        }
        if (!extended.empty()) {
            addHeader(bytes, "extended", extended.size(), time, EXTENDED_TYPE);
            addContent(bytes, {reinterpret_cast<const U8_t*>(extended.data()), extended.size()});
        }
        addHeader(bytes, member.name, member.bytes.size(), changed, FILE_TYPE);
        addContent(bytes, member.bytes);
    }
    bytes.resize(bytes.size() + 2 * BLOCK); // the end
    return bytes;
}

} // namespace bundle
