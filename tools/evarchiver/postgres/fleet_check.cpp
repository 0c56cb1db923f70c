#include "archive.h"
#include "common/text.h"
#include "fleet_database.h"
#include "fleet_hub.h"
#include "fleet_partitions.h"
#include "log_number.h"

namespace evarchive {
namespace {

// Damage is found by reading all; who has too much for that is told so.
constexpr std::chrono::minutes LONGEST_LOOK{10};

// Of each kind; the rest is only counted.
constexpr int MOST_NAMED = 20;

constexpr PgStatement MISSING_VIEWS{
    "missing_views", "SELECT name FROM unnest(ARRAY['blade_list', 'event_list', 'gap_list', "
                     "'set_aside_list']) AS name WHERE to_regclass(name) IS NULL"};

constexpr PgStatement ALL_LOGS{"all_logs", "SELECT log, identity, enclosure, blade, slot, instance "
                                           "FROM logs ORDER BY log"};

/** Rows of generations without their log, and logs without the row of their newest generation. */
constexpr PgStatement LOOSE_ROWS{
    "loose_rows",
    "SELECT coalesce(l.log, g.log), coalesce(g.generation, l.generation), l.log IS NULL, "
    "g.log IS NULL FROM generations g FULL JOIN logs l ON l.log = g.log "
    "WHERE (l.log IS NULL OR g.log IS NULL OR g.generation > l.generation) "
    "AND NOT (g.log IS NULL AND l.generation = 0) "
    "UNION ALL SELECT l.log, l.generation, false, true FROM logs l WHERE l.generation > 0 "
    "AND EXISTS (SELECT FROM generations g WHERE g.log = l.log) AND NOT EXISTS (SELECT FROM "
    "generations g WHERE g.log = l.log AND g.generation = l.generation) ORDER BY 1, 2"};

/** What each generation of a log holds, where that is not as its rows say: the events of it, an id
 * that is held twice, events of numbers that there are not, the highest id, what was promised to
 * the blade, whether there is a log, a generation.
 * What retention took is a run of the generation's row; it takes what is old, so not what is behind
 * an event that it left. What a log without any event had may all have gone, once something has. */
constexpr PgStatement HELD_OTHERWISE{
    "held_otherwise",
    "WITH held AS (SELECT log, generation, sum(n)::bigint AS events, sum(odd)::bigint AS odd, "
    "min(id) FILTER (WHERE n > 1) AS twice, max(id) AS last FROM (SELECT log, generation, id, "
    "count(*) AS n, count(*) FILTER (WHERE id NOT BETWEEN 0 AND 4294967295 "
    "OR event NOT BETWEEN 0 AND 65535 OR source NOT BETWEEN 0 AND 255 "
    "OR type NOT BETWEEN 0 AND 255 OR category NOT BETWEEN 0 AND 255 "
    "OR idversion NOT BETWEEN 0 AND 255) AS odd FROM events GROUP BY log, generation, id) i "
    "GROUP BY log, generation), "
    "told AS (SELECT h.log, h.generation, h.events, h.odd, h.twice, "
    "coalesce(h.last, -1) AS last, NULL::bigint AS promised, "
    "EXISTS (SELECT FROM logs l WHERE l.log = h.log) AS has_log, EXISTS (SELECT FROM generations g "
    "WHERE g.log = h.log AND g.generation = h.generation) AS has_generation FROM held h "
    "UNION ALL SELECT l.log, l.generation, 0, 0, NULL, coalesce(h.last, -1), l.run_last, true, "
    "true FROM logs l LEFT JOIN held h ON h.log = l.log AND h.generation = l.generation "
    "LEFT JOIN generations g ON g.log = l.log AND g.generation = l.generation "
    "WHERE l.run_last > greatest(h.last, g.run_last, -1) AND (h.last IS NOT NULL "
    "OR NOT EXISTS (SELECT FROM meta WHERE name = 'dropped_before'))) "
    "SELECT * FROM told WHERE NOT has_log OR NOT has_generation OR twice IS NOT NULL OR odd > 0 "
    "OR promised IS NOT NULL ORDER BY log, generation"};

/** Logs whose newest generation holds ids that are higher than their rows say that any is: who
 * files goes by the row, and takes such an id for a free one. */
constexpr PgStatement HELD_BEYOND{
    "held_beyond",
    "SELECT l.log, l.generation, b.events, b.last, l.highest FROM logs l CROSS JOIN LATERAL "
    "(SELECT count(*) AS events, max(e.id) AS last FROM events e WHERE e.log = l.log "
    "AND e.generation = l.generation AND e.id > coalesce(l.highest, -1)) b "
    "WHERE b.events > 0 ORDER BY l.log"};

/** Lines, each a finding; behind some of them only how many more. */
class Findings {
  public:
    explicit Findings(std::ostream& out) : out_(out) {}

    void add(const std::string& line) {
        if (++count_ <= MOST_NAMED) {
            out_ << line << "\n";
        }
    }

    U64_t end() {
        if (count_ > MOST_NAMED) {
            out_ << "... and " << count_ - MOST_NAMED << " more like these\n";
        }
        return count_;
    }

  private:
    std::ostream& out_;
    U64_t count_ = 0;
};

std::string generationText(const PgRows& rows, int row) {
    return "log " + std::to_string(rows.integer(row, 0)) + " generation " +
           std::to_string(rows.integer(row, 1));
}

/** What is wrong with a log's row by itself; "": nothing. */
std::string faultOfLog(const PgRows& rows, int row) {
    const Bytes identity = rows.bytes(row, 1);
    SeriesKey key;
    try {
        key = keyOfIdentity(identity);
    } catch (const StoreError&) {
        return "its identity is none; no program can read the log";
    }
    bool isNumber = false;
    for (U8_t salt = 0; salt < MOST_SALTS; ++salt) {
        isNumber = isNumber || logNumber(identity, salt) == rows.integer(row, 0);
    }
    if (!isNumber) {
        return "its number is not that of its identity, " + nameOf(key);
    }
    const bool isNamed = rows.text(row, 2) == tools::escapedUtf8(key.blade.enclosure) &&
                         rows.text(row, 3) == tools::escapedUtf8(key.blade.blade) &&
                         rows.integer(row, 4) == key.blade.slot &&
                         rows.integer(row, 5) == key.instance;
    return isNamed ? "" : "its names are not those of its identity, " + nameOf(key);
}

void findLooseViews(PgConnection& connection, Findings& findings) {
    const PgRows rows = connection.run(MISSING_VIEWS);
    for (int row = 0; row < rows.count(); ++row) {
        findings.add("the view " + rows.text(row, 0) +
                     " is missing; \"evarchiver db upgrade\" makes it");
    }
}

void findWrongLogs(PgConnection& connection, Findings& findings) {
    const PgRows rows = connection.run(ALL_LOGS);
    for (int row = 0; row < rows.count(); ++row) {
        const std::string fault = faultOfLog(rows, row);
        if (!fault.empty()) {
            findings.add("log " + std::to_string(rows.integer(row, 0)) + ": " + fault);
        }
    }
}

void findLooseRows(PgConnection& connection, Findings& findings) {
    const PgRows rows = connection.run(LOOSE_ROWS);
    for (int row = 0; row < rows.count(); ++row) {
        const bool hasNoLog = rows.integer(row, 2) != 0;
        const bool hasNoGeneration = rows.integer(row, 3) != 0;
        findings.add(generationText(rows, row) +
                     (hasNoLog          ? ": the log has no row"
                      : hasNoGeneration ? ": the log's newest one, has no row"
                                        : ": newer than what the log says is its newest one"));
    }
}

void findEventsHeldOtherwise(PgConnection& connection, Findings& findings) {
    const PgRows rows = connection.run(HELD_OTHERWISE);
    for (int row = 0; row < rows.count(); ++row) {
        const std::string name = generationText(rows, row);
        const std::string events = std::to_string(rows.integer(row, 2)) + " events";
        if (rows.integer(row, 7) == 0 || rows.integer(row, 8) == 0) {
            findings.add(name + ": " + events + ", but no row of the " +
                         (rows.integer(row, 7) == 0 ? "log" : "generation"));
        }
        if (!rows.isNull(row, 4)) {
            findings.add(name + ": id " + std::to_string(rows.integer(row, 4)) +
                         " is held more than once");
        }
        if (!rows.isNull(row, 3) && rows.integer(row, 3) > 0) {
            findings.add(name + ": " + std::to_string(rows.integer(row, 3)) +
                         " events have an id, source, type, category or number that is none");
        }
        if (!rows.isNull(row, 6)) {
            const S64_t last = rows.integer(row, 5);
            findings.add(name +
                         (last < 0 ? ": holds nothing" : ": holds ids to " + std::to_string(last)) +
                         ", its blade was told that it holds them to " +
                         std::to_string(rows.integer(row, 6)));
        }
    }
}

void findEventsHeldBeyond(PgConnection& connection, Findings& findings) {
    const PgRows rows = connection.run(HELD_BEYOND);
    for (int row = 0; row < rows.count(); ++row) {
        findings.add(generationText(rows, row) + ": holds " + std::to_string(rows.integer(row, 2)) +
                     " events to id " + std::to_string(rows.integer(row, 3)) +
                     " beyond what the log's row says is its highest, " +
                     (rows.isNull(row, 4) ? "none" : std::to_string(rows.integer(row, 4))));
    }
}

U64_t describeTables(const std::string& place, std::ostream& out) {
    struct Look {
        const char* what;
        void (*find)(PgConnection&, Findings&);
    };
    constexpr Look LOOKS[] = {
        {"views", findLooseViews},
        {"the rows of logs", findWrongLogs},
        {"the rows of generations", findLooseRows},
        {"what is held twice, by nobody, or not any more", findEventsHeldOtherwise},
        {"what is held beyond the highest id", findEventsHeldBeyond},
    };
    PgConnection connection(place, {LONGEST_LOOK, std::chrono::seconds(10)});
    U64_t all = 0;
    for (const Look& look : LOOKS) {
        Findings findings(out);
        try {
            look.find(connection, findings);
        } catch (const PgError& error) {
            findings.add(std::string(look.what) + ": not looked at: " + error.what());
        }
        all += findings.end();
    }
    return all;
}

// Others may lie behind a hole: those of a wrong clock.
U64_t describePartitions(FleetOwner& owner, S64_t today, std::ostream& out) {
    const S64_t retention = retentionOf(owner);
    const S64_t width = widthOf(retention);
    if (retention == 0) {
        out << NO_RETENTION << "\n";
    }
    const PgRows rows = owner.connection().run(PARTITIONS);
    bool isForTomorrow = false;
    for (int row = 0; row < rows.count(); ++row) {
        const auto days = daysOf(rows.text(row, 0));
        if (!days) {
            continue;
        }
        isForTomorrow = isForTomorrow || (days->first <= today + 1 && days->end > today + 1);
        if (retention > 0 && days->end > today && days->count() > width) {
            out << nameOf(*days) << " is " << days->count() << " days wide, for a retention "
                << "with " << width << ": its events stay longer\n";
        }
    }
    if (!isForTomorrow) {
        out << "no partition for tomorrow: is \"evarchiver db maintain\" run?\n";
    }
    return (isForTomorrow ? 0 : 1) + (retention > 0 ? 0 : 1);
}

U64_t describeServer(const std::string& place, S64_t now, Clock clock, std::ostream& out) {
    FleetOwner owner(place);
    owner.requireLayout();
    U64_t findings = 0;
    const S64_t stray =
        owner.connection().run({"stray", "SELECT count(*) FROM events_default"}).integer(0, 0);
    if (stray > 0) {
        out << stray << " events of times that no partition is for\n";
    }
    findings += describePartitions(owner, now / DAY_SECONDS, out);
    findings += describeTables(place, out);
    if (const S64_t error = clock == Clock::AS_TOLD ? 0 : clockError(owner, now); error != 0) {
        out << clockText(error) << "\n";
        ++findings;
    }
    const std::string standbys =
        owner.connection().run({"standbys", "SHOW synchronous_standby_names"}).text(0, 0);
    out << (standbys.empty() ? "commits wait for no standby: a server that is lost takes its last "
                               "events with it\n"
                             : "commits wait for standby " + standbys + "\n");
    return findings;
}

} // namespace

U64_t describeFleet(const std::string& place, S64_t now, std::ostream& out, Clock clock) {
    const std::vector<std::string> nodes = nodesOf(place);
    if (nodes.empty()) {
        return describeServer(place, now, clock, out);
    }
    U64_t findings = 0;
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        out << "server " << node + 1 << " of " << nodes.size() << ":\n";
        findings += describeServer(nodes[node], now, clock, out);
    }
    return findings;
}

} // namespace evarchive
