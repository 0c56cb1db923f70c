/**
 * @file
 * The number of a log: any archiver computes it, nobody hands it out.
 */
#ifndef EVARCHIVER_LOG_NUMBER_H
#define EVARCHIVER_LOG_NUMBER_H

#include "store.h"

namespace evarchive {

/** Salts that are tried when another log has the number already. */
constexpr U8_t MOST_SALTS = 8;

/** A log's identity as bytes, from which its key can be had again: length (2 bytes) and text of
 * enclosure, the same of blade, slot and instance (4 bytes each), all big-endian. Texts are cut at
 * EMP_ID_TEXT_SIZE. */
Bytes identityOf(const SeriesKey& key);

/** The key of an identity. Throws StoreError when the bytes are none. */
SeriesKey keyOfIdentity(View identity);

/** First 8 bytes, big-endian and signed, of SHA-256 over the identity and the salt (1 byte); the
 * first two of them are those of salt 0. */
SeriesNumber logNumber(View identity, U8_t salt = 0);

/** Servers that an archive can be spread over at most. */
constexpr U32_t MOST_NODES = 1024;

/** Which of so many servers has a log, from 0 on: each has as many numbers, one behind the other.
 * The number's first two bytes tell. */
U32_t nodeOf(SeriesNumber log, U32_t nodes);

/** The lowest number of a server's logs. @param node up to @p nodes, whose numbers would begin
 * behind the highest one; nothing for that */
std::optional<SeriesNumber> firstLogOf(U32_t node, U32_t nodes);

/** SHA-256. */
Bytes digestOf(View bytes);

} // namespace evarchive

#endif
