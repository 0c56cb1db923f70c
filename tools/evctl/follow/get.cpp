/** evctl get: one stored event. */
#include "evctl/commands.h"
#include "evctl/filters/event_filter.h"
#include "evctl/views/event_output.h"
#include "evctl/wire/inquiry.h"

#include <iostream>

namespace evctl {
namespace {

constexpr char GET_EXAMPLES[] =
    "Examples:\n"
    "  evctl get last --key 0x1234\n"
    "  evctl get last --type error --source disk\n"
    "  evctl get next 4711 --dir /tmp/msm --json\n"
    "  evctl get first --key 0x1234 --enclosure ENC-2 --blade BLADE-9 --slot 1 \\\n"
    "      --instance 1";

struct GetOptions {
    EMP_INQUIRY_TYPE_e type;
    RequestOptions request;
    IdentityOptions identity;
    U32_t sequenceId = 0;
    EventFilter filter;
    OutputOptions output;
};

/** The event manager answers these about its own log when no enclosure is named. */
bool needsNoIdentity(const GetOptions& options) {
    return !options.identity.given() &&
           (options.type == EMP_E_INQUIRY_TYPE_FIRST || options.type == EMP_E_INQUIRY_TYPE_LAST);
}

/** Which way an event is looked for that the filters match. */
EMP_INQUIRY_TYPE_e stepOf(EMP_INQUIRY_TYPE_e type) {
    bool isBackwards = type == EMP_E_INQUIRY_TYPE_LAST || type == EMP_E_INQUIRY_TYPE_PREVIOUS;
    return isBackwards ? EMP_E_INQUIRY_TYPE_PREVIOUS : EMP_E_INQUIRY_TYPE_NEXT;
}

/** Whether an inquiry has come on: one about another log may be answered again and again. */
bool hasComeOn(EMP_INQUIRY_TYPE_e step, U32_t from, U32_t to) {
    return step == EMP_E_INQUIRY_TYPE_PREVIOUS ? to < from : to > from;
}

int sayNoMatch() {
    std::cerr << "evctl: there is no such event\n";
    return tools::EXIT_FINDING;
}

int runGet(const GetOptions& options) {
    Requester requester(options.request);
    LogIdentity identity;
    if (!needsNoIdentity(options)) {
        identity = resolveIdentity(requester, options.identity, options.request.where);
    }
    InquiryAnswer answer = inquire(requester, options.type, identity, options.sequenceId);
    EMP_INQUIRY_TYPE_e step = stepOf(options.type);
    while (answer.found() && !options.filter.matches(answer.event())) {
        if (options.type == EMP_E_INQUIRY_TYPE_EXACT) {
            return sayNoMatch();
        }
        U32_t id = answer.event().header->evSequenceId;
        identity = identityOf(*answer.event().header);
        answer = inquire(requester, step, identity, id);
        if (answer.found() && !hasComeOn(step, id, answer.event().header->evSequenceId)) {
            return sayNoMatch();
        }
    }
    if (!answer.found()) {
        return sayNotFound(answer);
    }
    EventPrinter(options.output).printNow(answer.event());
    return tools::EXIT_DONE;
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
            ->required();
    }
    addRequestOptions(command, options->request);
    addIdentityOptions(command, options->identity);
    addZoneOption(command, options->output.zone);
    addFilterOptions(command, options->filter, &options->output.zone);
    addOutputOptions(command, options->output);
    onChosen(command, chosen, options, runGet);
}

} // namespace

void addGetCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "get", "Ask the event manager for one stored event.");
    for (const Mode& mode : MODES) {
        addMode(group, chosen, mode);
    }
}

} // namespace evctl
