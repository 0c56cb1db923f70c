/**
 * @file
 * A PostgreSQL server of a test's own: in a temporary directory, on a Unix socket only, gone with
 * the test.
 */
#ifndef TEST_PG_SERVER_H
#define TEST_PG_SERVER_H

#include "process.h"
#include "temp_directory.h"

#include <memory>

namespace support {

/** A server that is up. As root it runs as the user "postgres". */
class PgServer {
  public:
    /** @param settings further ones, "name=value" */
    explicit PgServer(std::vector<std::string> settings = {});

    /** A standby of another server, which streams from it. */
    PgServer(const PgServer& primary, const std::string& name);
    ~PgServer();
    PgServer(const PgServer&) = delete;
    PgServer& operator=(const PgServer&) = delete;

    /** "postgresql://..." of a database on it. */
    std::string place(const std::string& database = "postgres") const;

    /** The directory of its socket. */
    std::string socketDirectory() const { return directory_.path(); }

    /** Makes an empty database. @return its place */
    std::string makeDatabase(const std::string& name);

    /** Statements, in the database "postgres" or another. Throws when one fails. @return the rows
     * as text, columns parted by '|' */
    std::string sql(const std::string& statements, const std::string& database = "postgres");

    void start();
    void stop();   ///< as a service manager does, connections are cut
    void kill();   ///< kill -9 of the server and all its processes
    void freeze(); ///< it answers nothing any more, its connections stay
    void thaw();
    void promote(); ///< of a standby; returns when it can be written

    /** Makes it a standby of @p primary, whatever it was and held before. It must be down. */
    void follow(const PgServer& primary, const std::string& name);

  private:
    void run(const std::vector<std::string>& command);
    void copy(const PgServer& primary, const std::string& name);
    std::vector<pid_t> processes() const;

    TempDirectory directory_;
    std::string data_ = directory_.file("data");
    std::vector<std::string> settings_;
    std::unique_ptr<Process> process_;
    int starts_ = 0;
};

/** A server that all tests of a program share. */
PgServer& sharedPgServer();

} // namespace support

#endif
