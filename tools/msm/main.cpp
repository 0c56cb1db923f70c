#include "common/cli.h"
#include "common/descriptors.h"
#include "common/say.h"
#include "switch.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>

#include <unistd.h>

using namespace msm;

namespace {

constexpr char DESCRIPTION[] =
    "Message switch for one machine: carries the local messages of a blade's processes.\n\n"
    "For each of the 34 endpoints a Unix stream socket is made in DIR, named like the endpoint:\n"
    "eventlog for the event manager, startup, smi_ind, snmp and so on. A process connects to the\n"
    "socket of the endpoint that it is, sends whole messages (a 64-byte header and its body, the\n"
    "length of both in mmsg_length) and receives every message whose recipient bitmap has the bit\n"
    "of that endpoint. Several connections of one endpoint get a copy each.\n\n"
    "A connection that sends an mmsg_length outside 64 to 4064 is closed. A connection that does\n"
    "not read is not waited for: messages for it are queued, then dropped; both is said. Nothing\n"
    "of this blade for eventlog is dropped: its senders wait. A second event manager is refused.";

constexpr char FOOTER[] =
    "On SIGINT or SIGTERM the switch prints a summary of its counters, removes its sockets and\n"
    "exits with 0. Lines go to standard output; why it could not start goes to standard error.\n\n"
    "Examples:\n"
    "  msm /tmp/blade0/mmsg --trace\n"
    "  msm /tmp/blade0/mmsg --link /tmp/blade1/mmsg/link &\n"
    "  msm /tmp/blade1/mmsg --link /tmp/blade0/mmsg/link &";

void declareOptions(CLI::App& app, SwitchOptions& options) {
    app.add_option("directory", options.directory,
                   "Directory of the sockets; it must exist, and its sockets' paths may have at "
                   "most 107 characters")
        ->required()
        ->check(tools::notEmpty())
        ->type_name("DIR");
    app.add_option(
           "--link", options.link,
           "Link to the switch of another blade: PATH is its link socket, the file \"link\" "
           "in its DIR. Messages with bits in recipient_ob_bm go there. Both switches need "
           "the option; they may start in any order and find each other again")
        ->check(tools::notEmpty())
        ->type_name("PATH");
    app.add_option("--queue", options.queueMax,
                   "Messages that may wait for one slow connection before more are dropped")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000))
        ->type_name("N");
    app.add_option("--hold", options.hold,
                   "Seconds that a sender may wait for the event manager, while none is connected "
                   "or the one that is takes nothing, before its connection is closed")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400))
        ->type_name("SECONDS");
    app.add_option(
           "--group", options.group,
           "Group whose members may connect, too (the sockets then have mode 0660, else 0600)")
        ->type_name("NAME");
    app.add_flag("--trace", options.trace, "Print the header of every message and where it went");
    app.add_option(
           "--ready-fd", options.readyFd,
           "Write the line \"ready\" to descriptor N, and close it, once all sockets listen: "
           "for a program that starts the switch and waits for it")
        ->check(CLI::Range(3, 1000000))
        ->type_name("N");
}

/** Throws when nothing can be written to @p descriptor: whoever waits for it would wait in vain. */
void tellReady(int descriptor) {
    constexpr char READY[] = "ready\n";
    if (write(descriptor, READY, sizeof(READY) - 1) < 0) {
        throw std::runtime_error("cannot write to descriptor " + std::to_string(descriptor) + ": " +
                                 strerror(errno));
    }
    close(descriptor);
}

int run(const SwitchOptions& options) {
    asio::io_context loop(1);
    asio::signal_set signals(loop, SIGINT, SIGTERM);
    Switch messageSwitch(loop, options);
    tools::say("listening in " + options.directory);
    if (options.readyFd >= 0) {
        tellReady(options.readyFd);
    }
    signals.async_wait([&loop](std::error_code, int) { loop.stop(); });
    loop.run();
    tools::sayLines(messageSwitch.counters().text());
    return tools::EXIT_DONE;
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        SwitchOptions options;
        CLI::App app(DESCRIPTION, "msm");
        declareOptions(app, options);
        tools::setUpCommandLine(app, FOOTER);
        if (std::optional<int> status = tools::parseCommandLine(app, argc, argv)) {
            return *status;
        }
        return run(options);
    } catch (const std::exception& error) {
        return tools::sayCouldNot("msm", error.what());
    }
}
