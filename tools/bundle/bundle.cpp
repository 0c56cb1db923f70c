#include "bundle/bundle.h"

#include "common/text.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace bundle {
namespace {

constexpr size_t DIGITS = 64; // of a checksum

struct EndRead {
    void operator()(struct archive* packed) const { archive_read_free(packed); }
};
struct EndWrite {
    void operator()(struct archive* packed) const { archive_write_free(packed); }
};
struct EndEntry {
    void operator()(struct archive_entry* entry) const { archive_entry_free(entry); }
};
using Reader = std::unique_ptr<struct archive, EndRead>;
using Writer = std::unique_ptr<struct archive, EndWrite>;
using Entry = std::unique_ptr<struct archive_entry, EndEntry>;

void require(int result, struct archive* packed) {
    if (result < ARCHIVE_OK) {
        const char* reason = archive_error_string(packed);
        throw std::runtime_error(reason == nullptr ? "cannot pack" : reason);
    }
}

la_ssize_t appendTo(struct archive* /*packed*/, void* bytes, const void* piece, size_t length) {
    const auto* begin = static_cast<const U8_t*>(piece);
    auto& all = *static_cast<std::vector<U8_t>*>(bytes);
    all.insert(all.end(), begin, begin + length);
    return static_cast<la_ssize_t>(length);
}

/** One file, without a name. */
void putRaw(struct archive* packed, const std::vector<U8_t>& bytes) {
    Entry entry(archive_entry_new());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    require(archive_write_header(packed, entry.get()), packed);
    la_ssize_t count = archive_write_data(packed, bytes.data(), bytes.size());
    require(count < 0 ? ARCHIVE_FATAL : ARCHIVE_OK, packed);
}

/** Unpacks within the bounds. */
class Unpacking {
  public:
    Unpacking(std::span<const U8_t> packed, std::vector<std::string>* problems);

    std::vector<Member> run();

  private:
    void problem(const std::string& text) { problems_->push_back(text); }
    void problemOfReader();
    void take(struct archive_entry* entry);
    bool readData(Member& member);

    Reader reader_;
    std::vector<std::string>* problems_;
    std::vector<Member> members_;
    U64_t bytes_ = 0; // of all members so far
    bool ended_ = false;
};

Unpacking::Unpacking(std::span<const U8_t> packed, std::vector<std::string>* problems)
    : reader_(archive_read_new()), problems_(problems) {
    archive_read_support_format_tar(reader_.get());
    archive_read_support_filter_gzip(reader_.get());
    if (archive_read_open_memory(reader_.get(), packed.data(), packed.size()) < ARCHIVE_OK) {
        problemOfReader();
        ended_ = true;
    }
}

void Unpacking::problemOfReader() {
    const char* reason = archive_error_string(reader_.get());
    problem(reason == nullptr ? "cannot be unpacked" : tools::escapedText(reason));
}

/** @return whether the member is whole, or cut because it is too long */
bool Unpacking::readData(Member& member) {
    std::vector<U8_t> piece(65'536);
    for (;;) {
        la_ssize_t count = archive_read_data(reader_.get(), piece.data(), piece.size());
        if (count == 0) {
            return true;
        }
        if (count < 0) {
            problemOfReader();
            return false;
        }
        size_t kept = std::min(static_cast<size_t>(count), LONGEST_MEMBER - member.bytes.size());
        member.bytes.insert(member.bytes.end(), piece.begin(),
                            piece.begin() + static_cast<std::ptrdiff_t>(kept));
        bytes_ += static_cast<U64_t>(count);
        if (bytes_ > MOST_BYTES) {
            problem("more than " + std::to_string(MOST_BYTES) + " bytes; the rest is not read");
            return false;
        }
    }
}

void Unpacking::take(struct archive_entry* entry) {
    const char* name = archive_entry_pathname(entry);
    Member member = {
        .name = name == nullptr ? "" : name, .bytes = {}, .time = archive_entry_mtime(entry)};
    if (archive_entry_filetype(entry) == AE_IFDIR) {
        return;
    }
    if (archive_entry_filetype(entry) != AE_IFREG || archive_entry_hardlink(entry) != nullptr) {
        problem(tools::escapedText(member.name) + ": no regular file, passed over");
        return;
    }
    U64_t before = bytes_;
    ended_ = !readData(member);
    if (bytes_ - before > LONGEST_MEMBER) {
        problem(tools::escapedText(member.name) + ": only its first " +
                std::to_string(LONGEST_MEMBER) + " bytes are read");
    }
    members_.push_back(std::move(member));
}

std::vector<Member> Unpacking::run() {
    while (!ended_) {
        struct archive_entry* entry = nullptr;
        int result = archive_read_next_header(reader_.get(), &entry);
        if (result == ARCHIVE_EOF) {
            break;
        }
        if (result < ARCHIVE_WARN) {
            problemOfReader();
            break;
        }
        if (members_.size() == MOST_MEMBERS) {
            problem("more than " + std::to_string(MOST_MEMBERS) + " files; the rest is not read");
            break;
        }
        take(entry);
    }
    return std::move(members_);
}

struct Checksum {
    std::string digits;
    std::string name;
};

/** The name that checksumLine() escaped; empty when nothing it writes looks so. */
std::string unescapedName(const std::string& shown) {
    std::string name;
    for (size_t at = 0; at < shown.size(); at++) {
        if (shown[at] != '\\') {
            name += shown[at];
            continue;
        }
        const char letter = ++at < shown.size() ? shown[at] : '\0';
        if (letter != '\\' && letter != 'n' && letter != 'r') {
            return "";
        }
        name += letter == 'n' ? '\n' : letter == 'r' ? '\r' : letter;
    }
    return name;
}

/** What a line says; nothing when it is no checksum. */
std::optional<Checksum> checksumOf(const std::string& line) {
    const size_t start = line.starts_with('\\') ? 1 : 0;
    if (line.size() <= start + DIGITS + 2) {
        return std::nullopt;
    }
    // Two blanks, or one and the sign of binary data.
    Checksum sum = {line.substr(start, DIGITS), line.substr(start + DIGITS + 2)};
    if (start > 0) {
        sum.name = unescapedName(sum.name);
    }
    if (sum.name.empty() || sum.digits.find_first_not_of("0123456789abcdef") != std::string::npos) {
        return std::nullopt;
    }
    return sum;
}

} // namespace

std::vector<U8_t> pack(const std::vector<Member>& members, U32_t time) {
    std::vector<U8_t> bytes;
    Writer writer(archive_write_new());
    // The library's own tar takes names in the characters of the locale only.
    require(archive_write_set_format_raw(writer.get()), writer.get());
    require(archive_write_add_filter_gzip(writer.get()), writer.get());
    // Else the second in which it is packed, of the clock, stands in its head.
    require(archive_write_set_filter_option(writer.get(), "gzip", "timestamp", nullptr),
            writer.get());
    archive_write_set_bytes_in_last_block(writer.get(), 1); // no padding
    require(archive_write_open2(writer.get(), &bytes, nullptr, appendTo, nullptr, nullptr),
            writer.get());
    putRaw(writer.get(), tar(members, time));
    require(archive_write_close(writer.get()), writer.get());
    return bytes;
}

std::vector<Member> unpack(std::span<const U8_t> packed, std::vector<std::string>* problems) {
    return Unpacking(packed, problems).run();
}

void compareChecksums(const std::vector<Member>& members, std::vector<std::string>* problems) {
    auto sums = std::ranges::find_if(members, [](const Member& member) {
        return member.name.substr(member.name.rfind('/') + 1) == CHECKSUMS;
    });
    if (sums == members.end()) {
        return;
    }
    const std::string folder = sums->name.substr(0, sums->name.rfind('/') + 1);
    std::map<std::string, const Member*> unchecked;
    for (const Member& member : members) {
        unchecked[member.name] = &member;
    }
    std::istringstream lines(std::string(sums->bytes.begin(), sums->bytes.end()));
    for (std::string line; std::getline(lines, line);) {
        const std::optional<Checksum> sum = checksumOf(line);
        if (!sum) {
            problems->push_back(std::string(CHECKSUMS) + ": a line that is no checksum");
            return;
        }
        auto member = unchecked.find(folder + sum->name);
        if (member == unchecked.end()) {
            problems->push_back(tools::escapedText(sum->name) +
                                ": has a checksum, and is not there");
            continue;
        }
        // Once: a hostile bundle may name a long member a thousand times.
        const Member* compared = std::exchange(member->second, nullptr);
        if (compared != nullptr && sha256(compared->bytes) != sum->digits) {
            problems->push_back(tools::escapedText(sum->name) +
                                ": does not agree with its checksum");
        }
    }
}

} // namespace bundle
