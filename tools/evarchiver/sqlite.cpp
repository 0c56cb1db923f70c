#include "sqlite.h"

#include <sqlite3.h>

namespace evarchive {
namespace {

// What another process or a person may put right while the archive waits.
StoreError::Kind kindOf(int result) {
    switch (result & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
        return StoreError::Kind::PASSING;
    default:
        return StoreError::Kind::LASTING;
    }
}

} // namespace

SqliteDatabase::SqliteDatabase(const std::string& uri, int flags, std::string name)
    : name_(std::move(name)) {
    if (sqlite3_open_v2(uri.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
        const std::string text = name_ + ": " + sqlite3_errmsg(handle_);
        sqlite3_close(handle_);
        throw StoreError(text);
    }
}

SqliteDatabase::~SqliteDatabase() {
    sqlite3_close(handle_);
}

void SqliteDatabase::execute(const char* sql) {
    if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail();
    }
}

S64_t SqliteDatabase::number(const char* sql) {
    SqliteStatement statement(*this, sql);
    return statement.step() ? statement.integer(0) : 0;
}

S64_t SqliteDatabase::lastRow() const {
    return sqlite3_last_insert_rowid(handle_);
}

void SqliteDatabase::fail() const {
    throw StoreError(name_ + ": " + sqlite3_errmsg(handle_), kindOf(sqlite3_errcode(handle_)));
}

void SqliteDatabase::tryToExecute(const char* sql) noexcept {
    sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
}

int SqliteDatabase::changes() const {
    return sqlite3_changes(handle_);
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, const char* sql) : database_(database) {
    check(sqlite3_prepare_v3(database.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &handle_,
                             nullptr));
}

SqliteStatement::~SqliteStatement() {
    sqlite3_finalize(handle_);
}

bool SqliteStatement::step() {
    switch (sqlite3_step(handle_)) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        database_.fail();
    }
}

void SqliteStatement::run() {
    step();
    reset();
}

void SqliteStatement::reset() {
    // Repeats the error of the last step, which has been thrown already.
    sqlite3_reset(handle_);
}

S64_t SqliteStatement::integer(int column) const {
    return sqlite3_column_int64(handle_, column);
}

bool SqliteStatement::isNull(int column) const {
    return sqlite3_column_type(handle_, column) == SQLITE_NULL;
}

std::string SqliteStatement::text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle_, column));
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(handle_, column))};
}

Bytes SqliteStatement::bytes(int column) const {
    const auto* first = static_cast<const U8_t*>(sqlite3_column_blob(handle_, column));
    return {first, first + sqlite3_column_bytes(handle_, column)};
}

void SqliteStatement::bind(int index, S64_t value) {
    check(sqlite3_bind_int64(handle_, index, value));
}

void SqliteStatement::bind(int index, const std::string& value) {
    check(sqlite3_bind_text(handle_, index, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC));
}

void SqliteStatement::bind(int index, View value) {
    check(sqlite3_bind_blob(handle_, index, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC));
}

void SqliteStatement::check(int result) const {
    if (result != SQLITE_OK) {
        database_.fail();
    }
}

} // namespace evarchive
