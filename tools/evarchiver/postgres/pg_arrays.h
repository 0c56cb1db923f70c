/**
 * @file
 * Values and one-dimensional arrays in the form in which a PostgreSQL server takes and sends them
 * in binary: big-endian.
 */
#ifndef EVARCHIVER_PG_ARRAYS_H
#define EVARCHIVER_PG_ARRAYS_H

#include "protocol.h"

#include <optional>

namespace evarchive {

/** Types of the server, by its fixed numbers. */
enum class PgType : U32_t {
    BOOLEAN = 16,
    BYTEA = 17,
    BIGINT = 20,
    SMALLINT = 21,
    INTEGER = 23,
    TEXT = 25,
    TIMESTAMPTZ = 1184,
};

/** The type of an array of these. */
U32_t arrayTypeOf(PgType element);

/** Appends a number's low bytes, big-endian. @param size 1, 2, 4 or 8 */
void putNumber(Bytes& bytes, S64_t value, unsigned size);

/** Microseconds since 2000-01-01, as timestamptz counts, of seconds since 1970-01-01. */
constexpr S64_t pgTime(S64_t seconds) {
    return (seconds - 946'684'800) * 1'000'000;
}

/** Seconds since 1970-01-01, rounded down. */
constexpr S64_t secondsOfPgTime(S64_t microseconds) {
    const S64_t seconds = microseconds / 1'000'000 - (microseconds % 1'000'000 < 0 ? 1 : 0);
    return seconds + 946'684'800;
}

/** An array that grows at its end. */
class PgArray {
  public:
    explicit PgArray(PgType element);

    void addNumber(S64_t value); ///< as wide as the type; booleans are 0 and 1
    void addBytes(View value);
    void addNull();

    /** The whole array, as a parameter. Valid until the next call. */
    View finish();

    PgType element() const { return element_; }
    U32_t size() const { return size_; }
    void clear();

  private:
    PgType element_;
    unsigned width_; ///< of a number, 0: of varying length
    U32_t size_ = 0;
    bool hasNull_ = false;
    Bytes bytes_;
};

} // namespace evarchive

#endif
