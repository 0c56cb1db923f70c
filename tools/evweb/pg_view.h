/**
 * @file
 * The pages' questions to an archive on a PostgreSQL server. Only its views are asked, as a member
 * of ev_reader may; in short statements, each with a bound of the server's own.
 */
#ifndef EVWEB_PG_VIEW_H
#define EVWEB_PG_VIEW_H

#include "pg_question.h"

#include <functional>
#include <mutex>

namespace evweb {

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
