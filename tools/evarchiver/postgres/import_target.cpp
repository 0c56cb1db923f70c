#include "import_target.h"

#include "common/text.h"
#include "log_number.h"
#include "pg_reads.h"
#include "pg_statements.h"

#include <array>
#include <set>

namespace evarchive {
namespace {

// A batch is a matter of milliseconds; who hangs must not keep rows locked.
constexpr PgPatience PATIENCE{std::chrono::seconds(30), std::chrono::seconds(10)};

constexpr PgStatement NUMBERED{"import_numbered",
                               "SELECT log, identity FROM logs WHERE log = ANY($1::bigint[])"};
constexpr PgStatement NAMES{
    "import_names",
    "INSERT INTO logs (log, identity, enclosure, blade, slot, instance) "
    "SELECT * FROM unnest($1::bigint[], $2::bytea[], $3::text[], $4::text[], $5::bigint[], "
    "$6::bigint[]) ON CONFLICT DO NOTHING"};

/** logs, identities, newest generations, highest ids, runs */
constexpr PgStatement TAKE{
    "import_take",
    "UPDATE logs l SET epoch = epoch + 1, owner = 0, seen = now(), generation = n.generation, "
    "highest = n.highest, run_first = n.first, run_last = n.last FROM unnest($1::bigint[], "
    "$2::bytea[], $3::bigint[], $4::bigint[], $5::bigint[], $6::bigint[]) "
    "AS n(log, identity, generation, highest, first, last) "
    "WHERE l.log = n.log AND l.identity = n.identity AND l.generation = 0 RETURNING l.log"};

/** logs, generations, times, duplicates, runs, oldest ids */
constexpr PgStatement OPEN{
    "import_open",
    "INSERT INTO generations (log, generation, opened, duplicates, run_first, run_last, oldest) "
    "SELECT * FROM unnest($1::bigint[], $2::bigint[], $3::timestamptz[], $4::bigint[], "
    "$5::bigint[], $6::bigint[], $7::bigint[])"};

/** The arrays of FILE. */
constexpr PgStatement SAME{
    "import_same",
    "SELECT count(DISTINCT n.place) FROM unnest($1::bigint[], $2::bigint[], $3::bigint[], "
    "$4::timestamptz[], $5::timestamptz[], $6::integer[], $7::smallint[], $8::smallint[], "
    "$9::smallint[], $10::smallint[], $11::boolean[], $12::boolean[], $13::bytea[], $14::bytea[]) "
    "WITH ORDINALITY AS n(log, generation, " PG_EVENT_COLUMNS ", place) "
    "JOIN generations g ON g.log = n.log "
    "JOIN events e ON e.log = n.log AND e.generation = g.generation AND e.id = n.id "
    "AND e.time = n.time WHERE e.event = n.event AND e.source = n.source AND e.type = n.type "
    "AND e.category = n.category AND e.idversion = n.idversion AND e.own = n.own "
    "AND e.head IS NOT DISTINCT FROM n.head AND e.data = n.data"};

/** logs, ids, digests, reasons, times, images */
constexpr PgStatement ASIDE{
    "import_aside",
    "INSERT INTO set_aside (log, id, digest, reason, received, image, generation) "
    "SELECT n.log, n.id, n.digest, n.reason, n.received, n.image, l.generation "
    "FROM unnest($1::bigint[], $2::bigint[], $3::bytea[], $4::smallint[], $5::timestamptz[], "
    "$6::bytea[]) AS n(log, id, digest, reason, received, image) JOIN logs l ON l.log = n.log "
    "ON CONFLICT DO NOTHING"};
constexpr PgStatement REFUSED{"import_refused",
                              "SELECT count(*) FROM set_aside WHERE log = $1 AND reason = 6"};

void addText(PgArray& column, const std::string& text) {
    column.addBytes(View(reinterpret_cast<const U8_t*>(text.data()), text.size()));
}

void addId(PgArray& column, const std::optional<U32_t>& id) {
    if (id) {
        column.addNumber(*id);
    } else {
        column.addNull();
    }
}

void addRun(PgArray& first, PgArray& last, const std::optional<IdRun>& run) {
    addId(first, run ? std::optional(run->first) : std::nullopt);
    addId(last, run ? std::optional(run->last) : std::nullopt);
}

} // namespace

ImportTarget::ImportTarget(const std::string& place, std::function<void()> check)
    : connection_(place, PATIENCE), check_(std::move(check)) {}

bool ImportTarget::connect() {
    if (connection_.isOpen()) {
        return false;
    }
    check_();
    connection_.reopen();
    return std::exchange(hasWorked_, true);
}

void ImportTarget::undo() noexcept {
    try {
        if (std::exchange(isBegun_, false) && connection_.isOpen()) {
            connection_.execute("ROLLBACK");
        }
    } catch (const std::exception&) {
        connection_.close(); // which does it as well
    }
}

void ImportTarget::begin() {
    isBegun_ = true;
    connection_.run(pg::BEGIN);
}

void ImportTarget::commit() {
    if (connection_.run(pg::COMMIT).tag() != "COMMIT") {
        throw PgError("the server did not commit", "40000", StoreError::Kind::PASSING);
    }
    isBegun_ = false;
}

void ImportTarget::name(std::span<ImportedLog* const> logs) {
    PgArray numbers(PgType::BIGINT);
    for (ImportedLog* log : logs) {
        log->number = logNumber(identityOf(log->key));
        numbers.addNumber(log->number);
    }
    std::map<SeriesNumber, Bytes> known;
    const PgRows rows = connection_.run(NUMBERED, PgParameters().array(numbers));
    for (int row = 0; row < rows.count(); ++row) {
        known[rows.integer(row, 0)] = rows.bytes(row, 1);
    }
    std::array<PgArray, 6> columns{PgArray{PgType::BIGINT}, PgArray{PgType::BYTEA},
                                   PgArray{PgType::TEXT},   PgArray{PgType::TEXT},
                                   PgArray{PgType::BIGINT}, PgArray{PgType::BIGINT}};
    for (ImportedLog* log : logs) {
        const Bytes identity = identityOf(log->key);
        const auto there = known.find(log->number);
        if (there != known.end() && there->second == identity) {
            continue;
        }
        if (there != known.end()) { // another log has the number
            bool isKnown = false;
            log->number = PgReads(connection_).numberOf(log->key, isKnown);
        }
        columns[0].addNumber(log->number);
        columns[1].addBytes(identity);
        addText(columns[2], tools::escapedUtf8(log->key.blade.enclosure));
        addText(columns[3], tools::escapedUtf8(log->key.blade.blade));
        columns[4].addNumber(log->key.blade.slot);
        columns[5].addNumber(log->key.instance);
    }
    if (columns[0].size() > 0) {
        PgParameters parameters;
        for (PgArray& column : columns) {
            parameters.array(column);
        }
        connection_.run(NAMES, parameters);
    }
}

std::vector<ImportedLog*> ImportTarget::claim(std::span<ImportedLog* const> logs) {
    PgArray numbers(PgType::BIGINT);
    PgArray identities(PgType::BYTEA);
    PgArray newest(PgType::BIGINT);
    PgArray highest(PgType::BIGINT);
    PgArray firsts(PgType::BIGINT);
    PgArray lasts(PgType::BIGINT);
    for (const ImportedLog* log : logs) {
        numbers.addNumber(log->number);
        identities.addBytes(identityOf(log->key));
        newest.addNumber(static_cast<S64_t>(log->generations.size()));
        addId(highest, log->highest);
        addRun(firsts, lasts, log->generations.back().proven);
    }
    const PgRows rows = connection_.run(TAKE, PgParameters()
                                                  .array(numbers)
                                                  .array(identities)
                                                  .array(newest)
                                                  .array(highest)
                                                  .array(firsts)
                                                  .array(lasts));
    std::set<SeriesNumber> taken;
    for (int row = 0; row < rows.count(); ++row) {
        taken.insert(rows.integer(row, 0));
    }
    std::array<PgArray, 7> columns{PgArray{PgType::BIGINT},      PgArray{PgType::BIGINT},
                                   PgArray{PgType::TIMESTAMPTZ}, PgArray{PgType::BIGINT},
                                   PgArray{PgType::BIGINT},      PgArray{PgType::BIGINT},
                                   PgArray{PgType::BIGINT}};
    std::vector<ImportedLog*> ours;
    for (ImportedLog* log : logs) {
        if (!taken.contains(log->number)) {
            continue;
        }
        ours.push_back(log);
        S64_t number = 0;
        for (const GenerationInfo& generation : log->generations) {
            columns[0].addNumber(log->number);
            columns[1].addNumber(++number);
            columns[2].addNumber(pgTime(generation.opened));
            columns[3].addNumber(static_cast<S64_t>(generation.duplicates));
            addRun(columns[4], columns[5], generation.proven);
            addId(columns[6], generation.oldest);
        }
    }
    if (!taken.empty()) {
        PgParameters parameters;
        for (PgArray& column : columns) {
            parameters.array(column);
        }
        connection_.run(OPEN, parameters);
    }
    return ours;
}

void ImportTarget::file(PgBatch& batch) {
    connection_.run(pg::FILE, batch.parameters());
}

U64_t ImportTarget::countHeld(PgBatch& batch) {
    return static_cast<U64_t>(connection_.run(SAME, batch.parameters()).integer(0, 0));
}

void ImportTarget::setAside(std::span<const std::pair<SeriesNumber, const AsideEvent*>> events) {
    PgArray logs(PgType::BIGINT);
    PgArray ids(PgType::BIGINT);
    PgArray digests(PgType::BYTEA);
    PgArray reasons(PgType::SMALLINT);
    PgArray times(PgType::TIMESTAMPTZ);
    PgArray images(PgType::BYTEA);
    for (const auto& [log, event] : events) {
        logs.addNumber(log);
        ids.addNumber(event->sequenceId);
        digests.addBytes(digestOf(event->image));
        reasons.addNumber(static_cast<S64_t>(event->reason));
        times.addNumber(pgTime(event->received));
        images.addBytes(event->image);
    }
    connection_.run(
        ASIDE,
        PgParameters().array(logs).array(ids).array(digests).array(reasons).array(times).array(
            images));
}

U64_t ImportTarget::countRefused(SeriesNumber log) {
    return static_cast<U64_t>(connection_.run(REFUSED, PgParameters().integer(log)).integer(0, 0));
}

} // namespace evarchive
