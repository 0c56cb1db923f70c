#include "fleet_database.h"

#include "fleet_hub.h"
#include "fleet_names.h"
#include "fleet_owner.h"
#include "fleet_sql.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <thread>

namespace evarchive {
namespace {

constexpr S64_t DAY = 86'400;

// Partitions that are live at a time, about; each one costs every look-up a little.
constexpr U32_t LIVE_PARTITIONS = 12;

constexpr S64_t REMOVED_AT_A_TIME = 10'000;

/** Days, from 1970-01-01 on: the first, and the one behind the last. */
struct Days {
    S64_t first = 0;
    S64_t end = 0;

    bool operator==(const Days&) const = default;
};

std::string dateOf(S64_t day) {
    const time_t time = static_cast<time_t>(day * DAY);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[16];
    return {text, strftime(text, sizeof(text), "%Y%m%d", &parts)};
}

// "events_20261122_3": from that day on, three days.
std::string nameOf(const Days& days) {
    return "events_" + dateOf(days.first) + "_" + std::to_string(days.end - days.first);
}

std::optional<Days> daysOf(const std::string& name) {
    tm parts{};
    unsigned count = 0;
    char rest = 0;
    if (sscanf(name.c_str(), "events_%4d%2d%2d_%u%c", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
               &count, &rest) != 4) {
        return std::nullopt;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    const S64_t first = S64_t{timegm(&parts)} / DAY;
    return Days{first, first + count};
}

// As the server reads it, to the second.
std::string boundOf(S64_t day) {
    const std::string date = dateOf(day);
    return "'" + date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6) +
           " 00:00:00+00'";
}

std::string text(std::initializer_list<std::string_view> parts) {
    std::string all;
    for (const std::string_view part : parts) {
        all += part;
    }
    return all;
}

constexpr PgStatement PARTITIONS{
    "partitions", "SELECT c.relname::text, coalesce(obj_description(c.oid, 'pg_class') = 'frozen', "
                  "false) FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
                  "WHERE i.inhparent = 'events'::regclass ORDER BY 1"};
constexpr PgStatement RETENTION{"retention",
                                "SELECT value::bigint FROM meta WHERE name = 'retention_days'"};
// Archivers and readers are in the way for a moment each. While this waits, they do.
constexpr char SHORT_WAIT[] = "SET LOCAL lock_timeout = 1000; ";
constexpr char LOCK_TIMEOUT[] = "55P03";
constexpr int MOST_TRIES = 20;
constexpr std::chrono::milliseconds BETWEEN_TRIES{100};

constexpr PgStatement REMOVE_OLD_ASIDE{
    "remove_old_aside", "DELETE FROM set_aside WHERE ctid = ANY(ARRAY(SELECT ctid FROM set_aside "
                        "WHERE received < $1 LIMIT $2))"};
constexpr PgStatement REMOVE_DEFAULT{
    "remove_default", "DELETE FROM events_default WHERE ctid = ANY(ARRAY(SELECT ctid FROM "
                      "events_default WHERE received < $1 LIMIT $2))"};

/** One round. */
class Maintenance {
  public:
    Maintenance(const std::string& place, S64_t now) : lock_(place), owner_(place), now_(now) {
        owner_.requireLayout();
        // Held to the end of the round, by a connection of its own.
        lock_.connection().execute("BEGIN; SET LOCAL lock_timeout = 1; "
                                   "SELECT 1 FROM meta WHERE name = 'maintenance' FOR UPDATE");
    }

    FleetUpkeep run(U32_t retentionDays) {
        if (retentionDays > 0) {
            owner_.connection().execute("UPDATE meta SET value = '" +
                                        std::to_string(retentionDays) +
                                        "' WHERE name = 'retention_days'");
        }
        retention_ = owner_.connection().run(RETENTION).integer(0, 0);
        look();
        // A step that fails keeps no other one from what it is for: a full disk, above all.
        std::optional<PgError> failed;
        for (const auto step : {&Maintenance::makeAhead, &Maintenance::dropPast,
                                &Maintenance::freezeClosed, &Maintenance::removeRest}) {
            try {
                (this->*step)();
            } catch (const PgError& error) {
                failed = error;
            }
        }
        if (failed) {
            throw *failed;
        }
        return upkeep_;
    }

  private:
    struct Partition {
        Days days;
        bool isFrozen = false;
    };

    S64_t today() const { return now_ / DAY; }
    S64_t width() const { return (retention_ + LIVE_PARTITIONS - 1) / LIVE_PARTITIONS; }

    void look() {
        const PgRows rows = owner_.connection().run(PARTITIONS);
        for (int row = 0; row < rows.count(); ++row) {
            if (const auto days = daysOf(rows.text(row, 0))) {
                partitions_.push_back({*days, rows.integer(row, 1) != 0});
            }
        }
        sort();
    }

    void sort() {
        std::ranges::sort(partitions_, {}, [](const Partition& it) { return it.days.first; });
    }

    // From what is still kept to two widths ahead, without a gap.
    void makeAhead() {
        S64_t day = (today() - retention_) / width() * width();
        const S64_t end = today() + 1 + 2 * width();
        std::vector<Partition> made;
        for (const Partition& there : partitions_) {
            make(day, std::min(end, there.days.first), made);
            day = std::max(day, there.days.end);
        }
        make(day, end, made);
        partitions_.insert(partitions_.end(), made.begin(), made.end());
        sort();
    }

    void make(S64_t day, S64_t end, std::vector<Partition>& made);

    void dropPast() {
        const S64_t oldest = today() - retention_;
        const auto isPast = [oldest](const Partition& it) { return it.days.end <= oldest; };
        for (const Partition& it : partitions_) {
            if (isPast(it)) {
                drop(it.days);
            }
        }
        std::erase_if(partitions_, isPast);
    }

    // A transaction, again when others were in its way.
    void again(const std::function<void(PgConnection&)>& work) {
        for (int left = MOST_TRIES;; --left) {
            PgConnection& connection = owner_.connection();
            try {
                connection.execute(std::string("BEGIN; ") + SHORT_WAIT);
                work(connection);
                connection.execute("COMMIT");
                return;
            } catch (const PgError& error) {
                if (connection.isOpen()) {
                    connection.execute("ROLLBACK");
                }
                if (left == 0 || !(error.isConflict() || error.state() == LOCK_TIMEOUT)) {
                    throw;
                }
            }
            std::this_thread::sleep_for(BETWEEN_TRIES);
        }
    }

    void drop(const Days& days);

    // Nothing comes any more into one that has been over for a day, but for late events.
    void freezeClosed() {
        for (const Partition& it : partitions_) {
            if (!it.isFrozen && it.days.end < today()) {
                const std::string name = nameOf(it.days);
                owner_.connection().execute("VACUUM (FREEZE) " + name);
                owner_.connection().execute("COMMENT ON TABLE " + name + " IS 'frozen'");
                ++upkeep_.frozen;
            }
        }
    }

    void removeRest() {
        upkeep_.removed += removeAll(REMOVE_DEFAULT);
        upkeep_.removedAside += removeAll(REMOVE_OLD_ASIDE);
    }

    // In parts, so that nobody waits for long.
    U64_t removeAll(const PgStatement& statement) {
        const S64_t before = (today() - retention_) * DAY;
        U64_t removed = 0;
        for (U64_t part = 1; part > 0; removed += part) {
            part = owner_.connection()
                       .run(statement, PgParameters().time(before).integer(REMOVED_AT_A_TIME))
                       .affected();
        }
        return removed;
    }

    FleetOwner lock_;
    FleetOwner owner_;
    S64_t now_;
    S64_t retention_ = 0;
    std::vector<Partition> partitions_;
    FleetUpkeep upkeep_;
};

// Rows of the default partition that belong to the new one are moved: it could not be attached
// otherwise. Nothing may come to it meanwhile, nor may somebody read there who then wants to file.
void Maintenance::make(S64_t day, S64_t end, std::vector<Partition>& made) {
    for (; day < end; day += width()) {
        const Days days{day, std::min(end, day + width())};
        const std::string name = nameOf(days);
        const std::string from = boundOf(days.first);
        const std::string to = boundOf(days.end);
        U64_t moved = 0;
        again([&](PgConnection& connection) {
            connection.execute(text({"LOCK TABLE events_default; CREATE TABLE ", name,
                                     " (LIKE events INCLUDING DEFAULTS INCLUDING STORAGE INCLUDING "
                                     "INDEXES) WITH (toast_tuple_target = 8160)"}));
            const std::string statement = "move_" + name;
            const std::string move = text(
                {"WITH moved AS (DELETE FROM events_default WHERE time >= ", from, " AND time < ",
                 to, " RETURNING *) INSERT INTO ", name, " SELECT * FROM moved"});
            moved = connection.run({statement.c_str(), move.c_str()}).affected();
            connection.execute(text({"ALTER TABLE events ATTACH PARTITION ", name,
                                     " FOR VALUES FROM (", from, ") TO (", to, ")"}));
        });
        upkeep_.moved += moved;
        made.push_back({days, false});
        upkeep_.made.push_back(name);
    }
}

// What goes is remembered as a run, so that nobody asks a blade for it again: first, since it is as
// true while the events are there, and an archiver that has such a row waits for nothing then.
void Maintenance::drop(const Days& days) {
    const std::string name = nameOf(days);
    PgConnection& connection = owner_.connection();
    connection.execute(
        "DROP TABLE IF EXISTS pg_temp.gone; CREATE TEMPORARY TABLE gone AS "
        "SELECT DISTINCT ON (log, generation) log, generation, min(id) AS first, max(id) AS last "
        "FROM (SELECT log, generation, id, id - dense_rank() OVER "
        "(PARTITION BY log, generation ORDER BY id) AS hole FROM " +
        name +
        " WHERE NOT doubtful) h GROUP BY log, generation, hole "
        "ORDER BY log, generation, max(id) DESC");
    again([](PgConnection& it) {
        it.execute(
            "UPDATE generations g SET run_first = least(g.run_first, r.first), "
            "run_last = greatest(g.run_last, r.last) FROM gone r "
            "WHERE g.log = r.log AND g.generation = r.generation AND (g.run_first IS NULL OR "
            "(r.first <= g.run_last + 1 AND r.last >= g.run_first - 1))");
    });
    again([&](PgConnection& it) {
        it.execute(
            text({"ALTER TABLE events DETACH PARTITION ", name, "; DROP TABLE ", name,
                  "; INSERT INTO meta VALUES ('dropped_before', '", std::to_string(days.end * DAY),
                  "') ON CONFLICT (name) DO UPDATE SET value = "
                  "greatest(meta.value::bigint, EXCLUDED.value::bigint)::text"}));
    });
    connection.execute("DROP TABLE gone");
    upkeep_.dropped.push_back(name);
}

} // namespace

void createFleet(const std::string& place, U32_t retentionDays, S64_t now) {
    {
        FleetOwner owner(place);
        if (owner.has("meta")) {
            throw StoreError(owner.connection().placeShown() + ": there is an archive already");
        }
        owner.inTransaction(std::string(pg::SQL_001_SCHEMA) + pg::SQL_002_HANDSHAKE + sqlOfNames() +
                            pg::SQL_VIEWS + pg::SQL_ROLES);
    }
    maintainFleet(place, retentionDays, now);
}

S64_t upgradeFleet(const std::string& place) {
    for (const std::string& node : nodesOf(place)) {
        upgradeFleet(node);
    }
    FleetOwner owner(place);
    const S64_t layout = owner.layout();
    if (layout < 1 || layout > PG_LAYOUT) {
        throw StoreError(owner.connection().placeShown() + ": layout " + std::to_string(layout) +
                         " of the archive is not known");
    }
    owner.inTransaction(std::string(layout < 2 ? pg::SQL_002_HANDSHAKE : "") + sqlOfNames() +
                        pg::SQL_VIEWS + pg::SQL_ROLES);
    return layout;
}

FleetUpkeep& FleetUpkeep::operator+=(const FleetUpkeep& other) {
    made.insert(made.end(), other.made.begin(), other.made.end());
    dropped.insert(dropped.end(), other.dropped.begin(), other.dropped.end());
    moved += other.moved;
    frozen += other.frozen;
    removed += other.removed;
    removedAside += other.removedAside;
    return *this;
}

FleetUpkeep maintainFleet(const std::string& place, U32_t retentionDays, S64_t now) {
    const std::vector<std::string> nodes = nodesOf(place);
    if (nodes.empty()) {
        return Maintenance(place, now).run(retentionDays);
    }
    FleetUpkeep all;
    for (const std::string& node : nodes) {
        all += Maintenance(node, now).run(retentionDays);
    }
    return all;
}

namespace {

U64_t describeServer(const std::string& place, S64_t now, std::ostream& out) {
    FleetOwner owner(place);
    owner.requireLayout();
    U64_t findings = 0;
    const S64_t stray =
        owner.connection().run({"stray", "SELECT count(*) FROM events_default"}).integer(0, 0);
    if (stray > 0) {
        out << stray << " events of times that no partition is for\n";
    }
    const PgRows rows = owner.connection().run(PARTITIONS);
    S64_t end = 0;
    for (int row = 0; row < rows.count(); ++row) {
        const auto days = daysOf(rows.text(row, 0));
        end = days ? std::max(end, days->end) : end;
    }
    if (end <= now / DAY + 1) {
        out << "no partition for tomorrow: is \"evarchiver db maintain\" run?\n";
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

U64_t describeFleet(const std::string& place, S64_t now, std::ostream& out) {
    const std::vector<std::string> nodes = nodesOf(place);
    if (nodes.empty()) {
        return describeServer(place, now, out);
    }
    U64_t findings = 0;
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        out << "server " << node + 1 << " of " << nodes.size() << ":\n";
        findings += describeServer(nodes[node], now, out);
    }
    return findings;
}

} // namespace evarchive
