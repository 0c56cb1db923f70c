#include "fleet_database.h"

#include "fleet_hub.h"
#include "fleet_names.h"
#include "fleet_owner.h"
#include "fleet_partitions.h"
#include "fleet_sql.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

namespace evarchive {
namespace {

constexpr char LOCKED[] = "55P03"; ///< a lock was not to be had in time

// Since the last round: what a wrong clock can take too early. Of a short retention less.
constexpr S64_t LONGEST_PAUSE_OF_ROUNDS = 3 * DAY_SECONDS;
constexpr S64_t PAUSE_OF_RETENTION = 10;

// Others wait while they are moved.
constexpr S64_t MOST_RECUT = 10'000;

constexpr S64_t REMOVED_AT_A_TIME = 10'000;
constexpr S64_t NOTED_AT_A_TIME = 1'000;

// Who waits for a table keeps all others waiting that come behind, archivers too: so the wait is
// short, and done often. The last ones are long enough for the server to send its own upkeep away.
constexpr int MOST_TRIES = 30;
constexpr int LONG_TRIES = 5;
constexpr std::chrono::milliseconds SHORT_WAIT{300};
constexpr std::chrono::milliseconds LONG_WAIT{1500};
constexpr std::chrono::milliseconds FIRST_PAUSE{20};
constexpr std::chrono::milliseconds LONGEST_PAUSE{1000};

std::string text(std::initializer_list<std::string_view> parts) {
    std::string all;
    for (const std::string_view part : parts) {
        all += part;
    }
    return all;
}

// Those who read events as they come look at the pages that no summary is there of, all of them.
constexpr PgStatement UNSUMMARIZED{
    "unsummarized",
    "SELECT c.oid::regclass::text FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
    "WHERE i.inhparent = 'events_by_arrival'::regclass "
    "AND NOT coalesce('autosummarize=on' = ANY(c.reloptions), false)"};
// Of each partition, where a search for what is rare need not look: by few pages at a time, so that
// one event in some thousand is in few of them. What was filed since the last round is in none of
// its stretches yet, so that filing hardly pays for it.
constexpr char KINDS[] =
    " USING brin (received, time, event int4_bloom_ops (n_distinct_per_range = 200), "
    "source int2_bloom_ops (n_distinct_per_range = 32), "
    "(source::integer * 65536 + event) int4_bloom_ops (n_distinct_per_range = 300)) "
    "WITH (pages_per_range = 8)";
constexpr PgStatement KINDS_OF{"kinds_of",
                               "SELECT c.relname::text, x.indisvalid FROM pg_inherits i "
                               "JOIN pg_class c ON c.oid = i.inhrelid LEFT JOIN (pg_index x "
                               "JOIN pg_class k ON k.oid = x.indexrelid) "
                               "ON x.indrelid = c.oid AND k.relname = c.relname || '_by_kind' "
                               "WHERE i.inhparent = 'events'::regclass ORDER BY 1"};
constexpr PgStatement LAST_ROUND{"last_round", "SELECT nullif(value, '')::bigint FROM meta "
                                               "WHERE name = 'maintenance'"};
constexpr PgStatement REMOVE_DEFAULT{
    "remove_default", "DELETE FROM events_default WHERE ctid = ANY(ARRAY(SELECT ctid FROM "
                      "events_default WHERE received < $1 LIMIT $2))"};
constexpr PgStatement REMOVE_ASIDE{
    "remove_aside_part", "DELETE FROM set_aside WHERE ctid = ANY(ARRAY(SELECT ctid FROM set_aside "
                         "WHERE received < $1 LIMIT $2))"};

/** Runs of what goes, into the generations' rows: those that somebody else has locked wait. */
constexpr PgStatement NOTE_GONE{
    "note_gone",
    "WITH part AS (SELECT r.* FROM gone r JOIN generations g USING (log, generation) "
    "ORDER BY r.log, r.generation LIMIT $1 FOR UPDATE OF g SKIP LOCKED), "
    "noted AS (UPDATE generations g SET run_first = least(g.run_first, r.first), "
    "run_last = greatest(g.run_last, r.last) FROM part r "
    "WHERE g.log = r.log AND g.generation = r.generation AND (g.run_first IS NULL OR "
    "(r.first <= g.run_last + 1 AND r.last >= g.run_first - 1))) "
    "DELETE FROM gone USING part r WHERE gone.log = r.log AND gone.generation = r.generation"};
constexpr PgStatement STILL_GONE{
    "still_gone", "SELECT 1 FROM gone JOIN generations USING (log, generation) LIMIT 1"};

void requireClock(FleetOwner& owner, S64_t now, Clock clock) {
    const S64_t error = clock == Clock::AS_TOLD ? 0 : clockError(owner, now);
    if (error != 0) {
        throw StoreError(owner.connection().placeShown() + ": " + clockText(error) +
                         ": nothing is done before they agree");
    }
}

/** Another process maintains the same archive. */
class AnotherRound : public StoreError {
  public:
    using StoreError::StoreError;
};

/** One round. */
class Maintenance {
  public:
    Maintenance(const std::string& place, S64_t now, Clock clock)
        : lock_(place), owner_(place), now_(now), clock_(clock) {
        owner_.requireLayout();
        requireClock(owner_, now_, clock_);
        lockRound();
    }

    FleetUpkeep run(U32_t retentionDays) {
        if (retentionDays > 0) {
            owner_.connection().execute(
                "INSERT INTO meta VALUES ('retention_days', '" + std::to_string(retentionDays) +
                "') ON CONFLICT (name) DO UPDATE SET value = excluded.value");
        }
        retention_ = retentionOf(owner_);
        if (retention_ == 0) {
            throw StoreError(owner_.connection().placeShown() + ": " + NO_RETENTION);
        }
        look();
        const bool isTimeSure = isTimePlausible();
        if (isTimeSure) {
            recutAhead();
        }
        makeAhead();
        keepSummarized();
        if (isTimeSure) {
            dropPast();
            freezeClosed();
        }
        keepKinds();
        if (isTimeSure) {
            removeRest();
            noteRound(now_);
        }
        lock_.connection().execute("COMMIT");
        return upkeep_;
    }

  private:
    struct Partition {
        Days days;
        bool isFrozen = false;
    };

    // Held to the end of the round, by a connection of its own, which must hold no snapshot:
    // indexes that are made beside those who file wait for these.
    void lockRound() {
        try {
            lock_.connection().execute("BEGIN; SET LOCAL lock_timeout = 1; "
                                       "SELECT 1 FROM meta WHERE name = 'maintenance' FOR UPDATE");
        } catch (const PgError& error) {
            if (error.state() == LOCKED) {
                throw AnotherRound(lock_.connection().placeShown() +
                                   ": another maintenance is at work");
            }
            throw;
        }
    }

    // Host and server may share a wrong clock. Who maintains hourly knows about what time it is.
    bool isTimePlausible() {
        if (clock_ != Clock::COMPARED) {
            return true;
        }
        const PgRows rows = owner_.connection().run(LAST_ROUND);
        if (rows.count() == 0 ||
            rows.isNull(0, 0)) { // of a program of before, that made some ahead
            const bool isKnown = partitions_.empty() || partitions_.back().days.end > today();
            if (!isKnown) {
                upkeep_.failed.push_back("no partition reaches to this day: nothing is dropped");
                noteRound(partitions_.back().days.end *
                          DAY_SECONDS); // for those that are made now do
            }
            return isKnown;
        }
        const S64_t pause = now_ - rows.integer(0, 0);
        const S64_t longest =
            std::min(LONGEST_PAUSE_OF_ROUNDS, retention_ * DAY_SECONDS / PAUSE_OF_RETENTION);
        if (std::abs(pause) <= longest) {
            return true;
        }
        upkeep_.failed.push_back("by the clock, the last round was " + secondsText(pause) +
                                 (pause > 0 ? " ago" : " ahead") + ": nothing is dropped");
        return false;
    }

    // Committed when the round ends.
    void noteRound(S64_t time) {
        lock_.connection().execute("UPDATE meta SET value = '" + std::to_string(time) +
                                   "' WHERE name = 'maintenance'");
    }

    S64_t today() const { return now_ / DAY_SECONDS; }
    S64_t width() const { return widthOf(retention_); }

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

    S64_t endAhead() const { return today() + 1 + 2 * width(); }

    // Those of a retention that is none any more, or of a wrong clock.
    void recutAhead() {
        std::erase_if(partitions_, [&](const Partition& it) {
            const bool isFit = it.days.first <= today() ||
                               (it.days.count() <= width() && it.days.first < endAhead());
            bool isGone = false;
            if (!isFit) {
                attempt(nameOf(it.days) + " could not be cut anew",
                        [&] { again([&] { isGone = recut(nameOf(it.days)); }); });
            }
            return isGone;
        });
    }

    bool recut(const std::string& name);

    // From what is still kept to two widths ahead, without a gap.
    void makeAhead() {
        S64_t day = (today() - retention_) / width() * width();
        const S64_t end = endAhead();
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
    void makeOne(const Days& days);

    void keepSummarized() {
        attempt("indexes could not be set up", [this] {
            const PgRows rows = owner_.connection().run(UNSUMMARIZED);
            for (int row = 0; row < rows.count(); ++row) {
                again([&] {
                    owner_.connection().execute(begin() + "ALTER INDEX " + rows.text(row, 0) +
                                                " SET (autosummarize = on); COMMIT");
                });
            }
        });
    }

    void dropPast() {
        const S64_t oldest = today() - retention_;
        std::erase_if(partitions_, [&](const Partition& it) {
            const bool isPast = it.days.end <= oldest;
            if (isPast) {
                attempt(nameOf(it.days) + " could not be dropped", [&] { drop(it.days); });
            }
            return isPast;
        });
    }

    void drop(const Days& days);
    void noteGone(const std::string& name);

    // Nothing comes any more into one that has been over for a day, but for late events.
    void freezeClosed() {
        for (const Partition& it : partitions_) {
            if (!it.isFrozen && it.days.end < today()) {
                const std::string name = nameOf(it.days);
                attempt(name + " could not be frozen", [&] { freeze(name); });
            }
        }
    }

    void freeze(const std::string& name) {
        again([&] {
            owner_.connection().execute("VACUUM (FREEZE) " + name);
            owner_.connection().execute("COMMENT ON TABLE " + name + " IS 'frozen'");
        });
        ++upkeep_.frozen;
    }

    // Of partitions that came without one, or whose making was broken off, it is made beside those
    // who file.
    void keepKinds() {
        const PgRows rows = owner_.connection().run(KINDS_OF);
        for (int row = 0; row < rows.count(); ++row) {
            const std::string name = rows.text(row, 0);
            const std::string index = name + "_by_kind";
            attempt(index + " could not be kept", [&] {
                PgConnection& connection = owner_.connection();
                if (!rows.isNull(row, 1) && rows.integer(row, 1) != 0) {
                    again([&] {
                        connection.execute("SELECT brin_summarize_new_values('" + index + "')");
                    });
                    return;
                }
                connection.execute("DROP INDEX CONCURRENTLY IF EXISTS " + index);
                connection.execute("CREATE INDEX CONCURRENTLY " + index + " ON " + name + KINDS);
            });
        }
    }

    void removeRest() {
        attempt("stray events could not be removed",
                [this] { again([this] { removeAll(REMOVE_DEFAULT, upkeep_.removed); }); });
        attempt("what was set aside could not be removed",
                [this] { again([this] { removeAll(REMOVE_ASIDE, upkeep_.removedAside); }); });
    }

    void removeAll(const PgStatement& statement, U64_t& count) {
        const S64_t before = (today() - retention_) * DAY_SECONDS;
        U64_t removed = 0;
        do {
            removed = owner_.connection()
                          .run(statement, PgParameters().time(before).integer(REMOVED_AT_A_TIME))
                          .affected();
            count += removed;
        } while (removed > 0);
    }

    // Begins a transaction that takes locks.
    std::string begin() const {
        const auto wait = triesLeft_ > LONG_TRIES ? SHORT_WAIT : LONG_WAIT;
        return "BEGIN; SET LOCAL lock_timeout = " + std::to_string(wait.count()) + "; ";
    }

    // Archivers at work, their users and the server's own upkeep are in the way for a moment.
    template <typename Work>
    void again(Work work) {
        auto pause = FIRST_PAUSE;
        for (triesLeft_ = MOST_TRIES;; --triesLeft_) {
            try {
                work();
                return;
            } catch (const PgError& error) {
                const bool isOpen = owner_.connection().isOpen();
                if (isOpen) {
                    owner_.connection().execute("ROLLBACK");
                }
                const bool isBusy = error.isConflict() || error.state() == LOCKED;
                if (!isOpen || !isBusy || triesLeft_ == 0) {
                    throw;
                }
            }
            std::this_thread::sleep_for(pause);
            pause = std::min(2 * pause, LONGEST_PAUSE);
        }
    }

    // What cannot be done leaves the rest to be done.
    template <typename Work>
    void attempt(const std::string& what, Work work) {
        try {
            work();
        } catch (const PgError& error) {
            if (!owner_.connection().isOpen()) {
                throw;
            }
            upkeep_.failed.push_back(what + ": " + error.what());
        }
    }

    FleetOwner lock_;
    FleetOwner owner_;
    S64_t now_;
    Clock clock_;
    S64_t retention_ = 0;
    int triesLeft_ = 0;
    std::vector<Partition> partitions_;
    FleetUpkeep upkeep_;
};

void Maintenance::make(S64_t day, S64_t end, std::vector<Partition>& made) {
    for (; day < end; day += width()) {
        const Days days{day, std::min(end, day + width())};
        attempt(nameOf(days) + " could not be made", [&] {
            again([&] { makeOne(days); });
            made.push_back({days, false});
        });
    }
}

// Rows of the default partition that belong to the new one are moved: it could not be attached
// otherwise. None may come meanwhile.
void Maintenance::makeOne(const Days& days) {
    const std::string name = nameOf(days);
    const std::string from = boundOf(days.first);
    const std::string to = boundOf(days.end);
    PgConnection& connection = owner_.connection();
    connection.execute(begin() + text({"LOCK TABLE ONLY events IN SHARE UPDATE EXCLUSIVE MODE; "
                                       "LOCK TABLE events_default IN ACCESS EXCLUSIVE MODE; "
                                       "CREATE TABLE ",
                                       name,
                                       " (LIKE events INCLUDING DEFAULTS INCLUDING STORAGE "
                                       "INCLUDING INDEXES) WITH (toast_tuple_target = 8160); "
                                       "CREATE INDEX ",
                                       name, "_by_kind ON ", name, KINDS}));
    const std::string statement = "move_" + name;
    const std::string move =
        text({"WITH moved AS (DELETE FROM events_default WHERE time >= ", from, " AND time < ", to,
              " RETURNING *) INSERT INTO ", name, " SELECT * FROM moved"});
    const U64_t moved = connection.run({statement.c_str(), move.c_str()}).affected();
    connection.execute(text({"ALTER TABLE events ATTACH PARTITION ", name, " FOR VALUES FROM (",
                             from, ") TO (", to, "); COMMIT"}));
    upkeep_.moved += moved;
    upkeep_.made.push_back(name);
}

// What it holds, for clocks are wrong or the day is near, goes to the default partition, and from
// there into those that are made next. @return false: it holds too much
bool Maintenance::recut(const std::string& name) {
    PgConnection& connection = owner_.connection();
    connection.execute(begin() + text({"LOCK TABLE ONLY events IN ACCESS EXCLUSIVE MODE; "
                                       "LOCK TABLE ",
                                       name, " IN ACCESS EXCLUSIVE MODE"}));
    const std::string statement = "held_" + name;
    const std::string ask = text({"SELECT count(*) FROM (SELECT FROM ", name, " LIMIT ",
                                  std::to_string(MOST_RECUT + 1), ") held"});
    if (connection.run({statement.c_str(), ask.c_str()}).integer(0, 0) > MOST_RECUT) {
        connection.execute("ROLLBACK");
        return false;
    }
    connection.execute(text({"ALTER TABLE events DETACH PARTITION ", name,
                             "; INSERT INTO events_default SELECT * FROM ", name, "; DROP TABLE ",
                             name, "; COMMIT"}));
    upkeep_.recut.push_back(name);
    return true;
}

// Nearly nothing comes any more into what is past, so that its runs are found without a lock.
void Maintenance::drop(const Days& days) {
    const std::string name = nameOf(days);
    noteGone(name);
    again([&] {
        owner_.connection().execute(
            begin() + text({"ALTER TABLE events DETACH PARTITION ", name, "; DROP TABLE ", name,
                            "; INSERT INTO meta VALUES ('dropped_before', '",
                            std::to_string(days.end * DAY_SECONDS),
                            "') ON CONFLICT (name) DO UPDATE SET value = "
                            "greatest(meta.value::bigint, excluded.value::bigint)::text; COMMIT"}));
    });
    upkeep_.dropped.push_back(name);
}

// What goes is remembered as a run, so that nobody asks a blade for it again: of each generation
// the last one, if it goes on from what is known. It waits for nobody while it has rows locked.
void Maintenance::noteGone(const std::string& name) {
    PgConnection& connection = owner_.connection();
    connection.execute(
        "CREATE TEMP TABLE IF NOT EXISTS gone (log bigint, generation bigint, first bigint, "
        "last bigint, PRIMARY KEY (log, generation)); TRUNCATE gone; INSERT INTO gone "
        "SELECT DISTINCT ON (log, generation) log, generation, min(id), max(id) "
        "FROM (SELECT log, generation, id, id - dense_rank() OVER "
        "(PARTITION BY log, generation ORDER BY id) AS hole FROM " +
        name +
        " WHERE NOT doubtful) h GROUP BY log, generation, hole "
        "ORDER BY log, generation, max(id) DESC; ANALYZE gone");
    again([&] {
        while (connection.run(NOTE_GONE, PgParameters().integer(NOTED_AT_A_TIME)).affected() > 0) {
        }
        if (connection.run(STILL_GONE).count() > 0) {
            throw PgError("its logs are locked", LOCKED, StoreError::Kind::PASSING);
        }
    });
}

} // namespace

FleetUpkeep createFleet(const std::string& place, U32_t retentionDays, S64_t now, Clock clock) {
    {
        FleetOwner owner(place);
        requireClock(owner, now, clock);
        if (owner.has("meta")) {
            throw StoreError(owner.connection().placeShown() + ": there is an archive already");
        }
        owner.inTransaction(std::string(pg::SQL_001_SCHEMA) + pg::SQL_002_HANDSHAKE +
                            pg::SQL_003_OLDEST + sqlOfNames() + pg::SQL_VIEWS + pg::SQL_ROLES);
    }
    return maintainFleet(place, retentionDays, now, clock);
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
    owner.inTransaction(std::string(layout < 2 ? pg::SQL_002_HANDSHAKE : "") +
                        (layout < 3 ? pg::SQL_003_OLDEST : "") + sqlOfNames() + pg::SQL_VIEWS +
                        pg::SQL_ROLES);
    return layout;
}

FleetUpkeep& FleetUpkeep::operator+=(const FleetUpkeep& other) {
    made.insert(made.end(), other.made.begin(), other.made.end());
    dropped.insert(dropped.end(), other.dropped.begin(), other.dropped.end());
    recut.insert(recut.end(), other.recut.begin(), other.recut.end());
    moved += other.moved;
    frozen += other.frozen;
    removed += other.removed;
    removedAside += other.removedAside;
    failed.insert(failed.end(), other.failed.begin(), other.failed.end());
    return *this;
}

// One round at a time, also of a spread archive: its servers' rounds begin together or not at all.
FleetUpkeep maintainFleet(const std::string& place, U32_t retentionDays, S64_t now, Clock clock) {
    const std::vector<std::string> nodes = nodesOf(place);
    if (nodes.empty()) {
        return Maintenance(place, now, clock).run(retentionDays);
    }
    FleetUpkeep all;
    std::vector<std::unique_ptr<Maintenance>> rounds(nodes.size());
    const auto attempt = [&](std::size_t node, const std::function<void()>& work) {
        try {
            work();
        } catch (const AnotherRound&) {
            throw;
        } catch (const StoreError& error) {
            all.failed.push_back("server " + std::to_string(node + 1) + " of " +
                                 std::to_string(nodes.size()) + ": " + error.what());
        }
    };
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        attempt(node,
                [&] { rounds[node] = std::make_unique<Maintenance>(nodes[node], now, clock); });
    }
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        if (rounds[node]) {
            attempt(node, [&] { all += rounds[node]->run(retentionDays); });
            rounds[node].reset();
        }
    }
    return all;
}

} // namespace evarchive
