/**
 * @file
 * Bundles: files packed into one, as tar compressed with gzip.
 *
 * What is unpacked stays in memory: its names are never used as paths. Any bytes may be given.
 */
#ifndef BUNDLE_BUNDLE_H
#define BUNDLE_BUNDLE_H

#include "bundle/tar.h"

namespace bundle {

/** Of a longer member only so much is kept. */
constexpr size_t LONGEST_MEMBER = 4U << 20U;
/** Nothing is read behind so many members, or so many bytes of them. */
constexpr size_t MOST_MEMBERS = 10'000;
constexpr U64_t MOST_BYTES = 64U << 20U;

/** Packs members, in their order, and compresses them. @param time seconds since 1970, of members
 * that have none Throws std::runtime_error. */
std::vector<U8_t> pack(const std::vector<Member>& members, U32_t time);

/**
 * The regular files of a bundle, compressed or not; links, devices and directories are passed over.
 * @param problems receives what is wrong, a line each, fit to be shown
 */
std::vector<Member> unpack(std::span<const U8_t> packed, std::vector<std::string>* problems);

/** Compares members with the checksums among them, if there are any.
 * @param problems receives which do not agree, or are not there; a line each, fit to be shown */
void compareChecksums(const std::vector<Member>& members, std::vector<std::string>* problems);

} // namespace bundle

#endif
