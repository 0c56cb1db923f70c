/**
 * @file
 * Statements that are put together, for an archive on a PostgreSQL server.
 */
#ifndef EVWEB_PG_QUESTION_H
#define EVWEB_PG_QUESTION_H

#include "postgres/pg_connection.h"
#include "view.h"

namespace evweb {

using evarchive::PgConnection;
using evarchive::PgError;
using evarchive::PgParameters;
using evarchive::PgRows;

/** A text of an enclosure or blade as the tables have it, with its bytes back. */
std::string bytesOfName(const std::string& text);

/** Reads enclosure, blade, slot and instance, from a column on. */
evarchive::SeriesKey keyOf(const PgRows& rows, int row, int column);

/** The server's own count of time: microseconds from 2000-01-01 on. Arrivals differ in it. */
constexpr S64_t SECOND = 1'000'000;
constexpr S64_t instantOf(S64_t seconds) {
    return (seconds - 946'684'800) * SECOND;
}

/** A statement, with its parameters. */
class PgQuestion {
  public:
    explicit PgQuestion(std::string sql) : sql_(std::move(sql)) {}

    PgQuestion& add(const std::string& sql) {
        sql_ += sql;
        return *this;
    }

    /** Appends texts with the parameter's place between. */
    PgQuestion& integer(const std::string& before, S64_t value, const std::string& after = "");
    PgQuestion& time(const std::string& before, S64_t seconds, const std::string& after = "");
    PgQuestion& instant(const std::string& before, S64_t value, const std::string& after = "");
    PgQuestion& text(const std::string& before, const std::string& value,
                     const std::string& after = "");
    PgQuestion& integers(const std::string& before, const std::vector<S64_t>& values,
                         const std::string& after = "");

    /** What of a search the tables can tell: " AND ..." for each filter. */
    PgQuestion& filters(const Search& search);

    PgRows ask(PgConnection& connection) const;
    const std::string& sql() const { return sql_; }

  private:
    PgQuestion& place(const std::string& before, const std::string& after);
    PgQuestion& kinds(const evctl::EventFilter& filter);

    /** Numbers of a column as wide as the column itself: an index knows no other ones. */
    PgQuestion& oneOf(const std::string& what, const char* type, const std::vector<S64_t>& values);

    std::string sql_;
    PgParameters parameters_;
    int count_ = 0;
};

/** Whether a statement took longer than the server lets it. */
inline bool isTooLong(const PgError& error) {
    return error.state() == "57014";
}

/** Does something that may be left out. @return false when there was no time for it */
template <typename Work>
bool inTime(Clock::time_point deadline, const Work& work) {
    if (Clock::now() >= deadline) {
        return false;
    }
    try {
        work();
        return true;
    } catch (const PgError& error) {
        if (!isTooLong(error)) {
            throw;
        }
        return false;
    }
}

} // namespace evweb

#endif
