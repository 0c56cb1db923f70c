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

/** First 8 bytes, big-endian and signed, of SHA-256 over the identity and the salt (1 byte). */
SeriesNumber logNumber(View identity, U8_t salt = 0);

/** SHA-256. */
Bytes digestOf(View bytes);

} // namespace evarchive

#endif
