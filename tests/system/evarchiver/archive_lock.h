/**
 * @file
 * Another program that writes an archive and takes its time.
 */
#ifndef ARCHIVE_LOCK_H
#define ARCHIVE_LOCK_H

#include <chrono>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <thread>

namespace support {

/** Holds the lock for writing until it is released. */
class ArchiveLock {
  public:
    explicit ArchiveLock(const std::string& path) {
        if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path);
        }
        sqlite3_busy_timeout(database_, 5000);
        if (sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            release();
            throw std::runtime_error("cannot lock " + path);
        }
    }
    ~ArchiveLock() { release(); }
    ArchiveLock(const ArchiveLock&) = delete;
    ArchiveLock& operator=(const ArchiveLock&) = delete;

    void release() {
        sqlite3_close(database_);
        database_ = nullptr;
    }

    /** It is the time that matters here, so it is slept. */
    static void holdFor(std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }

  private:
    sqlite3* database_ = nullptr;
};

} // namespace support

#endif
