/**
 * @file
 * A connection to a PostgreSQL server: statements that are prepared once, parameters and results in
 * binary, several in one round trip, and an end to every wait.
 */
#ifndef EVARCHIVER_PG_CONNECTION_H
#define EVARCHIVER_PG_CONNECTION_H

#include "pg_arrays.h"
#include "store.h"

#include <chrono>
#include <map>
#include <memory>
#include <set>

struct pg_conn;
struct pg_result;

namespace evarchive {

/** What the engine refused, with its five letters of SQLSTATE. */
class PgError : public StoreError {
  public:
    PgError(const std::string& text, std::string state, Kind kind)
        : StoreError(text, kind), state_(std::move(state)) {}

    /** Whether it is about a value, so that the same row would be refused again. */
    bool isAboutData() const {
        return !isConflict() && (state_.starts_with("22") || state_.starts_with("23"));
    }

    /** The same, or some rule of the database's owner refuses it: a view's condition, a trigger. */
    bool isAboutRow() const {
        return isAboutData() || state_.starts_with("44") || state_.starts_with("P0");
    }

    /** Whether two transactions were in each other's way: both can go well, one after the other.
     * One way of it is that a row is there already. */
    bool isConflict() const { return state_.starts_with("40") || state_ == "23505"; }

    /** Whether a row is there that was not. */
    bool isTaken() const { return state_ == "23505"; }

    /** Whether a lock could not be had in time. */
    bool isAboutLocks() const { return state_ == "55P03"; }

    const std::string& state() const { return state_; }

  private:
    std::string state_;
};

/** A statement with a name, prepared at its first use on a connection. */
struct PgStatement {
    const char* name;
    const char* sql;
};

/** What a place says, by the names of libpq: host, port, dbname, ... Throws PgError. */
std::map<std::string, std::string> placeOptions(const std::string& place);

/** Parameters $1, $2, ... of a statement. */
class PgParameters {
  public:
    PgParameters& integer(S64_t value);        ///< bigint
    PgParameters& time(S64_t seconds);         ///< timestamptz; seconds since 1970-01-01 UTC
    PgParameters& instant(S64_t microseconds); ///< timestamptz as PgRows::integer() gives one
    PgParameters& boolean(bool value);
    PgParameters& text(std::string_view value);
    PgParameters& bytes(View value);
    PgParameters& array(PgArray& value);

  private:
    friend class PgConnection;
    PgParameters& add(U32_t type, View value);

    std::vector<U32_t> types_;
    std::vector<Bytes> values_;
};

/** The rows that a statement gave. */
class PgRows {
  public:
    explicit PgRows(pg_result* result);

    int count() const;
    U64_t affected() const;  ///< by an INSERT, UPDATE or DELETE
    std::string tag() const; ///< what the server says it did
    bool isNull(int row, int column) const;
    S64_t integer(int row, int column) const; ///< a number of any width, or a boolean; of a
                                              ///< timestamptz microseconds since 2000-01-01
    S64_t time(int row, int column) const;    ///< seconds since 1970-01-01 UTC
    Bytes bytes(int row, int column) const;   ///< also of a text
    std::string text(int row, int column) const;

  private:
    View viewOf(int row, int column) const;

    std::shared_ptr<pg_result> result_;
};

/** How long a statement may take, on the server and in all. */
struct PgPatience {
    std::chrono::milliseconds statement{1500};
    std::chrono::milliseconds lock{1000};

    /** For upkeep: statements may take as long as they take. */
    static PgPatience endless() { return {std::chrono::milliseconds(0), std::chrono::seconds(10)}; }
};

/**
 * A connection. Every call throws PgError; Kind::PASSING when the server is away, busy, full or not
 * the one that can be written, Kind::REFUSED when the request itself is wrong or not allowed,
 * Kind::LASTING when the place is no place, or its database not in UTF-8. After an error that
 * leaves no answer the connection is closed; reopen() makes it anew.
 */
class PgConnection {
  public:
    /** Connects at its first use.
     * @param place "postgresql://..." with one host or several; what it does not say is set for
     * an archive: the server that can be written, times after which the wait ends */
    explicit PgConnection(std::string place, const PgPatience& patience = {});
    ~PgConnection();
    PgConnection(const PgConnection&) = delete;
    PgConnection& operator=(const PgConnection&) = delete;

    bool isOpen() const { return connection_ != nullptr; }
    void reopen();
    void close();

    /** Statements without parameters or rows, in one round trip. */
    void execute(const std::string& sql);

    PgRows run(const PgStatement& statement, const PgParameters& parameters = {});

    /** Sends a statement, after those queued before it. The answers are taken in that order. */
    void queue(const PgStatement& statement, const PgParameters& parameters = {});

    /** Ends the queue: from here on answers are taken. */
    void sync();

    /** The answer to the next statement of the queue. When it has failed, so have all behind it:
     * the queue is then at its end. */
    PgRows take();

    /** Ends the queue once all its answers were taken. */
    void finish();

    /** The place without its password, for people. */
    std::string placeShown() const;

  private:
    struct Free {
        void operator()(pg_result* result) const;
    };
    using Result = std::unique_ptr<pg_result, Free>;

    void askWhy(const std::string& why);
    void requireUtf8();
    void prepare(const PgStatement& statement);
    void send(const PgStatement& statement, const PgParameters& parameters);
    void flush();
    void await(bool alsoWrite);
    Result next();
    Result takeEntry();
    static bool isGood(const Result& result);
    void beginWait();
    [[noreturn]] void fail(const std::string& what);
    [[noreturn]] void refuse(const std::string& what);
    [[noreturn]] void failWith(const pg_result* result);

    std::string place_;
    PgPatience patience_;
    pg_conn* connection_ = nullptr;
    std::set<std::string> prepared_;
    std::vector<const char*> queued_; ///< entries: what it prepares; nullptr: it runs
    std::size_t taken_ = 0;
    std::chrono::steady_clock::time_point deadline_;
};

} // namespace evarchive

#endif
