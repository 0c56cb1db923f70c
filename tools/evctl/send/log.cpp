/** evctl log: sends events to the event manager. */
#include "evctl/commands.h"
#include "evctl/send/alternate_event.h"
#include "evctl/send/confirm.h"
#include "evctl/send/event_options.h"
#include "evctl/send/progress.h"
#include "evctl/wire/blade_options.h"
#include "evctl/wire/session.h"

#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char LOG_EXAMPLES[] =
    "Examples:\n"
    "  evctl log --key 0x1234 --id 300 --type warning --category disk \\\n"
    "      --text \"drive 4 is slow\"\n"
    "  evctl log --key 0x1234 --id 300 --text \"never lost\" --confirm=2 --or-ael\n"
    "  evctl log --dir /tmp/msm --source startup --id 1 --hex 00ff10 --count 1000 \\\n"
    "      --rate 200";

constexpr double PATIENCE_DEFAULT = 5;

struct LogOptions {
    SwitchOptions where;
    EventOptions event;
    U64_t count = 1;
    double rate = 0;               // events a second; 0: as fast as they go
    std::optional<double> confirm; // seconds to wait for a copy
    bool orAel = false;
};

/** When event number @p index is due. */
Clock::time_point dueTime(Clock::time_point start, U64_t index, double rate) {
    std::chrono::duration<double> offset(static_cast<double>(index) / rate);
    return start + std::chrono::duration_cast<Clock::duration>(offset);
}

void printId(const EmpEvLogHeader_t& header) {
    std::cout << U32_t{header.evSequenceId} << std::endl;
}

std::chrono::milliseconds patienceOf(const LogOptions& options) {
    return std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options.confirm.value_or(PATIENCE_DEFAULT)));
}

/** @param unconfirmed receives how many events are not known to be stored, also when it throws */
void sendAll(const LogOptions& options, const Bytes& message, U64_t* unconfirmed) {
    std::string directory = switchDirectory(options.where);
    std::optional<Confirmer> confirmer;
    if (options.confirm || options.orAel) {
        *unconfirmed = options.count;
        confirmer.emplace(directory, message, patienceOf(options),
                          [unconfirmed](const EmpEvLogHeader_t& header) {
                              printId(header);
                              --*unconfirmed;
                          });
    }
    Session session(directory, options.event.source);
    Progress progress(options.count);
    Clock::time_point start = Clock::now();
    for (U64_t index = 0; index < options.count; index++) {
        // Also without a rate: what comes for this endpoint is dropped, not piled up.
        session.idleUntil(options.rate > 0 ? dueTime(start, index, options.rate) : start);
        if (confirmer) {
            confirmer->beforeSending();
        }
        session.send(message);
        progress.show(index + 1);
    }
    if (confirmer) {
        confirmer->missing();
    }
}

/** Leaves what did not reach the event manager to its next start. */
void leaveAll(const LogOptions& options, const EventFields& fields, const Bytes& data,
              U64_t count) {
    const MPU_PARAMS_t& params = attachParams(options.where.block);
    for (U64_t index = 0; index < count; index++) {
        leaveAlternateEvent(fields, data, 0, params);
    }
    std::cerr << "evctl: " << count << " left as alternate event log files\n";
}

int runLog(const LogOptions& given) {
    LogOptions options = given;
    if (options.orAel) {
        requireBlock(options.where, "--or-ael", "needs --key: it names the directory of the files");
    }
    EventFields fields = fieldsOf(options.event);
    Bytes data = dataOf(options.event);
    if (options.orAel) {
        checkAlternateEvent(fields, data);
    }
    U64_t unconfirmed = 0;
    try {
        sendAll(options, makeEventMessage(fields, data), &unconfirmed);
    } catch (const SessionError& problem) {
        if (!options.orAel) {
            throw;
        }
        std::cerr << "evctl: " << problem.what() << "\n";
    }
    if (unconfirmed == 0) {
        return tools::EXIT_DONE;
    }
    std::cerr << "evctl: " << unconfirmed << " of " << options.count
              << " events were not seen to be taken in\n";
    if (options.orAel) {
        leaveAll(options, fields, data, unconfirmed);
    }
    return tools::EXIT_FINDING;
}

void addConfirmOptions(CLI::App& command, LogOptions& options) {
    command
        .add_option("--confirm", options.confirm,
                    "Listen as the management interface, print the sequence id of each event that "
                    "is taken in, and end with status 1 when none comes for so long")
        ->type_name("SECONDS")
        ->expected(0, 1)
        ->default_str("5")
        ->check(tools::decimalNumber(0.001, 1e6));
    command.add_flag("--or-ael", options.orAel,
                     "Confirm, and leave what is missing as files for the event manager's next "
                     "start; needs --key");
}

} // namespace

void addLogCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<LogOptions>();
    CLI::App& command =
        addCommand(parent, "log", "Send events to the event manager.", LOG_EXAMPLES);
    addSwitchOptions(command, options->where);
    addEventOptions(command, options->event, MMSG_E_MAX_DEFINED_EPIDS - 1);
    command.add_option("--count", options->count, "Number of events")
        ->type_name("NUMBER")
        ->default_str("1")
        ->check(tools::wholeNumber(1));
    command
        .add_option("--rate", options->rate,
                    "Events a second; without it, as fast as they are taken")
        ->type_name("NUMBER")
        ->check(tools::decimalNumber(0.001, 1e6));
    addConfirmOptions(command, *options);
    onChosen(command, chosen, options, runLog);
}

} // namespace evctl
