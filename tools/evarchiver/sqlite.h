/**
 * @file
 * SQLite's C interface as two owning objects. Every failure is a StoreError with the file's name
 * and SQLite's own text.
 */
#ifndef EVARCHIVER_SQLITE_H
#define EVARCHIVER_SQLITE_H

#include "store.h"

#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace evarchive {

/** An open database file. */
class SqliteDatabase {
  public:
    /** @param flags SQLITE_OPEN_..., @param name what texts call the file */
    SqliteDatabase(const std::string& uri, int flags, std::string name);
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    void execute(const char* sql);
    S64_t number(const char* sql); ///< the one integer that @p sql gives
    S64_t lastRow() const;         ///< row number of the last insertion
    sqlite3* handle() const { return handle_; }

    /** Does not throw. */
    void tryToExecute(const char* sql) noexcept;
    int changes() const; ///< rows that the last statement changed

    [[noreturn]] void fail() const;

  private:
    sqlite3* handle_ = nullptr;
    std::string name_;
};

/** A prepared statement, used again and again. Must not outlive its database. */
class SqliteStatement {
  public:
    SqliteStatement(SqliteDatabase& database, const char* sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    /** Begins anew with these parameters, in order. Texts and bytes must stay until the last
     * step(). */
    template <typename... Parameters>
    SqliteStatement& with(const Parameters&... parameters) {
        reset();
        int index = 0;
        (bind(++index, parameters), ...);
        return *this;
    }

    bool step(); ///< @return whether there is a (further) row
    void run();  ///< for a statement that gives no row
    void reset();

    S64_t integer(int column) const;
    U32_t id(int column) const { return static_cast<U32_t>(integer(column)); }
    bool isNull(int column) const;
    std::string text(int column) const;
    Bytes bytes(int column) const;

  private:
    void bind(int index, S64_t value);
    void bind(int index, U32_t value) { bind(index, S64_t{value}); }
    void bind(int index, bool value) { bind(index, S64_t{value}); }
    void bind(int index, const std::string& value);
    void bind(int index, View value);
    void bind(int index, const Bytes& value) { bind(index, View(value)); }
    void check(int result) const;

    SqliteDatabase& database_;
    sqlite3_stmt* handle_ = nullptr;
};

} // namespace evarchive

#endif
