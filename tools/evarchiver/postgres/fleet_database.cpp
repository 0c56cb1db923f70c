#include "fleet_database.h"

#include "fleet_hub.h"
#include "fleet_owner.h"
#include "fleet_sql.h"

#include <algorithm>
#include <ctime>

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
        makeAhead();
        dropPast();
        freezeClosed();
        removeRest();
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
        std::erase_if(partitions_, [&](const Partition& it) {
            const bool isPast = it.days.end <= oldest;
            if (isPast) {
                drop(nameOf(it.days));
            }
            return isPast;
        });
    }

    void drop(const std::string& name);

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
        const S64_t before = (today() - retention_) * DAY;
        U64_t removed = 0;
        do {
            removed =
                owner_.connection()
                    .run(REMOVE_DEFAULT, PgParameters().time(before).integer(REMOVED_AT_A_TIME))
                    .affected();
            upkeep_.removed += removed;
        } while (removed > 0);
        upkeep_.removedAside =
            owner_.connection().run(pg::REMOVE_ASIDE, PgParameters().time(before)).affected();
    }

    FleetOwner lock_;
    FleetOwner owner_;
    S64_t now_;
    S64_t retention_ = 0;
    std::vector<Partition> partitions_;
    FleetUpkeep upkeep_;
};

// Rows of the default partition that belong to the new one are moved: it could not be attached
// otherwise.
void Maintenance::make(S64_t day, S64_t end, std::vector<Partition>& made) {
    for (; day < end; day += width()) {
        const Days days{day, std::min(end, day + width())};
        const std::string name = nameOf(days);
        const std::string from = boundOf(days.first);
        const std::string to = boundOf(days.end);
        PgConnection& connection = owner_.connection();
        connection.execute(text({"BEGIN; CREATE TABLE ", name,
                                 " (LIKE events INCLUDING DEFAULTS INCLUDING STORAGE INCLUDING "
                                 "INDEXES) WITH (toast_tuple_target = 8160)"}));
        const std::string statement = "move_" + name;
        const std::string move =
            text({"WITH moved AS (DELETE FROM events_default WHERE time >= ", from, " AND time < ",
                  to, " RETURNING *) INSERT INTO ", name, " SELECT * FROM moved"});
        upkeep_.moved += connection.run({statement.c_str(), move.c_str()}).affected();
        connection.execute(text({"ALTER TABLE events ATTACH PARTITION ", name, " FOR VALUES FROM (",
                                 from, ") TO (", to, "); COMMIT"}));
        made.push_back({days, false});
        upkeep_.made.push_back(name);
    }
}

// What went is remembered as a run, so that nobody asks a blade for it again.
void Maintenance::drop(const std::string& name) {
    owner_.inTransaction(
        "UPDATE generations g SET run_first = least(g.run_first, r.first), "
        "run_last = greatest(g.run_last, r.last) FROM ("
        "SELECT DISTINCT ON (log, generation) log, generation, min(id) AS first, max(id) AS last "
        "FROM (SELECT log, generation, id, id - dense_rank() OVER "
        "(PARTITION BY log, generation ORDER BY id) AS hole FROM " +
        name +
        " WHERE NOT doubtful) h GROUP BY log, generation, hole "
        "ORDER BY log, generation, max(id) DESC) r "
        "WHERE g.log = r.log AND g.generation = r.generation AND (g.run_first IS NULL OR "
        "(r.first <= g.run_last + 1 AND r.last >= g.run_first - 1)); "
        "ALTER TABLE events DETACH PARTITION " +
        name + "; DROP TABLE " + name);
    upkeep_.dropped.push_back(name);
}

} // namespace

void createFleet(const std::string& place, U32_t retentionDays, S64_t now) {
    {
        FleetOwner owner(place);
        if (owner.has("meta")) {
            throw StoreError(owner.connection().placeShown() + ": there is an archive already");
        }
        owner.inTransaction(std::string(pg::SQL_001_SCHEMA) + pg::SQL_VIEWS + pg::SQL_ROLES);
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
    // Layout 1 is the first one: only what hangs on it can be older than the program.
    owner.inTransaction(std::string(pg::SQL_VIEWS) + pg::SQL_ROLES);
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
