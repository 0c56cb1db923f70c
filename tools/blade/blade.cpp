#include "blade.h"

#include "common/endpoint.h"
#include "common/say.h"
#include "common/text.h"
#include "directories.h"
#include "startup.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace blade {

using tools::say;

namespace {

constexpr size_t QUEUE_MAX = 64;

/** Throws when a switch listens in @p directory: a second blade there would disturb the first. */
void requireNoSwitch(const std::string& directory) {
    int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        throw BladeError("cannot open directory " + directory + ": " + strerror(errno));
    }
    bool taken = flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(descriptor);
    if (taken) {
        throw BladeError("another msm already listens in " + directory);
    }
}

/** @return path of a program that stands beside this one, or @p given */
std::string programPath(const std::string& given, const char* name) {
    std::string path =
        given.empty()
            ? (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string()
            : given;
    if (access(path.c_str(), X_OK) != 0) {
        throw BladeError("cannot execute " + path + ": " + strerror(errno));
    }
    return path;
}

bool isInitComplete(const MMCH_t& header) {
    return header.opcode.request.protocol == MMSG_E_PROTOCOL_STARTUP &&
           header.opcode.request.type == U32_t{SUS_E_MMSG_NOTIFY_INIT_COMPLETE} &&
           header.requestor == MMSG_E_EPID_EVENTLOGMP && header.mmsg_length == MMCH_SIZE;
}

bool isRefusalOfArchiver(const MMCH_t& header) {
    return header.opcode.request.protocol == MMSG_E_PROTOCOL_EVENTMGR &&
           header.opcode.request.type == U32_t{EMP_E_MSGS_SET_EVENT_ARCHIVER} &&
           (header.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0 &&
           header.return_code != U32_t{EMP_E_RESPONSE_SUCCESS};
}

} // namespace

Blade::Blade(asio::io_context& loop, BladeOptions options)
    : loop_(loop), options_(std::move(options)), block_(options_.source, options_.key),
      endSignals_(loop, SIGINT, SIGTERM, SIGHUP), childSignals_(loop, SIGCHLD),
      renameSignals_(loop, SIGUSR1), ready_(loop), deadline_(loop), socket_(loop), msmOutput_(loop),
      empOutput_(loop) {
    options_.msm = programPath(options_.msm, "msm");
    if (!options_.noEmp) {
        options_.emp = programPath(options_.emp, "emp");
    }
    std::string logs =
        block_.logDirectory().empty() ? block_.mmsgDirectory() : block_.logDirectory();
    requireNoSwitch(block_.mmsgDirectory());
    options_.empLog = options_.empLog.empty() ? logs + "/emp.log" : options_.empLog;
    options_.msmLog = options_.msmLog.empty() ? logs + "/msm.log" : options_.msmLog;
    for (const std::string& file : {logs + "/emp.log", logs + "/msm.log"}) {
        requireOwnFile(file);
    }
    if (options_.empLog != "-" && !options_.noEmp) {
        empOutput_.keepIn(options_.empLog, options_.logSize, options_.logKeep);
    }
    if (options_.msmLog != "-") {
        msmOutput_.keepIn(options_.msmLog, options_.logSize, options_.logKeep);
    }
}

int Blade::run() {
    watchSignals();
    watchChildren();
    watchRenames();
    startSwitch();
    expectWithinTimeout("msm has not said that it listens");
    waitForSwitch();
    loop_.run();
    return status_;
}

std::vector<std::string> Blade::commandOf(const std::string& program,
                                          const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = options_.runner;
    command.push_back(program);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

void Blade::startSwitch() {
    std::vector<std::string> arguments = {block_.mmsgDirectory()};
    if (options_.trace) {
        arguments.emplace_back("--trace");
    }
    if (options_.other) {
        arguments.emplace_back("--link");
        arguments.push_back(mmsgDirectoryOf(options_.source.base, *options_.other) + "/link");
    }
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        throw BladeError(std::string("cannot make a pipe: ") + strerror(errno));
    }
    ready_.assign(ready[0]);
    asio::posix::stream_descriptor theirs(loop_, ready[1]);
    arguments.emplace_back("--ready-fd");
    arguments.push_back(std::to_string(ready[1]));
    if (!options_.source.group.empty()) {
        arguments.emplace_back("--group");
        arguments.push_back(options_.source.group);
    }
    int output = msmOutput_.open();
    msm_.start("msm", commandOf(options_.msm, arguments), output, ready[1]);
    close(output);
}

/** Only when all endpoints listen: the event manager does not try again. */
void Blade::waitForSwitch() {
    ready_.async_read_some(asio::buffer(readyText_), [this](std::error_code error, size_t) {
        // An end without a word is that of the process, which is said when it is reaped.
        if (!error && !stopping_) {
            connectStartup();
        }
    });
}

void Blade::startEventManager() {
    int output = empOutput_.open();
    emp_.start("emp", commandOf(options_.emp, {std::to_string(block_.key())}), output);
    close(output);
    empStarted_ = std::chrono::steady_clock::now();
    expectWithinTimeout("emp has not said that it is initialised");
}

void Blade::connectStartup() {
    std::string path = tools::endpointSocketPath(block_.mmsgDirectory(), MMSG_E_EPID_STARTUPMP);
    socket_.async_connect(asio::local::stream_protocol::endpoint(path),
                          [this, path](std::error_code error) {
                              if (stopping_) {
                                  return;
                              }
                              if (error) {
                                  fail("cannot connect to " + path + ": " + error.message());
                              } else {
                                  startupConnected();
                              }
                          });
}

void Blade::startupConnected() {
    // The event manager must not keep the Startup process's connection open.
    fcntl(socket_.native_handle(), F_SETFD, FD_CLOEXEC);
    tools::MessageConnection::Callbacks callbacks;
    callbacks.message = [this](tools::MessageConnection&, std::span<U8_t> message) {
        startupMessage(message);
        return true;
    };
    callbacks.end = [this](tools::MessageConnection&, tools::End) { startup_.reset(); };
    startup_ = std::make_shared<tools::MessageConnection>(std::move(socket_), "startup", QUEUE_MAX,
                                                          std::move(callbacks));
    startup_->start();
    if (options_.noEmp) {
        deadline_.cancel();
        sayUp();
        say("the event manager is to be started by hand: emp " + std::to_string(block_.key()));
    } else {
        startEventManager();
    }
}

void Blade::expectWithinTimeout(const std::string& what) {
    deadline_.expires_after(std::chrono::seconds(options_.timeout));
    deadline_.async_wait([this, what](std::error_code cancelled) {
        if (!cancelled && !stopping_) {
            fail(what + " within " + std::to_string(options_.timeout) + " seconds");
        }
    });
}

void Blade::startupMessage(std::span<U8_t> message) {
    const auto& header = *reinterpret_cast<const MMCH_t*>(message.data());
    if (stopping_) {
        return;
    }
    if (isInitComplete(header)) {
        initialised();
    } else if (isRefusalOfArchiver(header)) {
        say("the event manager did not take the archiver's address (return code " +
            std::to_string(U32_t{header.return_code}) + ")");
    }
}

void Blade::initialised() {
    say("the event manager is initialised");
    deadline_.cancel();
    if (options_.archiver) {
        // It keeps no address over its end.
        startup_->send(evctl::makeSetArchiver(MMSG_E_EPID_STARTUPMP, *options_.archiver));
        say("the event manager is told its archiver: " + tools::hostText(options_.archiver->host) +
            ":" + std::to_string(options_.archiver->port));
    }
    sayUp();
}

void Blade::sayUp() {
    if (!up_) {
        up_ = true;
        say("up: slot " + std::to_string(block_.slot()) + ", key " + std::to_string(block_.key()) +
            ", messages in " + block_.mmsgDirectory() + ", nvram in " + block_.nvramDirectory());
    }
}

} // namespace blade
