/** evctl follow: prints events as the event manager passes them on. */
#include "common/named_option.h"
#include "evctl/commands.h"
#include "evctl/follow/gaps.h"
#include "evctl/follow/walk_start.h"
#include "evctl/listing/listing.h"
#include "evctl/wire/event_message.h"
#include "evctl/wire/stop.h"

#include <algorithm>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char FOLLOW_EXAMPLES[] = "Examples:\n"
                                   "  evctl follow --key 0x1234 --type warning,error\n"
                                   "  evctl follow --key 0x1234 --refill --json\n"
                                   "  evctl follow --key 0x1234 --retry\n"
                                   "  evctl follow --key 0x1234 --cursor-file seen -o syslog\n"
                                   "  evctl follow --dir /tmp/msm --count 1 --timeout 10 --json";

struct FollowOptions {
    SwitchOptions where;
    U32_t endpoint = MMSG_E_EPID_SMI_IND;
    ListingOptions listing; // filters, output and cursors of it
    bool refill = false;
    bool retry = false;
    U64_t count = 0;    // 0: without end, unless the listing wants only the first ones
    double timeout = 0; // seconds; 0: without end

    /** How many are to be shown; 0: without end. */
    U64_t limit() const {
        const U64_t first = listing.first.value_or(0);
        return count == 0 || first == 0 ? count + first : std::min(count, first);
    }
};

constexpr std::chrono::seconds RETRIED_EVERY{1};

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
        : options_(options), printer_(options.listing.output), keeper_(options.listing.cursorFile),
          directory_(switchDirectory(options.where)) {}

    /** @return the exit status; throws ReaderGone */
    int run();

  private:
    bool isDone() const { return options_.limit() != 0 && printed_ >= options_.limit(); }
    void readAll(Deadline deadline);
    void begin();
    void beginAnew();
    void rememberNewest();
    void goOn(Deadline deadline);
    bool waitForSwitch(const SessionError& problem, Deadline deadline);
    std::optional<Bytes> receive(Deadline deadline);
    void take(const Bytes& message);
    void show(const EventView& event);
    void catchUp(const Cursor& from);
    void catchUpBehind(U32_t sequenceId);
    void beginWithLast(U64_t count);
    bool wasCaughtUp(const EmpEvLogHeader_t& header) const;
    void tellCursor();
    void connectRequester();
    void fill(const Gap& gap);
    void sayGap(const Gap& gap);
    bool isOwnLog(const LogIdentity& log);

    const FollowOptions& options_;
    EventPrinter printer_;
    CursorKeeper keeper_;
    std::string directory_; // of the switch: a blade that restarts is not asked for it again
    std::optional<Session> session_;
    GapWatch gaps_;
    RequestOptions request_;
    std::optional<Requester> requester_; // once a gap has been met
    std::optional<LogIdentity> own_;     // known once it was asked for
    bool hasBegun_ = false;              // everything from here on is wanted
    bool isAway_ = false;                // the switch, which has been said
    Cursor cursor_;
    std::optional<U32_t> caughtUp_; // the last id of the own log that was asked for
    U64_t printed_ = 0;
    int status_ = tools::EXIT_DONE;
};

void Follow::show(const EventView& event) {
    if (isDone()) {
        return;
    }
    if (options_.listing.filter.matches(event)) {
        printer_.printNow(event);
        printed_++;
    }
    if (!std::cout) {
        throw ReaderGone("nobody reads standard output any more");
    }
    cursor_.moveTo({.view = event});
    keeper_.move(cursor_);
}

void Follow::tellCursor() {
    if (cursor_.empty()) {
        return; // nothing has come
    }
    if (options_.listing.showCursor) {
        printer_.printCursor(cursor_.text());
    }
    keeper_.move(cursor_);
    keeper_.keep(cursor_);
}

/** The next message; the cursor does not wait in memory for it. */
std::optional<Bytes> Follow::receive(Deadline deadline) {
    const Deadline due = keeper_.due();
    if (due && (!deadline || *due < *deadline)) {
        if (std::optional<Bytes> message = session_->receive(due)) {
            return message;
        }
        keeper_.keep(cursor_);
    }
    return session_->receive(deadline);
}

/** Prints what the blade's log holds behind the cursor; what comes meanwhile is kept. */
void Follow::catchUp(const Cursor& from) {
    cursor_ = from;
    connectRequester();
    if (std::optional<WalkStart> start = startBehind(*requester_, *own_, from)) {
        if (start->event && options_.listing.inclusive) {
            show(start->event->event());
        }
        catchUpBehind(start->sequenceId);
        return;
    }
    InquiryAnswer first = inquire(*requester_, EMP_E_INQUIRY_TYPE_FIRST, {}, 0);
    if (first.found()) {
        show(first.event());
        catchUpBehind(first.event().header->evSequenceId);
    }
}

/** Prints the last events that the blade's log holds, as many as are wanted. */
void Follow::beginWithLast(U64_t count) {
    connectRequester();
    // Nothing before the first one is asked for: the event manager would ask its archiver.
    InquiryAnswer first = inquire(*requester_, EMP_E_INQUIRY_TYPE_FIRST, {}, 0);
    InquiryAnswer answer = inquire(*requester_, EMP_E_INQUIRY_TYPE_LAST, *own_, 0);
    if (!first.found() || !answer.found()) {
        return;
    }
    const U32_t oldest = first.event().header->evSequenceId;
    const U32_t newest = answer.event().header->evSequenceId;
    std::deque<InquiryAnswer> last;
    for (U32_t id = newest; answer.found(); id = answer.event().header->evSequenceId) {
        session_->takeInArrived();
        InquiryAnswer before;
        if (id > oldest) {
            before = inquire(*requester_, EMP_E_INQUIRY_TYPE_PREVIOUS, *own_, id);
        }
        if (options_.listing.filter.matches(answer.event())) {
            last.push_front(std::move(answer));
        }
        if (last.size() == count || !before.found() || before.event().header->evSequenceId >= id) {
            break;
        }
        answer = std::move(before);
    }
    for (const InquiryAnswer& event : last) {
        show(event.event());
    }
    catchUpBehind(newest);
}

void Follow::catchUpBehind(U32_t sequenceId) {
    for (caughtUp_ = sequenceId; !isDone();) {
        session_->takeInArrived();
        InquiryAnswer answer = inquire(*requester_, EMP_E_INQUIRY_TYPE_NEXT, *own_, *caughtUp_);
        if (!answer.found() || answer.event().header->evSequenceId <= *caughtUp_) {
            return;
        }
        U32_t id = answer.event().header->evSequenceId;
        if (id > *caughtUp_ + 1) { // the log has gone round since
            sayGap({.log = *own_, .first = *caughtUp_ + 1, .last = id - 1});
        }
        caughtUp_ = id;
        gaps_.take(*answer.event().header);
        show(answer.event());
    }
}

/** Whether an event that comes was printed when it was asked for. */
bool Follow::wasCaughtUp(const EmpEvLogHeader_t& header) const {
    return caughtUp_ && identityOf(header) == *own_ && header.evSequenceId <= *caughtUp_;
}

void Follow::sayGap(const Gap& gap) {
    status_ = tools::EXIT_FINDING;
    printer_.printNote(gapJson(gap), gapLine(gap));
}

void Follow::connectRequester() {
    if (requester_) {
        return;
    }
    request_.where = {.directory = directory_, .block = {}};
    requester_.emplace(request_);
    if (!own_) {
        own_ = resolveIdentity(*requester_, {}, options_.where);
        return;
    }
    // The instance may be another one after a restart.
    const IdentityOptions known = {
        .enclosure = own_->enclosure, .blade = own_->blade, .slot = own_->slot, .instance = {}};
    own_ = resolveIdentity(*requester_, known, request_.where);
}

/** Only the blade's own log is asked for: of others the event manager relays 64 inquiries in its
 * life, which are not ours to use up. */
bool Follow::isOwnLog(const LogIdentity& log) {
    connectRequester();
    return own_->enclosure == log.enclosure && own_->slot == log.slot;
}

/** Prints what the log still holds of a gap, and what is still missing as gaps. */
void Follow::fill(const Gap& gap) {
    U32_t wanted = gap.first;
    while (wanted <= gap.last && !isDone() && isOwnLog(gap.log)) {
        session_->takeInArrived(); // what comes meanwhile must not be lost in its turn
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
    if (wasCaughtUp(*event.header)) {
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

/** For the case that the switch goes before anything has come. */
void Follow::rememberNewest() {
    connectRequester();
    InquiryAnswer newest = inquire(*requester_, EMP_E_INQUIRY_TYPE_LAST, *own_, 0);
    if (newest.found()) {
        cursor_.moveTo({.view = newest.event()});
    }
}

void Follow::begin() {
    if (std::optional<Cursor> from = startCursor(options_.listing)) {
        catchUp(*from);
    } else if (options_.listing.last) {
        beginWithLast(*options_.listing.last);
    } else if (options_.retry) {
        rememberNewest();
    }
}

/** Connects, and comes to where new events are the next ones. */
void Follow::beginAnew() {
    requester_.reset();
    session_.reset(); // a socket takes one at a time
    session_.emplace(directory_, options_.endpoint);
    session_->watchReader(STDOUT_FILENO);
    gaps_ = GapWatch{};
    caughtUp_.reset();
    if (hasBegun_ || !cursor_.empty()) {
        catchUp(Cursor(cursor_));
    } else {
        begin();
    }
    hasBegun_ = true;
    if (isAway_) {
        std::cerr << "evctl: going on\n";
    }
    isAway_ = false;
}

void Follow::goOn(Deadline deadline) {
    while (!isDone()) {
        std::optional<Bytes> message = receive(deadline);
        if (!message) {
            status_ = options_.limit() == 0 ? status_ : int{tools::EXIT_FINDING};
            return;
        }
        take(*message);
    }
}

/** @return false when the time is over */
bool Follow::waitForSwitch(const SessionError& problem, Deadline deadline) {
    if (!isAway_) {
        std::cerr << "evctl: " << problem.what() << "; waiting for it to come back\n";
    }
    isAway_ = true;
    const Clock::time_point next = Clock::now() + RETRIED_EVERY;
    const bool isLast = deadline && *deadline < next;
    const auto time = std::chrono::ceil<std::chrono::milliseconds>(
        std::max((isLast ? *deadline : next) - Clock::now(), Clock::duration::zero()));
    struct pollfd ends[2] = {{.fd = STDOUT_FILENO, .events = 0, .revents = 0},
                             {.fd = Stop::descriptor(), .events = POLLIN, .revents = 0}};
    if (poll(ends, std::size(ends), static_cast<int>(time.count())) > 0) {
        ends[1].revents != 0 ? throw Stopped()
                             : throw ReaderGone("nobody reads standard output any more");
    }
    status_ = isLast && options_.limit() != 0 ? int{tools::EXIT_FINDING} : status_;
    return !isLast;
}

void Follow::readAll(Deadline deadline) {
    for (bool isOver = false; !isOver;) {
        try {
            beginAnew();
            goOn(deadline);
            isOver = true;
        } catch (const SessionError& problem) {
            if (!options_.retry) {
                throw;
            }
            isOver = !waitForSwitch(problem, deadline);
        }
    }
}

int Follow::run() {
    std::optional<Stop> stop;
    if (options_.listing.showCursor || !options_.listing.cursorFile.empty()) {
        stop.emplace();
    }
    try {
        readAll(deadlineOf(options_));
    } catch (const Stopped&) {
        tellCursor();
        Stop::obey();
    }
    tellCursor();
    return status_;
}

int runFollow(const FollowOptions& options) {
    refuseWithoutEnd(options.listing);
    if ((fcntl(STDOUT_FILENO, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        throw std::runtime_error("cannot write standard output");
    }
    // Whoever reads the lines may go at any time: that is met as a failed write.
    signal(SIGPIPE, SIG_IGN);
    try {
        return Follow(options).run();
    } catch (const ReaderGone&) {
        std::cout.clear();
        return options.limit() == 0 ? tools::EXIT_DONE : tools::EXIT_FINDING;
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
    ListingOptions& listing = options->listing;
    addListingOptions(command, listing);
    addLogChoice(command, listing.filter.logs);
    describeWithoutEnd(command);
    command.add_flag("--refill", options->refill,
                     "Ask the event manager for events of its log that did not come; without it a "
                     "gap in the sequence ids is only said");
    command.add_flag("--retry", options->retry,
                     "When the message switch goes, wait for it to come back, and go on behind the "
                     "last event that came");
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
