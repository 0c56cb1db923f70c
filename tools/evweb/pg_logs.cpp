#include "pg_logs.h"

#include "http.h"

#include <algorithm>
#include <ctime>
#include <span>

namespace evweb {
namespace {

constexpr S64_t LATELY = 3600;
constexpr S64_t IDS_LOOKED_AT = 20'000;
constexpr std::size_t LOGS_AT_A_TIME = 10;
constexpr std::size_t MOST_RUNS = 500;
constexpr U32_t MOST_GENERATIONS = 50;

constexpr char LOGS[] = "SELECT log, enclosure, blade, slot, instance, generation, opened, "
                        "duplicates, run_first, run_last, seen, "
                        // Archives of earlier archivers do not have it.
                        "(to_jsonb(blade_list) ->> 'ring_first')::bigint "
                        "FROM blade_list WHERE true";

S64_t numberOr(const PgRows& rows, int row, int column, S64_t other) {
    return rows.isNull(row, column) ? other : rows.integer(row, column);
}

LogInfo infoOf(const PgRows& rows, int row) {
    LogInfo info{.log = rows.integer(row, 0), .key = keyOf(rows, row, 1)};
    info.generation = static_cast<U32_t>(rows.integer(row, 5));
    info.opened = rows.isNull(row, 6) ? -1 : rows.time(row, 6);
    info.duplicates = static_cast<U64_t>(numberOr(rows, row, 7, 0));
    if (!rows.isNull(row, 8)) {
        info.proven = {static_cast<U32_t>(rows.integer(row, 8)),
                       static_cast<U32_t>(rows.integer(row, 9))};
    }
    if (!rows.isNull(row, 10)) {
        info.seen = rows.time(row, 10);
    }
    if (!rows.isNull(row, 11)) {
        info.ringFirst = static_cast<U32_t>(rows.integer(row, 11));
    }
    return info;
}

template <typename Number>
std::vector<S64_t> numbersOf(std::span<const LogInfo> logs, Number LogInfo::*number) {
    std::vector<S64_t> numbers;
    for (const LogInfo& info : logs) {
        numbers.push_back(info.*number);
    }
    return numbers;
}

LogInfo* infoOf(std::span<LogInfo> logs, S64_t log) {
    const auto found = std::ranges::find(logs, log, &LogInfo::log);
    return found == logs.end() ? nullptr : &*found;
}

void addEnds(PgConnection& connection, std::vector<LogInfo>& logs) {
    const std::string of = "FROM event_list WHERE log = l.log AND generation = l.generation ";
    PgQuestion question("SELECT l.log, f.id, e.id, e.time, e.received FROM unnest(");
    question.integers("", numbersOf<S64_t>(logs, &LogInfo::log), "::bigint[], ")
        .integers("", numbersOf<U32_t>(logs, &LogInfo::generation),
                  "::bigint[]) AS l(log, generation) ")
        .add("JOIN LATERAL (SELECT id, time, received " + of +
             "ORDER BY id DESC LIMIT 1) e ON true ")
        .add("JOIN LATERAL (SELECT id " + of + "ORDER BY id LIMIT 1) f ON true");
    const PgRows rows = question.ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        if (LogInfo* info = infoOf(logs, rows.integer(row, 0))) {
            info->firstId = static_cast<U32_t>(rows.integer(row, 1));
            info->lastId = static_cast<U32_t>(rows.integer(row, 2));
            info->lastTime = static_cast<U32_t>(rows.time(row, 3));
            info->lastReceived = rows.time(row, 4);
        }
    }
}

/** Counts what came lately, of all types. */
void addLately(PgConnection& connection, std::vector<LogInfo>& logs) {
    PgQuestion question("SELECT log, type, count(*) FROM event_list WHERE own");
    question.time(" AND received >= ", time(nullptr) - LATELY)
        .integers(" AND log = ANY(", numbersOf<S64_t>(logs, &LogInfo::log), ") GROUP BY 1, 2");
    const PgRows rows = question.ask(connection);
    for (LogInfo& info : logs) {
        info.lately.emplace();
    }
    for (int row = 0; row < rows.count(); ++row) {
        if (LogInfo* info = infoOf(logs, rows.integer(row, 0))) {
            (*info->lately)[typeIndex(static_cast<U32_t>(rows.integer(row, 1)))] +=
                static_cast<U64_t>(rows.integer(row, 2));
        }
    }
}

/** Counts ids that are not held between others; of each log only so many are looked at. */
void addMissing(PgConnection& connection, std::span<LogInfo> logs) {
    std::vector<S64_t> firsts;
    for (const LogInfo& info : logs) {
        firsts.push_back(
            firstInDoubt(info.proven, info.firstId.value_or(0), info.lastId.value_or(0)));
    }
    PgQuestion question("SELECT l.log, g.* FROM unnest(");
    question.integers("", numbersOf<S64_t>(logs, &LogInfo::log), "::bigint[], ")
        .integers("", numbersOf<U32_t>(logs, &LogInfo::generation), "::bigint[], ")
        .integers("", firsts, "::bigint[]) AS l(log, generation, first) JOIN LATERAL ")
        .add("(SELECT count(*), coalesce(sum(id - before - 1), 0)::bigint FROM "
             "(SELECT id, lag(id) OVER (ORDER BY id) AS before FROM "
             "(SELECT id FROM event_list WHERE log = l.log AND generation = l.generation ")
        .integer("AND id >= l.first ORDER BY id LIMIT ", IDS_LOOKED_AT, ") i) b) g ON true");
    const PgRows rows = question.ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        LogInfo* info = infoOf(logs, rows.integer(row, 0));
        if (info != nullptr && rows.integer(row, 1) < IDS_LOOKED_AT) {
            info->missing = static_cast<U64_t>(rows.integer(row, 2));
        }
    }
}

/** What there is time for. */
void addDetails(PgConnection& connection, std::vector<LogInfo>& logs, Clock::time_point deadline) {
    inTime(deadline, [&] { addEnds(connection, logs); });
    for (std::size_t at = 0; at < logs.size(); at += LOGS_AT_A_TIME) {
        inTime(deadline, [&] {
            addMissing(connection, std::span(logs).subspan(at).first(
                                       std::min(LOGS_AT_A_TIME, logs.size() - at)));
        });
    }
}

/** The key of the log that a list goes on behind. */
void addBehind(PgConnection& connection, PgQuestion& question, S64_t log) {
    const PgRows rows = PgQuestion(LOGS).integer(" AND log = ", log).ask(connection);
    if (rows.count() == 0) {
        throw Refusal(400, "behind: the archive has no such log");
    }
    question.text(" AND (enclosure, blade, slot, instance) > (", rows.text(0, 1))
        .text(", ", rows.text(0, 2))
        .integer(", ", rows.integer(0, 3))
        .integer(", ", rows.integer(0, 4), ")");
}

void addNamed(PgQuestion& question, const LogSearch& search) {
    if (!search.find.empty()) {
        // Letters of ASCII only, whatever the database's locale.
        question.text(" AND (strpos(lower(enclosure COLLATE \"C\"), ", search.find, ") > 0")
            .text(" OR strpos(lower(blade COLLATE \"C\"), ", search.find, ") > 0)");
    }
}

/** One more than are wanted, where there is one. */
PgRows logsByName(PgConnection& connection, const LogSearch& search) {
    PgQuestion question(LOGS);
    addNamed(question, search);
    if (search.behind) {
        addBehind(connection, question, *search.behind);
    }
    return question
        .integer(" ORDER BY enclosure, blade, slot, instance LIMIT ", S64_t{search.limit} + 1)
        .ask(connection);
}

/** Warnings and errors that happened in the last hour, and came in it: by their own time alone they
 * have an index, and by that alone those of a clock that is ahead were of that hour for years. */
PgQuestion graveLately(const std::string& what) {
    PgQuestion question("SELECT " + what + " FROM event_list WHERE own AND type IN (2, 3)");
    const S64_t since = time(nullptr) - LATELY;
    return question.time(" AND time >= ", since).time(" AND received >= ", since);
}

PgRows worstLogs(PgConnection& connection, const LogSearch& search) {
    PgQuestion worst = graveLately("log");
    addNamed(worst, search);
    const PgRows found =
        worst
            .add(" GROUP BY log ORDER BY count(*) FILTER (WHERE type = 3) DESC, count(*) DESC, log")
            .integer(" LIMIT ", search.limit)
            .ask(connection);
    std::vector<S64_t> logs;
    for (int row = 0; row < found.count(); ++row) {
        logs.push_back(found.integer(row, 0));
    }
    PgQuestion question(LOGS);
    return question.integers(" AND log = ANY(", logs, ")")
        .integers(" ORDER BY array_position(", logs, "::bigint[], log)")
        .ask(connection);
}

TypeCounts countGrave(PgConnection& connection) {
    const PgRows rows = graveLately("type, count(*)").add(" GROUP BY type").ask(connection);
    TypeCounts counts{};
    for (int row = 0; row < rows.count(); ++row) {
        counts[typeIndex(static_cast<U32_t>(rows.integer(row, 0)))] =
            static_cast<U64_t>(rows.integer(row, 1));
    }
    return counts;
}

void addRun(const PgRows& rows, int row, GenerationView& view) {
    const evarchive::IdRun run{static_cast<U32_t>(rows.integer(row, 0)),
                               static_cast<U32_t>(rows.integer(row, 1))};
    view.runs.push_back(run);
    view.events += U64_t{run.last} - run.first + 1;
}

void addEnds(PgConnection& connection, GenerationView& view) {
    const std::string some = "(SELECT time, received FROM event_list WHERE log = ";
    PgQuestion question("SELECT f.time, l.time, l.received FROM ");
    question.integer(some, view.info.number.series)
        .integer(" AND generation = ", view.info.number.generation, " ORDER BY id LIMIT 1) f, ")
        .integer(some, view.info.number.series)
        .integer(" AND generation = ", view.info.number.generation, " ORDER BY id DESC LIMIT 1) l");
    const PgRows rows = question.ask(connection);
    if (rows.count() > 0) {
        view.firstTime = static_cast<U32_t>(rows.time(0, 0));
        view.lastTime = static_cast<U32_t>(rows.time(0, 1));
        view.lastReceived = rows.time(0, 2);
    }
}

GenerationView generationOf(PgConnection& connection, Clock::time_point deadline,
                            const LogInfo& info, U32_t generation) {
    GenerationView view;
    view.info.number = {info.log, generation};
    view.info.opened = generation == info.generation ? info.opened : -1;
    view.info.duplicates = generation == info.generation ? info.duplicates : 0;
    PgQuestion question("SELECT min(id), max(id) FROM "
                        "(SELECT id, id - row_number() OVER (ORDER BY id) AS hole "
                        "FROM event_list WHERE ");
    question.integer("log = ", info.log)
        .integer(" AND generation = ", generation)
        .integer(") r GROUP BY hole ORDER BY 1 LIMIT ", MOST_RUNS + 1);
    const bool isAsked = inTime(deadline, [&] {
        const PgRows rows = question.ask(connection);
        view.isCut = rows.count() > static_cast<int>(MOST_RUNS);
        for (int row = 0; row < rows.count() && view.runs.size() < MOST_RUNS; ++row) {
            addRun(rows, row, view);
        }
    });
    view.isCut = view.isCut || !isAsked;
    inTime(deadline, [&] { addEnds(connection, view); });
    return view;
}

/** The row of a log. Throws Refusal when there is none. */
PgRows rowOf(PgConnection& connection, S64_t log) {
    PgRows rows = PgQuestion(LOGS).integer(" AND log = ", log).ask(connection);
    if (rows.count() == 0) {
        throw Refusal(404, "the archive has no log " + std::to_string(log));
    }
    return rows;
}

} // namespace

Overview listLogs(PgConnection& connection, const LogSearch& search, Clock::time_point deadline) {
    Overview overview;
    const PgRows rows =
        search.isWorstFirst ? worstLogs(connection, search) : logsByName(connection, search);
    for (int row = 0; row < rows.count() && overview.logs.size() < search.limit; ++row) {
        overview.logs.push_back(infoOf(rows, row));
    }
    if (static_cast<U32_t>(rows.count()) > search.limit) {
        overview.next = overview.logs.back().log;
    }
    inTime(deadline, [&] { overview.lately = countGrave(connection); });
    inTime(deadline, [&] {
        addLately(connection, overview.logs);
        overview.windowSeconds = LATELY;
    });
    inTime(deadline, [&] {
        const PgQuestion question("SELECT count(*) FROM blade_list");
        overview.known = static_cast<U64_t>(question.ask(connection).integer(0, 0));
    });
    addDetails(connection, overview.logs, deadline);
    return overview;
}

U32_t newestGeneration(PgConnection& connection, S64_t log) {
    return infoOf(rowOf(connection, log), 0).generation;
}

LogDetail logDetail(PgConnection& connection, S64_t log, Clock::time_point deadline) {
    std::vector<LogInfo> one = {infoOf(rowOf(connection, log), 0)};
    addDetails(connection, one, deadline);
    inTime(deadline, [&] { addLately(connection, one); });
    LogDetail detail{.info = one.front()};
    for (U32_t generation = detail.info.generation;
         generation > 0 && detail.generations.size() < MOST_GENERATIONS && Clock::now() < deadline;
         --generation) {
        detail.generations.push_back(generationOf(connection, deadline, detail.info, generation));
    }
    return detail;
}

} // namespace evweb
