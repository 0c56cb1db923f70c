/**
 * @file
 * Every statement that an archiver sends. Each asks about one log, or, where it names many, about
 * logs by their key alone: an engine that spreads tables by the log answers it in one place.
 */
#ifndef EVARCHIVER_PG_STATEMENTS_H
#define EVARCHIVER_PG_STATEMENTS_H

#include "pg_connection.h"

#include <array>

namespace evarchive::pg {

/** The columns of an event, in the order in which rows are read. */
#define PG_EVENT_COLUMNS                                                                           \
    "id, time, received, event, source, type, category, idversion, own, doubtful, head, data"

constexpr PgStatement BEGIN{"begin", "BEGIN"};
constexpr PgStatement COMMIT{"commit", "COMMIT"};

/** A log's row, if it has none: log, identity, enclosure, blade, slot, instance. */
constexpr PgStatement NAME{"name",
                           "INSERT INTO logs (log, identity, enclosure, blade, slot, instance) "
                           "VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT DO NOTHING"};

constexpr PgStatement IDENTITY{"identity", "SELECT identity FROM logs WHERE log = $1"};

/** A handshake: log, the owner's number, identity, the blade's oldest id. It waits for no disk: a
 * server that forgets it has committed nothing since, and everybody who relied on it finds it lost.
 */
constexpr PgStatement CLAIM{"claim",
                            "UPDATE logs SET epoch = epoch + 1, owner = $2, ring_first = $4, "
                            "seen = now() WHERE log = $1 AND identity = $3 "
                            "RETURNING epoch, owner, generation, unclaimed, highest, run_first, "
                            "run_last, set_config('synchronous_commit', 'off', true)"};

/** The event of an id, in the newest generation: what a handshake asks next, with its claim. */
constexpr PgStatement FIRST{"first", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND "
                                     "generation = (SELECT generation FROM logs WHERE log = $1) "
                                     "AND id = $2"};

/** Logs, and the same columns of each, before something is filed. */
constexpr PgStatement LOOK{"look", "SELECT log, epoch, owner, generation, unclaimed, highest, "
                                   "run_first, run_last FROM logs WHERE log = ANY($1::bigint[])"};

/** The same, with the identity of each and the columns of NEWEST, as if nothing were known. */
constexpr PgStatement FIND_LOGS{
    "find_logs", "SELECT l.log, epoch, owner, l.generation, unclaimed, highest, l.run_first, "
                 "l.run_last, identity, g.generation, opened, duplicates, g.run_first, g.run_last, "
                 "oldest FROM logs l LEFT JOIN generations g ON g.log = l.log "
                 "AND g.generation = l.generation WHERE l.log = ANY($1::bigint[])"};

/** Those of these logs that somebody keeps locked against a fence. Waits for none of them, and,
 * though it locks the others, for no standby. */
constexpr PgStatement LOCKED{
    "locked", "SELECT l.log FROM logs l LEFT JOIN (SELECT log, set_config('synchronous_commit', "
              "'off', true) FROM logs WHERE log = ANY($1::bigint[]) FOR NO KEY UPDATE SKIP LOCKED) "
              "u ON u.log = l.log WHERE l.log = ANY($1::bigint[]) AND u.log IS NULL"};

/** How many of these sessions, their numbers and when they began, the server still has; this one
 * does not count. A number is given again, by a server that has started anew soon. (When a session
 * began is not shown to who acts under another role.) */
constexpr PgStatement SESSIONS{
    "sessions", "SELECT count(*) FROM pg_stat_activity a "
                "JOIN unnest($1::bigint[], $2::timestamptz[]) AS s(pid, began) ON a.pid = s.pid "
                "AND (a.backend_start IS NULL OR a.backend_start = s.began) "
                "WHERE a.pid <> pg_backend_pid()"};

/** The newest generation. Its row and the log's are written together. */
constexpr PgStatement NEWEST{"newest",
                             "SELECT generation, opened, duplicates, run_first, run_last, oldest "
                             "FROM generations WHERE log = $1 ORDER BY generation DESC LIMIT 1"};

/** Locks logs, writes down how far they go with what is filed behind it, and tells who owns them:
 * logs, highest ids, runs. Of a claim, and of one who files without. */
constexpr PgStatement FENCE{
    "fence", "UPDATE logs l SET seen = now(), highest = greatest(l.highest, n.highest), "
             "run_first = n.first, run_last = n.last FROM unnest($1::bigint[], $2::bigint[], "
             "$3::bigint[], $4::bigint[]) AS n(log, highest, first, last) WHERE l.log = n.log "
             "RETURNING l.log, epoch, owner, generation, unclaimed"};
constexpr PgStatement VISIT{
    "visit", "UPDATE logs l SET seen = now(), highest = greatest(l.highest, n.highest), "
             "unclaimed = unclaimed + 1 FROM unnest($1::bigint[], $2::bigint[]) "
             "AS n(log, highest) WHERE l.log = n.log "
             "RETURNING l.log, epoch, owner, generation, unclaimed"};

/** Logs of which an id that was free is so no more: logs, generations, ids. */
constexpr PgStatement TAKEN{
    "taken",
    "SELECT DISTINCT n.log FROM unnest($1::bigint[], $2::bigint[], $3::bigint[]) AS n(log, g, id) "
    "JOIN events e ON e.log = n.log AND e.generation = n.g AND e.id = n.id"};

/** Events, an array for each column. The server says when they came unless the archiver does: one
 * clock for all archivers, read when the transaction already has its number. An id that is taken
 * ends the transaction: that is dearer than to pass over it, but rare, and what is dear with every
 * event is to be ready for it. */
constexpr PgStatement FILE{
    "file",
    "INSERT INTO events (log, generation, " PG_EVENT_COLUMNS ") "
    "SELECT log, generation, id, time, coalesce(received, clock_timestamp()), event, source, "
    "type, category, idversion, own, doubtful, head, data FROM unnest($1::bigint[], "
    "$2::bigint[], $3::bigint[], $4::timestamptz[], $5::timestamptz[], $6::integer[], "
    "$7::smallint[], $8::smallint[], $9::smallint[], $10::smallint[], $11::boolean[], "
    "$12::boolean[], $13::bytea[], $14::bytea[]) AS n(log, generation, " PG_EVENT_COLUMNS ")"};

/** A generation is opened behind the one that is known: log, generation, time; epoch and owner. */
constexpr PgStatement OPEN_OWNED{
    "open_owned", "WITH opened AS (UPDATE logs SET generation = $2, highest = NULL, "
                  "run_first = NULL, run_last = NULL WHERE log = $1 "
                  "AND generation = $2 - 1 AND epoch = $4 AND owner = $5 RETURNING log) "
                  "INSERT INTO generations (log, generation, opened) "
                  "SELECT log, $2, $3 FROM opened"};
constexpr PgStatement OPEN_FREE{
    "open_free",
    "WITH opened AS (UPDATE logs SET generation = $2, highest = NULL, "
    "run_first = NULL, run_last = NULL, unclaimed = unclaimed + 1 WHERE log = $1 AND generation = $2 - 1 RETURNING log) "
    "INSERT INTO generations (log, generation, opened) "
    "SELECT log, $2, $3 FROM opened"};

/** Doubtful events that are so no more: logs, generations, ids, times. Who reads events as they
 * come meets them again. */
constexpr PgStatement CONFIRM{
    "confirm", "UPDATE events e SET doubtful = false, received = clock_timestamp() "
               "FROM unnest($1::bigint[], $2::bigint[], $3::bigint[], $4::timestamptz[]) "
               "AS n(log, g, id, time) "
               "WHERE e.log = n.log AND e.generation = n.g AND e.id = n.id AND e.time = n.time"};
constexpr PgStatement REMOVE{"remove", "DELETE FROM events "
                                       "WHERE log = $1 AND generation = $2 AND id = $3"};

constexpr PgStatement REMOVE_OLDEST{
    "remove_oldest",
    "DELETE FROM events WHERE log = $1 AND generation = $2 AND id IN (SELECT id FROM "
    "(SELECT id, bool_and(received < $3) OVER (ORDER BY id) AS old FROM events "
    "WHERE log = $1 AND generation = $2 ORDER BY id LIMIT $4) o WHERE old AND id < "
    "(SELECT max(id) FROM events WHERE log = $1 AND generation = $2))"};

/** Logs, generations, how many more. */
constexpr PgStatement DUPLICATES{
    "duplicates", "UPDATE generations g SET duplicates = g.duplicates + n.more "
                  "FROM unnest($1::bigint[], $2::bigint[], $3::bigint[]) AS n(log, g, more) "
                  "WHERE g.log = n.log AND g.generation = n.g"};
/** Logs, generations, ids. */
constexpr PgStatement NOTE_OLDEST{
    "note_oldest", "UPDATE generations g SET oldest = n.oldest "
                   "FROM unnest($1::bigint[], $2::bigint[], $3::bigint[]) AS n(log, g, oldest) "
                   "WHERE g.log = n.log AND g.generation = n.g"};
constexpr PgStatement NOTE_RUN{"note_run", "UPDATE generations SET run_first = $3, run_last = $4 "
                                           "WHERE log = $1 AND generation = $2"};
constexpr PgStatement FORGET_RUN{"forget_run",
                                 "UPDATE generations SET run_first = NULL, run_last = NULL "
                                 "WHERE log = $1 AND generation = $2"};

/** log, id, digest, reason, received, image */
constexpr PgStatement ASIDE{
    "aside", "INSERT INTO set_aside (log, id, digest, reason, received, image, generation) "
             "VALUES ($1, $2, $3, $4::bigint::smallint, $5, $6, "
             "(SELECT generation FROM logs WHERE log = $1)) ON CONFLICT DO NOTHING"};
constexpr PgStatement REMOVE_ASIDE{"remove_aside", "DELETE FROM set_aside WHERE received < $1"};

constexpr PgStatement HELD{"held", "SELECT " PG_EVENT_COLUMNS " FROM events "
                                   "WHERE log = $1 AND generation = $2 AND id = $3"};
/** The same for ids one behind the other: log, generation, first id, the one behind the last. */
constexpr PgStatement HELD_RANGE{"held_range",
                                 "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 "
                                 "AND generation = $2 AND id >= $3 AND id < $4"};
/** The same in all generations. */
constexpr PgStatement HELD_ANYWHERE{"held_anywhere",
                                    "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND "
                                    "generation = ANY(SELECT generation FROM generations "
                                    "WHERE log = $1) AND id = $2"};
constexpr PgStatement OLDEST{"oldest", "SELECT " PG_EVENT_COLUMNS " FROM events "
                                       "WHERE log = $1 AND generation = $2 ORDER BY id LIMIT 1"};
constexpr PgStatement HIGHEST{"highest", "SELECT id FROM events WHERE log = $1 AND generation = $2 "
                                         "ORDER BY id DESC LIMIT 1"};

/** How far the ids go on without a hole, within a page: log, generation, first id, page's end. */
constexpr PgStatement RUN_END{
    "run_end",
    "SELECT max(id) FROM (SELECT id, id - dense_rank() OVER (ORDER BY id) AS hole FROM events "
    "WHERE log = $1 AND generation = $2 AND id >= $3 AND id < $4 AND NOT doubtful) r "
    "WHERE hole = $3 - 1"};
constexpr PgStatement RUNS{
    "runs",
    "SELECT min(id), max(id) FROM (SELECT id, id - dense_rank() OVER (ORDER BY id) AS hole "
    "FROM events WHERE log = $1 AND generation = $2 AND id >= $3) r GROUP BY hole ORDER BY 1"};

/** A page of a generation's events: log, generation, the id before it, how many. */
constexpr PgStatement PAGE{"page", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 "
                                   "AND generation = $2 AND id > $3 ORDER BY id LIMIT $4"};

/** The log's own ones of these. */
constexpr PgStatement OWN_PAGE{"own_page",
                               "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND "
                               "generation = $2 AND own AND id > $3 ORDER BY id LIMIT $4"};

/** The events that inquiries mean, by their type: lowest, next above, exact, next below, highest.
 * log, generation, id */
constexpr std::array<PgStatement, EMP_E_INQUIRY_TYPE_LAST> FIND = {{
    {"find_first", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND generation = $2 "
                   "AND own AND $3::bigint IS NOT NULL ORDER BY id LIMIT 1"},
    {"find_next", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND generation = $2 "
                  "AND own AND id > $3 ORDER BY id LIMIT 1"},
    {"find_exact", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND generation = $2 "
                   "AND own AND id = $3 LIMIT 1"},
    {"find_previous", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND generation = $2 "
                      "AND own AND id < $3 ORDER BY id DESC LIMIT 1"},
    {"find_last", "SELECT " PG_EVENT_COLUMNS " FROM events WHERE log = $1 AND generation = $2 "
                  "AND own AND $3::bigint IS NOT NULL ORDER BY id DESC LIMIT 1"},
}};

/** evTime that nothing of the partitions reaches which are gone, in seconds since 1970-01-01 UTC.
 */
constexpr PgStatement DROPPED{"dropped", "SELECT value::bigint FROM meta "
                                         "WHERE name = 'dropped_before'"};

/** Claims that do not hold any more, or whose last event is gone: logs, epochs, owners,
 * generations, ids. */
constexpr PgStatement LOST{
    "lost", "SELECT k.log FROM unnest($1::bigint[], $2::bigint[], $3::bigint[], $4::bigint[], "
            "$5::bigint[]) AS k(log, epoch, owner, generation, id) "
            "LEFT JOIN logs l ON l.log = k.log AND l.epoch = k.epoch AND l.owner = k.owner "
            "WHERE l.log IS NULL OR (k.id >= 0 AND NOT EXISTS (SELECT 1 FROM events e "
            "WHERE e.log = k.log AND e.generation = k.generation AND e.id = k.id))"};

/** The layout; which part of a spread archive the server has, if it has one; the session, as
 * SESSIONS takes it. */
constexpr PgStatement LAYOUT{
    "layout", "SELECT value, (SELECT value FROM meta WHERE name = 'node'), pg_backend_pid(), "
              "(SELECT backend_start FROM pg_stat_activity WHERE pid = pg_backend_pid()) "
              "FROM meta WHERE name = 'layout'"};
constexpr PgStatement COUNT{"count", "SELECT count(*) FROM events"};
constexpr PgStatement SIZE{"size", "SELECT coalesce(sum(pg_total_relation_size(relid)), 0)::bigint "
                                   "FROM pg_partition_tree('events')"};
constexpr PgStatement GENERATIONS{
    "generations", "SELECT l.log, l.identity, g.generation, g.opened, g.duplicates, "
                   "CASE WHEN n.run_last IS NULL THEN g.run_first ELSE n.run_first END, "
                   "coalesce(n.run_last, g.run_last), oldest FROM logs l JOIN generations g "
                   "ON g.log = l.log LEFT JOIN logs n ON n.log = g.log "
                   "AND n.generation = g.generation"};
constexpr PgStatement ASIDES{"asides", "SELECT l.identity, s.id, s.reason, s.received, s.image "
                                       "FROM set_aside s JOIN logs l ON l.log = s.log "
                                       "ORDER BY s.received, s.id"};

} // namespace evarchive::pg

#endif
