/** evctl walk: all events of a log, asked for one after the other. */
#include "evctl/commands.h"
#include "evctl/follow/copies.h"
#include "evctl/follow/walk_start.h"
#include "evctl/listing/listing.h"
#include "evctl/wire/event_message.h"
#include "evctl/wire/inquiry.h"
#include "evctl/wire/stop.h"

#include <algorithm>
#include <charconv>
#include <iostream>

namespace evctl {
namespace {

constexpr char WALK_EXAMPLES[] =
    "Examples:\n"
    "  evctl walk --key 0x1234 --type error\n"
    "  evctl walk --dir /tmp/msm --after 1:4711 --follow --json\n"
    "  evctl walk --key 0x1234 --enclosure ENC-2 --blade BLADE-9 --slot 1 \\\n"
    "      --instance 1";

struct WalkOptions {
    RequestOptions request;
    IdentityOptions identity;
    std::optional<U32_t> after; // its instance is in identity
    bool follow = false;
    ListingOptions listing;
};

class Walk {
  public:
    Walk(const WalkOptions& options, Copies* copies)
        : options_(options), copies_(copies), requester_(options.request),
          listing_(options.listing, false, copies != nullptr) {}

    int run();

  private:
    int readAll();
    int walkOn();
    bool findStart();
    bool goBehind(const Cursor& cursor);
    bool beginWithFirst();
    bool show(Bytes message, const EventView& event);
    int end(const InquiryAnswer& refusal);
    void follow();
    std::string whereToGoOn() const;

    const WalkOptions& options_;
    Copies* copies_; // nothing: does not follow
    Requester requester_;
    Listing listing_;
    LogPosition shown_;
    bool started_ = false; // shown_.sequenceId means something
    bool isRead_ = true;   // what comes is wanted
};

std::string Walk::whereToGoOn() const {
    return "; go on with --after " + std::to_string(shown_.log.instance) + ":" +
           std::to_string(shown_.sequenceId);
}

/** @param event leads into @p message @return false when nobody reads any more */
bool Walk::show(Bytes message, const EventView& event) {
    sources::Event shown;
    shown.view = event;
    shown.storage = std::make_shared<const Bytes>(std::move(message)); // its bytes stay in place
    isRead_ = listing_.take(std::move(shown));
    return isRead_;
}

/** @return false when there is no first event, which has been said */
bool Walk::beginWithFirst() {
    bool named = options_.identity.given();
    InquiryAnswer first =
        inquire(requester_, EMP_E_INQUIRY_TYPE_FIRST, named ? shown_.log : LogIdentity{}, 0);
    if (!first.found()) {
        sayNotFound(first);
        return false;
    }
    // For its own enclosure and slot the event manager answers whatever the blade and instance are.
    if (named && identityOf(*first.event().header) != shown_.log) {
        std::cerr << "evctl: the first event that came is of another log\n";
        return false;
    }
    EventView event = first.event();
    shown_.moveTo(*event.header);
    started_ = true;
    show(std::move(first.message), event);
    return true;
}

/** @return false when the walk has to begin with the first event */
bool Walk::goBehind(const Cursor& cursor) {
    std::optional<WalkStart> start = startBehind(requester_, shown_.log, cursor);
    if (!start) {
        return false;
    }
    shown_.sequenceId = start->sequenceId;
    started_ = true;
    if (start->event && options_.listing.inclusive) {
        EventView event = start->event->event();
        show(std::move(start->event->message), event);
    }
    return true;
}

/** @return false when there is no first event, which has been said */
bool Walk::findStart() {
    shown_.log = resolveIdentity(requester_, options_.identity, options_.request.where);
    if (options_.after) {
        shown_.sequenceId = *options_.after;
        started_ = true;
        return true;
    }
    std::optional<Cursor> cursor = startCursor(options_.listing);
    return (cursor && goBehind(*cursor)) || beginWithFirst();
}

/**
 * No next event: either the log ends here, or nobody is asked any more. Then the event that the
 * walk stands on, which is there for certain, is not to be had either.
 */
int Walk::end(const InquiryAnswer& refusal) {
    if (refusal.returnCode != EMP_E_RESPONSE_FAILURE) {
        return sayNotFound(refusal, whereToGoOn());
    }
    InquiryAnswer here =
        inquire(requester_, EMP_E_INQUIRY_TYPE_EXACT, shown_.log, shown_.sequenceId);
    if (here.found()) {
        return tools::EXIT_DONE;
    }
    std::cerr
        << "evctl: the event manager refuses further inquiries about this log (no archiver, or "
           "64 relayed in its life already), or event "
        << shown_.sequenceId << " is gone" << whereToGoOn() << "\n";
    return tools::EXIT_FINDING;
}

int Walk::walkOn() {
    while (isRead_) {
        if (copies_ != nullptr) {
            copies_->takeIn(shown_);
        }
        InquiryAnswer answer =
            inquire(requester_, EMP_E_INQUIRY_TYPE_NEXT, shown_.log, shown_.sequenceId);
        if (!answer.found()) {
            return end(answer);
        }
        EventView event = answer.event();
        if (event.header->evSequenceId <= shown_.sequenceId) {
            return tools::EXIT_DONE;
        }
        shown_.moveTo(*event.header);
        show(std::move(answer.message), event);
    }
    return tools::EXIT_DONE;
}

void Walk::follow() {
    isRead_ = isRead_ && listing_.goLive();
    while (isRead_) {
        std::optional<Bytes> message = copies_->next(shown_, listing_.cursorDue());
        if (!message) {
            listing_.keepCursor();
            continue;
        }
        EventView event{};
        readEventMessage(*message, &event);
        shown_.moveTo(*event.header);
        show(*std::move(message), event);
    }
}

int Walk::readAll() {
    try {
        if (!findStart()) {
            return tools::EXIT_FINDING;
        }
        const int status = walkOn();
        if (status == tools::EXIT_DONE && copies_ != nullptr) {
            follow();
        }
        return status;
    } catch (const SessionError& problem) {
        throw SessionError(problem.what() + (started_ ? whereToGoOn() : ""));
    }
}

int Walk::run() {
    std::optional<Stop> stop;
    const ListingOptions& listing = options_.listing;
    if (copies_ != nullptr && (listing.showCursor || !listing.cursorFile.empty())) {
        stop.emplace();
    }
    try {
        const int status = readAll();
        return started_ ? std::max(status, listing_.finish()) : status;
    } catch (const Stopped&) {
        listing_.finish();
        Stop::obey();
    }
}

int runWalk(const WalkOptions& options) {
    std::optional<Copies> copies;
    if (options.follow) {
        refuseWithoutEnd(options.listing);
        // Before anything is asked: what the walk does not find any more comes as a copy.
        copies.emplace(switchDirectory(options.request.where));
    }
    return Walk(options, copies ? &*copies : nullptr).run();
}

void parseAfter(const std::string& text, WalkOptions& options) {
    auto number = [&text](const std::string& part) {
        U32_t value = 0;
        const char* end = part.data() + part.size();
        auto [stop, error] = std::from_chars(part.data(), end, value);
        if (error != std::errc() || stop != end) {
            throw CLI::ValidationError("--after", "'" + text + "' is not INSTANCE:ID");
        }
        return value;
    };
    size_t colon = text.find(':');
    options.identity.instance = number(text.substr(0, colon));
    options.after = number(colon == std::string::npos ? "" : text.substr(colon + 1));
}

} // namespace

void addWalkCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<WalkOptions>();
    CLI::App& command =
        addCommand(parent, "walk", "Print all events of a log, oldest first.", WALK_EXAMPLES);
    addRequestOptions(command, options->request);
    addIdentityOptions(command, options->identity);
    command
        .add_option_function<std::string>(
            "--after", [options](const std::string& text) { parseAfter(text, *options); },
            "Begin behind this event instead of with the first one")
        ->type_name("INSTANCE:ID")
        ->excludes("--instance");
    addListingOptions(command, options->listing);
    command.add_flag(
        "-f,--follow", options->follow,
        "Go on with new events as the event manager takes them in, without an end: not "
        "with -r and --around");
    for (const char* start : {"--cursor", "--after-cursor", "--cursor-file"}) {
        command.get_option("--after")->excludes(command.get_option(start));
    }
    onChosen(command, chosen, options, runWalk);
}

} // namespace evctl
