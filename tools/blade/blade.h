/**
 * @file
 * A blade on one machine: parameter block, message switch, event manager, and the Startup process,
 * which is this one.
 */
#ifndef BLADE_BLADE_H
#define BLADE_BLADE_H

#include "child.h"
#include "child_output.h"
#include "common/message_connection.h"
#include "evctl/wire/archiver_address.h"
#include "parameters.h"

#include <asio.hpp>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace blade {

struct BladeOptions {
    ParameterSource source;
    int key = KEY_DEFAULT;           ///< of the parameter block
    std::optional<U32_t> other;      ///< slot of the other blade; needs source.base
    std::string msm;                 ///< path of the switch's program; empty: beside this one
    std::string emp;                 ///< path of the event manager; empty: beside this one
    std::vector<std::string> runner; ///< launcher in front of both
    std::string empLog; ///< file for emp's standard output; "-": this one's; empty: default
    std::string msmLog; ///< the same for msm
    bool trace = false; ///< msm prints every message
    bool noEmp = false; ///< emp is started by hand
    bool keep = false;  ///< stay up when emp dies
    int timeout = 30;   ///< seconds that emp may take to initialise
    U64_t logSize = U64_t{64} << 20;                ///< bytes at which a log file is put aside
    U32_t logKeep = 3;                              ///< log files of each program, in all
    bool restart = false;                           ///< emp when it fails
    int restartLimit = 3;                           ///< times in a row
    std::optional<evctl::ArchiverAddress> archiver; ///< that emp is told after each start
};

class Blade {
  public:
    /** Creates directories and the parameter block. Throws BladeError when it cannot. */
    Blade(asio::io_context& loop, BladeOptions options);

    /** Removes what is left: processes, then the parameter block. */
    ~Blade() = default;
    Blade(const Blade&) = delete;
    Blade& operator=(const Blade&) = delete;

    /** Brings the blade up and keeps it up until a signal or a death ends it. @return exit status
     */
    int run();

  private:
    void startSwitch();
    void waitForSwitch();
    void startEventManager();
    void connectStartup();
    void startupConnected();
    void startupMessage(std::span<U8_t> message);
    void initialised();
    bool startAgain();
    void linesOfEndedChild(const Child& child);
    void expectWithinTimeout(const std::string& what);
    void sayUp();
    void watchSignals();
    void watchChildren();
    void watchRenames();
    void childEnded(Child& child);
    void fail(const std::string& why);
    void stop(const std::string& why);
    void stopNext();
    void waitForEnd();

    std::vector<std::string> commandOf(const std::string& program,
                                       const std::vector<std::string>& arguments) const;

    asio::io_context& loop_;
    BladeOptions options_;
    ParameterBlock block_;
    asio::signal_set endSignals_;
    asio::signal_set childSignals_;
    asio::signal_set renameSignals_;       ///< somebody has renamed the log files
    asio::posix::stream_descriptor ready_; ///< on which the switch says that it listens
    std::array<char, 16> readyText_{};
    asio::steady_timer deadline_; ///< of coming up, later of a child's end
    tools::Socket socket_;
    std::shared_ptr<tools::MessageConnection> startup_; ///< the Startup process's endpoint
    ChildOutput msmOutput_;
    ChildOutput empOutput_;
    Child msm_;
    Child emp_;
    std::chrono::steady_clock::time_point empStarted_;
    int restarts_ = 0; ///< of emp, since it last stood for long
    bool up_ = false;
    bool stopping_ = false;
    int status_ = 0;
};

} // namespace blade

#endif
