/**
 * @file
 * The pages' questions to an archive on a PostgreSQL server. Only its views are asked, as a member
 * of ev_reader may; in short statements, each with a bound of the server's own.
 *
 * Events of all logs are listed by the second of their arrival, then by log, generation and id. The
 * index of arrivals is one of stretches: so a search goes back in stretches that grow.
 */
#ifndef EVWEB_PG_VIEW_H
#define EVWEB_PG_VIEW_H

#include "postgres/pg_connection.h"
#include "view.h"

#include <functional>
#include <mutex>

namespace evweb {

using evarchive::PgConnection;
using evarchive::PgParameters;
using evarchive::PgRows;

/** A text of an enclosure or blade as the tables have it, with its bytes back. */
std::string bytesOfName(const std::string& text);

/** A statement that is put together, with its parameters. */
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

    std::string sql_;
    PgParameters parameters_;
    int count_ = 0;
};

class PgView final : public View {
  public:
    PgView(std::string place, std::chrono::milliseconds patience)
        : place_(std::move(place)), patience_(patience) {}

    ViewStatus status() override;
    Overview logs(const LogSearch& search) override;
    LogDetail log(S64_t log) override;
    Page search(const Search& search) override;
    Page around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) override;
    std::optional<FoundEvent> event(S64_t log, U32_t generation, U32_t id) override;
    Tail tail(const Search& search, const std::optional<Position>& after) override;
    void count(const Search& search, Timeline& timeline) override;

  private:
    struct Used {
        std::unique_ptr<PgConnection> connection{};
        U32_t uses = 0;
    };

    /** Does something with a connection that nobody else has. One that fails is not used again. */
    template <typename Result>
    Result with(const std::function<Result(PgConnection&, Clock::time_point)>& work);

    std::string place_;
    std::chrono::milliseconds patience_;
    std::mutex mutex_;
    std::vector<Used> idle_;
};

} // namespace evweb

#endif
