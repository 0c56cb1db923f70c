/** evctl get: one stored event, or a few of them. */
#include "evctl/commands.h"
#include "evctl/follow/walk_start.h"
#include "evctl/listing/listing.h"
#include "evctl/wire/inquiry.h"

#include <algorithm>
#include <deque>
#include <iostream>

namespace evctl {
namespace {

constexpr char GET_EXAMPLES[] =
    "Examples:\n"
    "  evctl get last --key 0x1234\n"
    "  evctl get last -n 5 --type error --source disk\n"
    "  evctl get last --around crash\n"
    "  evctl get first --cursor-file seen --json\n"
    "  evctl get next 4711 --dir /tmp/msm --json\n"
    "  evctl get first --key 0x1234 --enclosure ENC-2 --blade BLADE-9 --slot 1 \\\n"
    "      --instance 1";

struct GetOptions {
    EMP_INQUIRY_TYPE_e type;
    RequestOptions request;
    IdentityOptions identity;
    U32_t sequenceId = 0;
    ListingOptions listing;

    bool isBackwards() const {
        return type == EMP_E_INQUIRY_TYPE_LAST || type == EMP_E_INQUIRY_TYPE_PREVIOUS;
    }
    /** How many events are wanted; nothing: all there are. */
    std::optional<U64_t> count() const {
        if (listing.around) {
            return std::nullopt;
        }
        return listing.first ? listing.first : listing.last.value_or(1);
    }
};

/** Looks for events from the asked one on, one way. */
class Search {
  public:
    explicit Search(const GetOptions& options) : options_(options), requester_(options.request) {}

    /** @return the exit status */
    int run();

  private:
    void prepare();
    InquiryAnswer begin();
    bool isBehindCursor(const InquiryAnswer& answer) const;
    bool isEnough(U32_t sequenceId) const;
    InquiryAnswer step(U32_t sequenceId);
    void keep(InquiryAnswer answer);
    int list();

    const GetOptions& options_;
    Requester requester_;
    LogIdentity identity_;
    std::optional<U32_t> behind_;     // of a cursor: no event up to this id
    std::optional<U32_t> oldest_;     // nothing before it is asked for
    std::deque<InquiryAnswer> found_; // oldest first
    U64_t matching_ = 0;
};

/** The event manager answers these about its own log when no enclosure is named. */
bool needsNoIdentity(const GetOptions& options) {
    return !options.identity.given() &&
           (options.type == EMP_E_INQUIRY_TYPE_FIRST || options.type == EMP_E_INQUIRY_TYPE_LAST);
}

void Search::prepare() {
    const std::optional<Cursor> cursor = startCursor(options_.listing);
    if (cursor || !needsNoIdentity(options_)) {
        identity_ = resolveIdentity(requester_, options_.identity, options_.request.where);
    }
    if (std::optional<WalkStart> start =
            cursor ? startBehind(requester_, identity_, *cursor) : std::nullopt) {
        const bool isWanted = start->event && options_.listing.inclusive;
        behind_ = isWanted && start->sequenceId > 0 ? start->sequenceId - 1 : start->sequenceId;
    }
    // Beyond what it holds itself the event manager asks its archiver, which it does 64 times in
    // its life: that is not for many events.
    if (options_.isBackwards() && options_.count() != 1U && !options_.identity.given()) {
        InquiryAnswer first = inquire(requester_, EMP_E_INQUIRY_TYPE_FIRST, {}, 0);
        if (first.found()) {
            oldest_ = first.event().header->evSequenceId;
        }
    }
}

InquiryAnswer Search::begin() {
    const bool isForwards =
        options_.type == EMP_E_INQUIRY_TYPE_FIRST || options_.type == EMP_E_INQUIRY_TYPE_NEXT;
    if (behind_ && isForwards) {
        return inquire(requester_, EMP_E_INQUIRY_TYPE_NEXT, identity_,
                       std::max(*behind_, options_.sequenceId));
    }
    return inquire(requester_, options_.type, identity_, options_.sequenceId);
}

bool Search::isBehindCursor(const InquiryAnswer& answer) const {
    return !behind_ || answer.event().header->evSequenceId > *behind_;
}

/** @param sequenceId of the event that was found last */
bool Search::isEnough(U32_t sequenceId) const {
    const bool isOldest = options_.isBackwards() && oldest_ && sequenceId <= *oldest_;
    return isOldest || options_.type == EMP_E_INQUIRY_TYPE_EXACT || matching_ == options_.count();
}

/** @return the next one, one that was not found when the inquiry has not come on: one about another
 * log may be answered again and again */
InquiryAnswer Search::step(U32_t sequenceId) {
    InquiryAnswer answer = inquire(
        requester_, options_.isBackwards() ? EMP_E_INQUIRY_TYPE_PREVIOUS : EMP_E_INQUIRY_TYPE_NEXT,
        identity_, sequenceId);
    if (!answer.found()) {
        return answer;
    }
    const U32_t next = answer.event().header->evSequenceId;
    const bool hasComeOn = options_.isBackwards() ? next < sequenceId : next > sequenceId;
    return hasComeOn ? answer : InquiryAnswer{};
}

void Search::keep(InquiryAnswer answer) {
    matching_ += options_.listing.filter.matches(answer.event()) ? 1 : 0;
    if (options_.isBackwards()) {
        found_.push_front(std::move(answer));
    } else {
        found_.push_back(std::move(answer));
    }
}

int Search::list() {
    ListingOptions options = options_.listing;
    if (!options.around) {
        options.first.reset(); // what was found is as many as are wanted
        options.last.reset();
    }
    Listing listing(options, false);
    for (InquiryAnswer& answer : found_) {
        sources::Event event;
        event.view = answer.event();
        event.storage = std::make_shared<const Bytes>(std::move(answer.message));
        if (!listing.take(std::move(event))) {
            break;
        }
    }
    return listing.finish();
}

int Search::run() {
    prepare();
    InquiryAnswer answer = begin();
    while (answer.found() && isBehindCursor(answer)) {
        const U32_t id = answer.event().header->evSequenceId;
        identity_ = identityOf(*answer.event().header);
        keep(std::move(answer));
        answer = isEnough(id) ? InquiryAnswer{} : step(id);
    }
    if (matching_ > 0 || (options_.listing.around && !found_.empty())) {
        return list();
    }
    if (answer.found() || answer.returnCode == 0) {
        std::cerr << "evctl: there is no such event\n";
        return tools::EXIT_FINDING;
    }
    return sayNotFound(answer);
}

int runGet(const GetOptions& options) {
    if (options.type == EMP_E_INQUIRY_TYPE_EXACT && options.listing.around) {
        throw std::runtime_error(
            "--around: 'get exact' asks for one event; 'evctl walk' has its neighbours");
    }
    return Search(options).run();
}

struct Mode {
    const char* name;
    EMP_INQUIRY_TYPE_e type;
    bool takesId;
    const char* description;
};

constexpr Mode MODES[] = {
    {"first", EMP_E_INQUIRY_TYPE_FIRST, false, "The oldest event."},
    {"last", EMP_E_INQUIRY_TYPE_LAST, false, "The newest event."},
    {"next", EMP_E_INQUIRY_TYPE_NEXT, true, "The first event after a sequence id."},
    {"previous", EMP_E_INQUIRY_TYPE_PREVIOUS, true, "The last event before a sequence id."},
    {"exact", EMP_E_INQUIRY_TYPE_EXACT, true, "The event with a sequence id."},
};

void addMode(CLI::App& group, Chosen& chosen, const Mode& mode) {
    auto options = std::make_shared<GetOptions>();
    options->type = mode.type;
    CLI::App& command = addCommand(group, mode.name, mode.description, GET_EXAMPLES);
    if (mode.takesId) {
        command.add_option("ID", options->sequenceId, "Sequence id")
            ->type_name("NUMBER")
            ->check(tools::wholeNumber(0, UINT32_MAX))
            ->required();
    }
    addRequestOptions(command, options->request);
    addIdentityOptions(command, options->identity);
    addListingOptions(command, options->listing);
    command.get_option("--last")->description("So many events instead of one, also with +");
    onChosen(command, chosen, options, runGet);
}

} // namespace

void addGetCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "get", "Ask the event manager for stored events.");
    for (const Mode& mode : MODES) {
        addMode(group, chosen, mode);
    }
}

} // namespace evctl
