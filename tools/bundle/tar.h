/**
 * @file
 * Files packed into one as tar, without any library: also on the board.
 */
#ifndef BUNDLE_TAR_H
#define BUNDLE_TAR_H

#include "fixed_width.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace bundle {

/** A regular file. */
struct Member {
    std::string name; ///< with "/" between its parts; from elsewhere it may be anything
    std::vector<U8_t> bytes;
    std::optional<S64_t> time{}; ///< of its last change, seconds since 1970; to be packed: nothing
                                 ///< stands for that of the bundle
};

/** The member that has the checksums of the others, as sha256sum writes them: names are those of
 * members in the same directory of the bundle. */
constexpr char CHECKSUMS[] = "SHA256SUMS";

/** Members in their order, not compressed: ustar, with an extended header (pax) before a member
 * whose name or time has no room in its own. @param time of members that have none */
std::vector<U8_t> tar(const std::vector<Member>& members, U32_t time);

/** SHA-256 as 64 hexadecimal digits. */
std::string sha256(std::span<const U8_t> bytes);

/** A line of CHECKSUMS: a backslash before the digits says that those of the name, and its ends of
 * lines, are escaped. @param name of the member, as seen from the directory of CHECKSUMS */
std::string checksumLine(const std::string& name, std::span<const U8_t> bytes);

} // namespace bundle

#endif
