#include "pg_connection.h"

#include <cerrno>
#include <cstring>
#include <libpq-fe.h>
#include <poll.h>
#include <regex>

namespace evarchive {
namespace {

constexpr char NO_CONNECTION[] = "08006";
constexpr char WRONG_ENCODING[] = "22021"; // as the server would say of the first such character

// Beyond what the server allows a statement, so that it is the server that ends it.
constexpr std::chrono::milliseconds GRACE{3000};
constexpr std::chrono::milliseconds ENDLESS{24 * 3'600'000};

// Errors after which the same request may go well: the server is away, starting, ending, full,
// busy, not the primary, or two transactions were in each other's way.
bool isPassing(const std::string& state) {
    for (const char* kind : {"08", "40", "53", "55", "57", "58", "25", "XX"}) {
        if (state.starts_with(kind)) {
            return true;
        }
    }
    return false;
}

std::string lineOf(const char* message) {
    std::string line = message != nullptr ? message : "";
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    std::ranges::replace(line, '\n', ' ');
    return line;
}

struct FreeOptions {
    void operator()(PQconninfoOption* options) const { PQconninfoFree(options); }
};
using ConnectionOptions = std::unique_ptr<PQconninfoOption, FreeOptions>;

ConnectionOptions optionsOf(const std::string& place) {
    char* error = nullptr;
    ConnectionOptions options(PQconninfoParse(place.c_str(), &error));
    if (!options) {
        const std::string why = lineOf(error);
        PQfreemem(error);
        throw PgError(why, "08001", StoreError::Kind::LASTING);
    }
    return options;
}

std::map<std::string, std::string> settingsOf(const std::string& place,
                                              const PgPatience& patience) {
    const std::string inTransaction = std::to_string(2 * patience.statement.count());
    // A server that waits for the rest of a transaction's statements holds its locks under none of
    // its time-outs: only its own look at the line tells it that nobody is there any more.
    const std::string theServersLine = " -c tcp_user_timeout=2000 -c tcp_keepalives_idle=2"
                                       " -c tcp_keepalives_interval=1 -c tcp_keepalives_count=3";
    std::map<std::string, std::string> settings = {
        {"target_session_attrs", "read-write"},
        {"connect_timeout", "2"},
        {"tcp_user_timeout", "2000"},
        {"keepalives_idle", "10"},
        {"keepalives_interval", "5"},
        {"keepalives_count", "3"},
        {"application_name", "evarchiver"},
        {"client_encoding", "UTF8"},
        {"options", "-c statement_timeout=" + std::to_string(patience.statement.count()) +
                        " -c lock_timeout=" + std::to_string(patience.lock.count()) +
                        " -c idle_in_transaction_session_timeout=" + inTransaction +
                        theServersLine + " -c plan_cache_mode=force_generic_plan -c DateStyle=ISO"},
    };
    for (const auto& [name, value] : placeOptions(place)) {
        // Of the server's settings the place may change some; what it does not name stays bounded.
        settings[name] = name == "options" ? settings[name] + " " + value : value;
    }
    return settings;
}

} // namespace

std::map<std::string, std::string> placeOptions(const std::string& place) {
    const ConnectionOptions given = optionsOf(place);
    std::map<std::string, std::string> options;
    for (const PQconninfoOption* option = given.get(); option->keyword != nullptr; ++option) {
        if (option->val != nullptr) {
            options[option->keyword] = option->val;
        }
    }
    return options;
}

PgParameters& PgParameters::add(U32_t type, View value) {
    types_.push_back(type);
    values_.emplace_back(value.begin(), value.end());
    return *this;
}

PgParameters& PgParameters::integer(S64_t value) {
    Bytes bytes;
    putNumber(bytes, value, 8);
    return add(static_cast<U32_t>(PgType::BIGINT), bytes);
}

PgParameters& PgParameters::time(S64_t seconds) {
    return instant(pgTime(seconds));
}

PgParameters& PgParameters::instant(S64_t microseconds) {
    Bytes bytes;
    putNumber(bytes, microseconds, 8);
    return add(static_cast<U32_t>(PgType::TIMESTAMPTZ), bytes);
}

PgParameters& PgParameters::boolean(bool value) {
    const U8_t byte = value ? 1 : 0;
    return add(static_cast<U32_t>(PgType::BOOLEAN), View(&byte, 1));
}

PgParameters& PgParameters::text(std::string_view value) {
    return add(static_cast<U32_t>(PgType::TEXT),
               View(reinterpret_cast<const U8_t*>(value.data()), value.size()));
}

PgParameters& PgParameters::bytes(View value) {
    return add(static_cast<U32_t>(PgType::BYTEA), value);
}

PgParameters& PgParameters::array(PgArray& value) {
    return add(arrayTypeOf(value.element()), value.finish());
}

PgRows::PgRows(pg_result* result) : result_(result, [](pg_result* it) { PQclear(it); }) {}

int PgRows::count() const {
    return PQntuples(result_.get());
}

U64_t PgRows::affected() const {
    return strtoull(PQcmdTuples(result_.get()), nullptr, 10);
}

std::string PgRows::tag() const {
    return PQcmdStatus(result_.get());
}

bool PgRows::isNull(int row, int column) const {
    return PQgetisnull(result_.get(), row, column) != 0;
}

View PgRows::viewOf(int row, int column) const {
    return {reinterpret_cast<const U8_t*>(PQgetvalue(result_.get(), row, column)),
            static_cast<std::size_t>(PQgetlength(result_.get(), row, column))};
}

S64_t PgRows::integer(int row, int column) const {
    const View bytes = viewOf(row, column);
    U64_t value = !bytes.empty() && bytes.size() > 1 && (bytes[0] & 0x80U) != 0 ? ~U64_t{0} : 0;
    for (const U8_t byte : bytes) {
        value = (value << 8) | byte;
    }
    return static_cast<S64_t>(value);
}

S64_t PgRows::time(int row, int column) const {
    return secondsOfPgTime(integer(row, column));
}

Bytes PgRows::bytes(int row, int column) const {
    const View value = viewOf(row, column);
    return {value.begin(), value.end()};
}

std::string PgRows::text(int row, int column) const {
    const View value = viewOf(row, column);
    return {value.begin(), value.end()};
}

void PgConnection::Free::operator()(pg_result* result) const {
    PQclear(result);
}

PgConnection::PgConnection(std::string place, const PgPatience& patience)
    : place_(std::move(place)), patience_(patience) {}

PgConnection::~PgConnection() {
    close();
}

void PgConnection::close() {
    PQfinish(connection_);
    connection_ = nullptr;
    prepared_.clear();
    queued_.clear();
    taken_ = 0;
}

void PgConnection::reopen() {
    close();
    const auto settings = settingsOf(place_, patience_);
    std::vector<const char*> names;
    std::vector<const char*> values;
    for (const auto& [name, value] : settings) {
        names.push_back(name.c_str());
        values.push_back(value.c_str());
    }
    names.push_back(nullptr);
    values.push_back(nullptr);
    connection_ = PQconnectdbParams(names.data(), values.data(), 0);
    if (connection_ == nullptr) {
        fail("out of memory");
    }
    if (PQstatus(connection_) != CONNECTION_OK) {
        const std::string why = PQerrorMessage(connection_);
        if (why.find("timeout expired") != std::string::npos) {
            fail(why); // nobody is there who could be asked
        }
        if (PQpingParams(names.data(), values.data(), 0) == PQPING_NO_ATTEMPT) {
            refuse(why); // nor can anybody be asked in this way
        }
        askWhy(why);
    }
    PQsetNoticeProcessor(
        connection_, [](void*, const char*) {}, nullptr);
    PQsetnonblocking(connection_, 1);
    requireUtf8();
}

// Whether the server is away or refuses this user or database. libpq tells the SQLSTATE of that
// only in a text, and only when it is asked to before it connects: so it connects once more.
void PgConnection::askWhy(const std::string& why) {
    PQsetErrorVerbosity(connection_, PQERRORS_VERBOSE);
    PQreset(connection_);
    const bool isThereNow = PQstatus(connection_) == CONNECTION_OK;
    const std::string told = PQerrorMessage(connection_);
    PQsetErrorVerbosity(connection_, PQERRORS_DEFAULT);
    if (isThereNow) {
        return;
    }
    static const std::regex STATE(":  ([0-9A-Z]{5}): ");
    std::smatch found;
    if (std::regex_search(told, found, STATE) && !isPassing(found[1])) {
        refuse(why);
    }
    fail(why);
}

// Another encoding lacks characters that blades have in their names.
void PgConnection::requireUtf8() {
    const char* encoding = PQparameterStatus(connection_, "server_encoding");
    if (encoding == nullptr || strcmp(encoding, "UTF8") == 0) {
        return;
    }
    const std::string text = placeShown() + ": the database's encoding is " + encoding +
                             "; an archive needs one that is made with the encoding UTF8";
    close();
    throw PgError(text, WRONG_ENCODING, StoreError::Kind::LASTING);
}

void PgConnection::fail(const std::string& what) {
    const std::string text = lineOf(what.c_str());
    close();
    throw PgError(text, NO_CONNECTION, StoreError::Kind::PASSING);
}

// The state is not the server's: this is about no statement and no row.
void PgConnection::refuse(const std::string& what) {
    const std::string text = lineOf(what.c_str());
    close();
    throw PgError(text, NO_CONNECTION, StoreError::Kind::REFUSED);
}

void PgConnection::failWith(const pg_result* result) {
    const char* given = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const std::string state = given != nullptr ? given : NO_CONNECTION;
    const std::string text = lineOf(PQresultErrorMessage(result));
    if (PQstatus(connection_) != CONNECTION_OK) {
        close();
    }
    throw PgError(text, state,
                  isPassing(state) ? StoreError::Kind::PASSING : StoreError::Kind::REFUSED);
}

// Waits for the server's bytes, or for room to send.
void PgConnection::await(bool alsoWrite) {
    pollfd entry{PQsocket(connection_), POLLIN, 0};
    if (alsoWrite) {
        entry.events |= POLLOUT;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline_ - std::chrono::steady_clock::now());
    const int found = left.count() > 0 ? poll(&entry, 1, static_cast<int>(left.count())) : 0;
    if (found == 0) {
        fail("the server does not answer");
    }
    if (found < 0 && errno != EINTR) {
        fail(strerror(errno));
    }
    if (PQconsumeInput(connection_) == 0) {
        fail(PQerrorMessage(connection_));
    }
}

// Each answer has its time: the server counts it for each statement, too.
void PgConnection::beginWait() {
    const auto patience = patience_.statement.count() > 0 ? patience_.statement + GRACE : ENDLESS;
    deadline_ = std::chrono::steady_clock::now() + patience;
}

void PgConnection::flush() {
    beginWait();
    for (int left = PQflush(connection_); left != 0; left = PQflush(connection_)) {
        if (left < 0) {
            fail(PQerrorMessage(connection_));
        }
        await(true);
    }
}

PgConnection::Result PgConnection::next() {
    while (PQisBusy(connection_) != 0) {
        await(false);
    }
    return Result(PQgetResult(connection_));
}

bool PgConnection::isGood(const Result& result) {
    const ExecStatusType status = PQresultStatus(result.get());
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

void PgConnection::execute(const std::string& sql) {
    if (!isOpen()) {
        reopen();
    }
    if (PQsendQuery(connection_, sql.c_str()) == 0) {
        fail(PQerrorMessage(connection_));
    }
    flush();
    Result failed;
    while (Result result = next()) {
        if (!isGood(result) && !failed) {
            failed = std::move(result);
        }
    }
    if (failed) {
        failWith(failed.get());
    }
}

PgRows PgConnection::run(const PgStatement& statement, const PgParameters& parameters) {
    queue(statement, parameters);
    sync();
    PgRows rows = take();
    finish();
    return rows;
}

void PgConnection::queue(const PgStatement& statement, const PgParameters& parameters) {
    if (!isOpen()) {
        reopen();
    }
    if (PQpipelineStatus(connection_) == PQ_PIPELINE_OFF && PQenterPipelineMode(connection_) == 0) {
        fail(PQerrorMessage(connection_));
    }
    if (!prepared_.contains(statement.name)) {
        std::vector<Oid> types(parameters.types_.begin(), parameters.types_.end());
        if (PQsendPrepare(connection_, statement.name, statement.sql,
                          static_cast<int>(types.size()), types.data()) == 0) {
            fail(PQerrorMessage(connection_));
        }
        queued_.push_back(statement.name);
        prepared_.insert(statement.name);
    }
    send(statement, parameters);
    queued_.push_back(nullptr);
}

void PgConnection::send(const PgStatement& statement, const PgParameters& parameters) {
    std::vector<const char*> values;
    std::vector<int> sizes;
    for (const Bytes& value : parameters.values_) {
        // An empty value is no null.
        values.push_back(value.empty() ? "" : reinterpret_cast<const char*>(value.data()));
        sizes.push_back(static_cast<int>(value.size()));
    }
    const std::vector<int> formats(values.size(), 1);
    if (PQsendQueryPrepared(connection_, statement.name, static_cast<int>(values.size()),
                            values.data(), sizes.data(), formats.data(), 1) == 0) {
        fail(PQerrorMessage(connection_));
    }
}

void PgConnection::sync() {
    if (PQpipelineSync(connection_) == 0) {
        fail(PQerrorMessage(connection_));
    }
    flush();
}

// The answer to the queue's next entry, a preparation or a statement. What failed to be prepared is
// not.
PgConnection::Result PgConnection::takeEntry() {
    beginWait();
    Result result = next();
    if (!result) {
        fail("the server ended the connection");
    }
    while (next()) {
        // A null ends each entry's answer.
    }
    const char* prepares = queued_[taken_++];
    if (prepares != nullptr && !isGood(result)) {
        prepared_.erase(prepares);
    }
    return result;
}

PgRows PgConnection::take() {
    while (taken_ < queued_.size()) {
        const bool isPreparation = queued_[taken_] != nullptr;
        Result result = takeEntry();
        if (!isGood(result)) {
            finish();
            failWith(result.get());
        }
        if (!isPreparation) {
            return PgRows(result.release());
        }
    }
    throw std::logic_error("no answer is left");
}

void PgConnection::finish() {
    while (taken_ < queued_.size()) {
        takeEntry();
    }
    queued_.clear();
    taken_ = 0;
    const Result synced = next();
    if (!synced || PQresultStatus(synced.get()) != PGRES_PIPELINE_SYNC) {
        fail("the server's answers are out of step");
    }
    PQexitPipelineMode(connection_);
}

std::string PgConnection::placeShown() const {
    std::string shown;
    for (const auto& [name, value] : placeOptions(place_)) {
        if (name == "host" || name == "port" || name == "dbname") {
            shown += (shown.empty() ? "" : " ") + name + "=" + value;
        }
    }
    return shown;
}

} // namespace evarchive
