#include "options.h"

#include "common/cli.h"
#include "engine.h"
#include "limit_options.h"

namespace evarchive {
namespace {

constexpr char FOOTER[] =
    "SIGINT or SIGTERM ends the archiver: it commits, prints a summary and exits. After SIGTERM\n"
    "the status is 0 when all is safe; after SIGINT it is 1 when ids are missing, a stream lost\n"
    "its message borders, a log counted again from the start, or the archive was full.\n\n"
    "Example:\n"
    "  evarchiver --listen 4711 --db /var/lib/evarchiver/events.db";

const std::map<std::string, Clear> CLEAR_NAMES = {{"all-but-newest", Clear::ALL_BUT_NEWEST},
                                                  {"all", Clear::ALL}};

const std::map<std::string, U16_t> ANSWER_NAMES = {
    {"all", 0}, {"inquiries", EMP_E_MSGS_LOG}, {"status", EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS}};

/** What is parsed in another form than it is kept. */
struct Parsed {
    std::string listen;
    std::string metrics;
    unsigned progress = 10;
    unsigned late = 0;
    unsigned firstWait = 10;
    unsigned answerWait = 10;
    unsigned batchWait = 100;
    bool mayStopBlades = false;
};

void addMainOptions(CLI::App& app, Options& options, Parsed& parsed) {
    app.add_option("--listen", parsed.listen,
                   "Where blades connect: PORT, ADDRESS:PORT or [ADDRESS]:PORT; port 0 takes a "
                   "free one, which the first line of output names")
        ->required()
        ->check(checkEndpoint);
    app.add_option("--db", options.database,
                   hasPostgres() ? "The archive: a file, made if it does not exist, or "
                                   "postgresql://..., which several archivers can share"
                                 : "The archive, a file; made if it does not exist. This program "
                                   "was built without PostgreSQL")
        ->required();
    addAllowOption(app, options.allow);
    app.add_option("--metrics", parsed.metrics,
                   "Serve Prometheus metrics at /metrics: PORT on the loopback, or ADDRESS:PORT")
        ->check(checkEndpoint);
    app.add_option("--clear", options.lane.archive.clear,
                   "Ask each blade, once, to drop from its own log what the archive holds. A blade "
                   "whose log has wrapped can stop at its next event then: needs --may-stop-blades")
        ->transform(CLI::CheckedTransformer(CLEAR_NAMES))
        ->option_text("all-but-newest|all");
    app.add_flag("--may-stop-blades", parsed.mayStopBlades, "The second word that --clear needs");
    app.add_option("--progress", parsed.progress, "Seconds between progress lines; 0: none")
        ->capture_default_str();
}

void addRetention(CLI::App& app, Options& options) {
    RetentionSettings& retention = options.lane.retention;
    CLI::Option_group* group = app.add_option_group("What is kept, oldest go first; 0: no bound");
    group->add_option("--keep-days", retention.keepDays, "Days since an event was received")
        ->check(CLI::Range(0, 36'500))
        ->capture_default_str();
    group->add_option("--max-bytes", retention.maxBytes, "Bytes of the archive in use")
        ->capture_default_str();
    group->add_option("--blade-quota", retention.bladeQuota, "Events of one log")
        ->capture_default_str();
    group
        ->add_option("--row-limit", options.lane.archive.rowLimit,
                     "Events in all; a link that brings more is closed")
        ->capture_default_str();
}

void addTimes(CLI::Option_group& limits, Parsed& parsed) {
    limits
        .add_option("--first-wait", parsed.firstWait,
                    "Seconds that a connection may say nothing at first")
        ->check(CLI::Range(1, 300))
        ->capture_default_str();
    limits
        .add_option("--answer-wait", parsed.answerWait,
                    "Seconds that an answer may wait for the archive; then an inquiry is answered "
                    "with return code 3, and a link that waits for its status answer is closed. An "
                    "event manager waits for 15")
        ->check(CLI::Range(1, 14))
        ->capture_default_str();
}

void addLimits(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::Option_group* limits = app.add_option_group("Limits");
    addTimes(*limits, parsed);
    addLimitOptions(*limits, {.connectionLimit = options.connectionLimit,
                              .hostLimit = options.hostLimit,
                              .handshakeRate = options.handshakeRate});
    limits
        ->add_option("--answer-limit", options.answerLimit,
                     "Longest answer in bytes, where segments are larger than the connection says; "
                     "a blade dies of an answer in pieces. Default: what the connection says")
        ->check(CLI::Range(192, 4016));
    limits
        ->add_option("--unsent-limit", options.unsentLimit,
                     "Bytes of answers that wait for blades to read, in all; a link that brings "
                     "more is closed")
        ->check(CLI::Range(U64_t{8192}, U64_t{1} << 40))
        ->capture_default_str();
    limits
        ->add_option("--spool", options.spool,
                     "Bytes of events that wait while the archive cannot be written; above half "
                     "of it no links are taken, above it links are closed")
        ->check(CLI::Range(U64_t{65'536}, U64_t{1} << 40))
        ->capture_default_str();
    limits
        ->add_option("--lanes", options.lanes,
                     "Threads that file events, each with a connection of its own to the archive; "
                     "default: 1 for a file, which has one writer at a time")
        ->check(CLI::Range(1, 64));
    limits->add_option("--batch", options.lane.batch, "Events to a transaction at most")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    limits
        ->add_option("--handshakes", options.lane.handshakes,
                     "Status requests that a lane of a shared archive answers together at most; "
                     "others wait behind them")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    limits
        ->add_option("--batch-wait", parsed.batchWait,
                     "Milliseconds that an event waits at most for others of its transaction")
        ->check(CLI::Range(1, 10'000))
        ->capture_default_str();
}

void addTestSwitches(CLI::App& app, Options& options, unsigned& late) {
    Misbehaviour& bad = options.misbehaviour;
    CLI::Option_group* tests = app.add_option_group("Switches for tests");
    tests->add_flag("--test-refuse", bad.refuse, "Refuse connections");
    tests->add_flag("--test-never-read", bad.neverRead, "Take connections and read nothing");
    tests->add_option("--test-close-after", bad.closeAfter, "Close a link after N messages");
    tests->add_option("--test-late", late, "Answer so many milliseconds late");
    tests->add_flag("--test-twice", bad.twice, "Send every answer twice");
    tests->add_flag("--test-unknown-handle", bad.unknownHandle,
                    "Answer with a handle that nobody asked with");
    tests->add_flag("--test-wrong-version", bad.wrongVersion, "Answer with header version 2");
    tests
        ->add_option("--test-answers", bad.onlyType,
                     "Which answers are late, sent twice or spoilt; default: all")
        ->transform(CLI::CheckedTransformer(ANSWER_NAMES))
        ->option_text("all|inquiries|status");
    tests
        ->add_option("--receive-buffer", options.receiveBuffer,
                     "Bytes of the sockets' receive buffers; default: the system's choice")
        ->check(CLI::Range(1, 1'073'741'824));
    tests
        ->add_option("--segment-size", options.segmentSize,
                     "Largest TCP segment in bytes; a small one keeps a blade's send buffer small")
        ->check(CLI::Range(88, 32'767));
}

// Well below the second that other archivers wait for a log's row.
constexpr std::chrono::milliseconds LONGEST_SHARED_WAIT{500};

/** What an archive that others share does not take from one of them; "": nothing of it is asked
 * for.
 */
std::string refusalOf(const Options& options) {
    if (!isPgPlace(options.database)) {
        return {};
    }
    if (options.lane.archive.clear != Clear::NOTHING) {
        return "--clear is for archives in a file only";
    }
    if (options.lane.batchWait > LONGEST_SHARED_WAIT) {
        return "--batch-wait is at most " + std::to_string(LONGEST_SHARED_WAIT.count()) +
               " for an archive on PostgreSQL: others wait for the logs of a batch";
    }
    if (options.lane.retention.isBound() || options.lane.archive.rowLimit > 0) {
        return "what a shared archive keeps is set with \"evarchiver db maintain\"";
    }
    return {};
}

} // namespace

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    Parsed parsed;
    CLI::App app("An Event Archiver: takes the events of any number of blades, keeps them, and\n"
                 "answers the blades' inquiries.",
                 "evarchiver");
    tools::setUpCommandLine(app, FOOTER);
    addMainOptions(app, options, parsed);
    addRetention(app, options);
    addLimits(app, options, parsed);
    addTestSwitches(app, options, parsed.late);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    if (options.lane.archive.clear != Clear::NOTHING && !parsed.mayStopBlades) {
        return tools::sayCouldNot("evarchiver",
                                  "--clear empties logs on the blades, and a blade whose log has "
                                  "wrapped can stop at its next event; add --may-stop-blades");
    }
    if (options.lanes > 1 && options.lane.archive.rowLimit > 0) {
        return tools::sayCouldNot("evarchiver",
                                  "--row-limit counts what one lane files: not with --lanes");
    }
    options.lane.batchWait = std::chrono::milliseconds(parsed.batchWait);
    if (const std::string why = refusalOf(options); !why.empty()) {
        return tools::sayCouldNot("evarchiver", why);
    }
    options.listen = endpointOf(parsed.listen);
    if (!parsed.metrics.empty()) {
        options.metrics = endpointOf(parsed.metrics, asio::ip::address_v4::loopback());
    }
    options.firstWait = std::chrono::seconds(parsed.firstWait);
    options.answerWait = std::chrono::seconds(parsed.answerWait);
    options.progress = std::chrono::seconds(parsed.progress);
    options.misbehaviour.late = std::chrono::milliseconds(parsed.late);
    return options;
}

} // namespace evarchive
