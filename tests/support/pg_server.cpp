#include "pg_server.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <libpq-fe.h>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/shm.h>
#include <unistd.h>

namespace support {
namespace {

constexpr char PROGRAMS[] = "/usr/lib/postgresql/15/bin/";

// A server refuses to run as root.
std::vector<std::string> asServer(std::vector<std::string> command) {
    if (geteuid() == 0) {
        const std::vector<std::string> change = {"setpriv", "--reuid=postgres", "--regid=postgres",
                                                 "--clear-groups", "--pdeathsig=QUIT"};
        command.insert(command.begin(), change.begin(), change.end());
    }
    return command;
}

void giveAway(const std::string& path) {
    if (geteuid() != 0) {
        return;
    }
    const passwd* user = getpwnam("postgres");
    if (user == nullptr || chown(path.c_str(), user->pw_uid, user->pw_gid) != 0) {
        throw std::runtime_error(path + ": cannot be given to the user postgres");
    }
}

} // namespace

PgServer::PgServer(std::vector<std::string> settings) : settings_(std::move(settings)) {
    giveAway(directory_.path());
    run({std::string(PROGRAMS) + "initdb", "--no-sync", "--auth=trust", "--username=postgres",
         "--encoding=UTF8", "--locale=C", "-D", data_});
    start();
}

PgServer::PgServer(const PgServer& primary, const std::string& name)
    : settings_(primary.settings_) {
    giveAway(directory_.path());
    copy(primary, name);
    start();
}

PgServer::~PgServer() {
    if (process_) {
        thaw();
        process_->signal(SIGQUIT);
        process_->wait();
    }
}

void PgServer::copy(const PgServer& primary, const std::string& name) {
    run({std::string(PROGRAMS) + "pg_basebackup", "-h", primary.socketDirectory(), "-U", "postgres",
         "-D", data_, "--checkpoint=fast", "--no-sync", "--write-recovery-conf", "-d",
         "application_name=" + name});
}

void PgServer::run(const std::vector<std::string>& command) {
    Process process(asServer(command), directory_.file("run"));
    if (process.wait(std::chrono::seconds(60)) != exitedWith(0)) {
        throw std::runtime_error(command.front() + ": " + process.errorOutput());
    }
}

void PgServer::start() {
    std::vector<std::string> command = {std::string(PROGRAMS) + "postgres", "-D", data_, "-k",
                                        directory_.path()};
    std::vector<std::string> settings = {
        "listen_addresses=",        "fsync=off",
        "full_page_writes=off",     "shared_buffers=32MB",
        "max_connections=40",       "wal_level=replica",
        "max_wal_senders=4",        "hot_standby=on",
        "autovacuum=off",           "dynamic_shared_memory_type=mmap",
        "log_min_messages=warning", "shared_preload_libraries=pg_stat_statements"};
    settings.insert(settings.end(), settings_.begin(), settings_.end());
    for (const std::string& setting : settings) {
        command.insert(command.end(), {"-c", setting});
    }
    process_ = std::make_unique<Process>(asServer(command),
                                         directory_.file("server" + std::to_string(++starts_)));
    requireSoon(
        [this] {
            try {
                sql("SELECT 1");
                return true;
            } catch (const std::runtime_error&) {
                if (process_->poll()) {
                    throw;
                }
                return false;
            }
        },
        "the server to take connections");
}

std::string PgServer::place(const std::string& database) const {
    std::string host;
    for (const char letter : directory_.path()) {
        host += letter == '/' ? std::string("%2F") : std::string(1, letter);
    }
    return "postgresql://postgres@" + host + "/" + database;
}

std::string PgServer::makeDatabase(const std::string& name) {
    sql("CREATE DATABASE " + name);
    return place(name);
}

std::string PgServer::sql(const std::string& statements, const std::string& database) {
    const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(
        PQconnectdb(place(database).c_str()), PQfinish);
    const std::unique_ptr<PGresult, decltype(&PQclear)> result(
        PQexec(connection.get(), statements.c_str()), PQclear);
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
        throw std::runtime_error(PQerrorMessage(connection.get()));
    }
    std::string rows;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        for (int column = 0; column < PQnfields(result.get()); ++column) {
            rows += (column == 0 ? "" : "|") + std::string(PQgetvalue(result.get(), row, column));
        }
        rows += "\n";
    }
    return rows;
}

void PgServer::stop() {
    process_->signal(SIGINT);
    process_->wait();
    process_.reset();
}

// The server and its children.
std::vector<pid_t> PgServer::processes() const {
    std::vector<pid_t> all = {process_->pid()};
    const std::string task = "/proc/" + std::to_string(process_->pid()) + "/task/" +
                             std::to_string(process_->pid()) + "/children";
    std::ifstream children(task);
    for (pid_t child = 0; children >> child;) {
        all.push_back(child);
    }
    return all;
}

void PgServer::kill() {
    // Line 7 names the scrap of shared memory by which servers keep out of each other's way.
    std::ifstream file(data_ + "/postmaster.pid");
    std::string line;
    for (int number = 1; number <= 7; ++number) {
        std::getline(file, line);
    }
    int scrap = -1;
    std::istringstream(line) >> line >> scrap;
    for (const pid_t process : processes()) {
        ::kill(process, SIGKILL);
    }
    process_->wait();
    process_.reset();
    shmctl(scrap, IPC_RMID, nullptr);
    std::filesystem::remove(data_ + "/postmaster.pid");
}

void PgServer::freeze() {
    for (const pid_t process : processes()) {
        ::kill(process, SIGSTOP);
    }
}

void PgServer::thaw() {
    for (const pid_t process : processes()) {
        ::kill(process, SIGCONT);
    }
}

void PgServer::promote() {
    sql("SELECT pg_promote(true, 30)");
}

void PgServer::follow(const PgServer& primary, const std::string& name) {
    std::filesystem::remove_all(data_);
    copy(primary, name);
    start();
}

PgServer& sharedPgServer() {
    static PgServer server;
    return server;
}

} // namespace support
