#include "pg_view.h"

#include "http.h"
#include "pg_events.h"
#include "pg_logs.h"

namespace evweb {
namespace {

constexpr char SET_UP[] = "SET default_transaction_read_only = on; SET application_name = evweb; "
                          // Dearer than what they are to save.
                          "SET jit = off; SET max_parallel_workers_per_gather = 0; "
                          // What is sorted is bounded: CROWD events.
                          "SET work_mem = '16MB'";

// Of a connection: its server keeps each form of a question.
constexpr U32_t MOST_USES = 500;

} // namespace

template <typename Result>
Result PgView::with(const std::function<Result(PgConnection&, Clock::time_point)>& work) {
    Used used;
    {
        const std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            used = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    if (!used.connection || !used.connection->isOpen() || used.uses >= MOST_USES) {
        used = {std::make_unique<PgConnection>(
                    place_, evarchive::PgPatience{patience_, std::chrono::milliseconds(500)}),
                0};
        used.connection->execute(SET_UP);
    }
    Result result = work(*used.connection, Clock::now() + patience_);
    ++used.uses;
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(used));
    return result;
}

ViewStatus PgView::status() {
    return with<ViewStatus>([](PgConnection& connection, Clock::time_point deadline) {
        ViewStatus status{.engine = "PostgreSQL"};
        const PgQuestion size("SELECT pg_database_size(current_database())");
        status.bytes = static_cast<U64_t>(size.ask(connection).integer(0, 0));
        inTime(deadline, [&] {
            const PgRows rows = PgQuestion("SELECT max(seen) FROM blade_list").ask(connection);
            if (!rows.isNull(0, 0)) {
                status.newest = rows.time(0, 0);
            }
        });
        return status;
    });
}

Overview PgView::logs(const LogSearch& search) {
    return with<Overview>([&](PgConnection& connection, Clock::time_point deadline) {
        return listLogs(connection, search, deadline);
    });
}

LogDetail PgView::log(S64_t log) {
    return with<LogDetail>([&](PgConnection& connection, Clock::time_point deadline) {
        return logDetail(connection, log, deadline);
    });
}

Page PgView::search(const Search& search) {
    return with<Page>([&](PgConnection& connection, Clock::time_point deadline) {
        return searchEvents(connection, search, deadline);
    });
}

Page PgView::around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) {
    return with<Page>([&](PgConnection& connection, Clock::time_point deadline) {
        const U32_t newest = newestGeneration(connection, log);
        const Search search{.log = log, .generation = generation.value_or(newest), .limit = reach};
        return eventsAround(connection, search, id, deadline);
    });
}

std::optional<FoundEvent> PgView::event(S64_t log, U32_t generation, U32_t id) {
    return with<std::optional<FoundEvent>>(
        [&](PgConnection& connection, Clock::time_point /*deadline*/) {
            return oneEvent(connection, log, generation, id);
        });
}

Tail PgView::tail(const Search& search, const std::optional<Position>& after) {
    return with<Tail>([&](PgConnection& connection, Clock::time_point deadline) {
        return eventsSince(connection, search, after, deadline);
    });
}

void PgView::count(const Search& search, Timeline& timeline) {
    if (!search.text.empty()) {
        throw Refusal(400, "text: a timeline of this archive cannot look into texts");
    }
    const bool hasTypes = !search.filter.types.empty();
    timeline.isCut = with<bool>([&](PgConnection& connection, Clock::time_point deadline) {
        if (countEvents(connection, search, timeline, deadline, !hasTypes)) {
            return false;
        }
        if (hasTypes) {
            return true;
        }
        // Warnings and errors have an index of their own.
        Search grave = search;
        grave.filter.types = {EMP_E_TYPE_WARNING, EMP_E_TYPE_ERROR};
        timeline.buckets.assign(timeline.buckets.size(), {});
        timeline.isOnlyGrave = true;
        return !countEvents(connection, grave, timeline, deadline, false);
    });
}

std::unique_ptr<View> openPgView(const std::string& place, std::chrono::milliseconds patience) {
    return std::make_unique<PgView>(place, patience);
}

} // namespace evweb
