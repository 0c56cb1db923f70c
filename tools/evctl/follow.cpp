/** evctl follow: prints events as the event manager passes them on. */
#include "evctl/commands.h"
#include "evctl/event_filter.h"
#include "evctl/event_message.h"
#include "evctl/event_output.h"
#include "evctl/gaps.h"
#include "evctl/options.h"

#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char FOLLOW_EXAMPLES[] = "Examples:\n"
                                   "  evctl follow --key 0x1234 --type warning,error\n"
                                   "  evctl follow --key 0x1234 --refill --json\n"
                                   "  evctl follow --dir /tmp/msm --count 1 --timeout 10 --json";

struct FollowOptions {
    SwitchOptions where;
    U32_t endpoint = MMSG_E_EPID_SMI_IND;
    EventFilter filter;
    OutputOptions output;
    bool refill = false;
    U64_t count = 0;    // 0: without end
    double timeout = 0; // seconds; 0: without end
};

Deadline deadlineOf(const FollowOptions& options) {
    if (options.timeout <= 0) {
        return std::nullopt;
    }
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(options.timeout));
}

class Follow {
  public:
    explicit Follow(const FollowOptions& options)
        : options_(options), printer_(options.output),
          session_(switchDirectory(options.where), options.endpoint) {
        session_.watchReader(STDOUT_FILENO);
    }

    /** @return the exit status; throws ReaderGone */
    int run();

  private:
    bool isDone() const { return options_.count != 0 && printed_ >= options_.count; }
    void take(const Bytes& message);
    void show(const EventView& event);
    void fill(const Gap& gap);
    void sayGap(const Gap& gap);
    bool isOwnLog(const LogIdentity& log);

    const FollowOptions& options_;
    EventPrinter printer_;
    Session session_;
    GapWatch gaps_;
    RequestOptions request_;
    std::optional<Requester> requester_; // once a gap has been met
    LogIdentity own_;
    U64_t printed_ = 0;
    int status_ = tools::EXIT_DONE;
};

void Follow::show(const EventView& event) {
    if (!isDone() && options_.filter.matches(event)) {
        printer_.printNow(event);
        printed_++;
    }
    if (!std::cout) {
        throw ReaderGone("nobody reads standard output any more");
    }
}

void Follow::sayGap(const Gap& gap) {
    status_ = tools::EXIT_FINDING;
    printer_.printNote(gapJson(gap), gapLine(gap));
}

/** Only the blade's own log is asked for: of others the event manager relays 64 inquiries in its
 * life, which are not ours to use up. */
bool Follow::isOwnLog(const LogIdentity& log) {
    if (!requester_) {
        request_.where = options_.where;
        requester_.emplace(request_);
        own_ = resolveIdentity(*requester_, {}, options_.where);
    }
    return own_.enclosure == log.enclosure && own_.slot == log.slot;
}

/** Prints what the log still holds of a gap, and what is still missing as gaps. */
void Follow::fill(const Gap& gap) {
    U32_t wanted = gap.first;
    while (wanted <= gap.last && !isDone() && isOwnLog(gap.log)) {
        session_.takeInArrived(); // what comes meanwhile must not be lost in its turn
        InquiryAnswer answer = inquire(*requester_, EMP_E_INQUIRY_TYPE_NEXT, gap.log, wanted - 1);
        U32_t id = answer.found() ? U32_t{answer.event().header->evSequenceId} : 0;
        if (!answer.found() || id < wanted || id > gap.last) {
            break;
        }
        if (id > wanted) {
            sayGap({.log = gap.log, .first = wanted, .last = id - 1});
        }
        show(answer.event());
        wanted = id + 1;
    }
    if (wanted <= gap.last && !isDone()) {
        sayGap({.log = gap.log, .first = wanted, .last = gap.last});
    }
}

void Follow::take(const Bytes& message) {
    EventView event{};
    MessageKind kind = readEventMessage(message, &event);
    if (kind == MessageKind::BAD_EVENT) {
        std::cerr << "evctl: event message of " << message.size() << " bytes is too short\n";
        status_ = tools::EXIT_FINDING;
    }
    if (kind != MessageKind::EVENT) {
        return;
    }
    bool replayed = mmchOf(message).opcode.request.type == EMP_E_MSGS_ALTERNATE_LOG;
    if (std::optional<Gap> gap = gaps_.take(*event.header, replayed)) {
        if (options_.refill) {
            fill(*gap);
        } else {
            sayGap(*gap);
        }
    }
    show(event);
}

int Follow::run() {
    Deadline deadline = deadlineOf(options_);
    while (!isDone()) {
        std::optional<Bytes> message = session_.receive(deadline);
        if (!message) {
            return options_.count == 0 ? status_ : tools::EXIT_FINDING;
        }
        take(*message);
    }
    return status_;
}

int runFollow(const FollowOptions& options) {
    if ((fcntl(STDOUT_FILENO, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        throw std::runtime_error("cannot write standard output");
    }
    // Whoever reads the lines may go at any time: that is met as a failed write.
    signal(SIGPIPE, SIG_IGN);
    try {
        return Follow(options).run();
    } catch (const ReaderGone&) {
        std::cout.clear();
        return options.count == 0 ? tools::EXIT_DONE : tools::EXIT_FINDING;
    }
}

} // namespace

void addFollowCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<FollowOptions>();
    CLI::App& command = addCommand(
        parent, "follow", "Print events as the event manager takes them in.", FOLLOW_EXAMPLES);
    addSwitchOptions(command, options->where);
    addNamedOption(command, "--endpoint", options->endpoint, tools::endpointNames,
                   MMSG_E_MAX_DEFINED_EPIDS - 1, "Endpoint to listen as");
    addZoneOption(command, options->output.zone);
    addFilterOptions(command, options->filter, &options->output.zone);
    addLogChoice(command, options->filter.logs);
    addOutputOptions(command, options->output);
    command.add_flag("--refill", options->refill,
                     "Ask the event manager for events of its log that did not come; without it a "
                     "gap in the sequence ids is only said");
    command.add_option("--count", options->count, "End after this many events")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(1));
    command
        .add_option("--timeout", options->timeout,
                    "End after this many seconds, with status 1 when --count was given and not met")
        ->type_name("SECONDS")
        ->check(tools::decimalNumber(0.001, 1e9));
    onChosen(command, chosen, options, runFollow);
}

} // namespace evctl
