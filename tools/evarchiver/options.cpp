#include "options.h"

#include "common/cli.h"

#include <charconv>

namespace evarchive {
namespace {

constexpr char FOOTER[] =
    "SIGINT or SIGTERM ends the archiver: it commits, prints a summary and exits, with 1 when\n"
    "ids are missing, a stream lost its message borders, a log counted again from the start, or\n"
    "the archive was full.\n\n"
    "Example:\n"
    "  evarchiver --listen 4711 --db /var/lib/evarchiver/events.db";

const std::map<std::string, Clear> CLEAR_NAMES = {{"all-but-newest", Clear::ALL_BUT_NEWEST},
                                                  {"all", Clear::ALL}};

const std::map<std::string, U16_t> ANSWER_NAMES = {
    {"all", 0}, {"inquiries", EMP_E_MSGS_LOG}, {"status", EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS}};

U16_t portOf(const std::string& text) {
    U16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc{} || stopped != end) {
        throw std::invalid_argument("'" + text + "' is no port, 0 to 65535");
    }
    return port;
}

std::string checkEndpoint(const std::string& text) {
    try {
        endpointOf(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

void addMainOptions(CLI::App& app, Options& options, std::string& listen, unsigned& progress) {
    app.add_option("--listen", listen,
                   "Where blades connect: PORT, ADDRESS:PORT or [ADDRESS]:PORT; port 0 takes a "
                   "free one, which the first line of output names")
        ->required()
        ->check(checkEndpoint);
    app.add_option("--db", options.database, "The archive, a file; made if it does not exist")
        ->required();
    app.add_option("--clear", options.archive.clear,
                   "Ask each blade, once, to drop from its own log what the archive holds")
        ->transform(CLI::CheckedTransformer(CLEAR_NAMES))
        ->option_text("all-but-newest|all");
    app.add_option("--progress", progress, "Seconds between progress lines; 0: none")
        ->capture_default_str();
}

void addLimits(CLI::App& app, Options& options) {
    CLI::Option_group* limits = app.add_option_group("Limits");
    limits
        ->add_option("--row-limit", options.archive.rowLimit,
                     "Events kept at most; a link that brings more is closed")
        ->capture_default_str();
    limits->add_option("--connection-limit", options.connectionLimit, "Links at a time")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    limits
        ->add_option("--answer-limit", options.answerLimit,
                     "Bytes of answers that wait for one blade to read, before its link is closed")
        ->check(CLI::Range(8192, 1'073'741'824))
        ->capture_default_str();
    limits->add_option("--batch", options.archive.batch, "Events to a transaction at most")
        ->check(CLI::Range(1, 1'000'000))
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

} // namespace

asio::ip::tcp::endpoint endpointOf(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return {asio::ip::tcp::v4(), portOf(text)};
    }
    std::string address = text.substr(0, colon);
    if (address.size() > 1 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
    }
    asio::error_code error;
    const auto parsed = asio::ip::make_address(address, error);
    if (error) {
        throw std::invalid_argument("'" + address + "' is no IP address");
    }
    return {parsed, portOf(text.substr(colon + 1))};
}

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    std::string listen;
    unsigned progress = 10;
    unsigned late = 0;
    CLI::App app("An Event Archiver: takes the events of any number of blades, keeps them, and\n"
                 "answers the blades' inquiries.",
                 "evarchiver");
    tools::setUpCommandLine(app, FOOTER);
    addMainOptions(app, options, listen, progress);
    addLimits(app, options);
    addTestSwitches(app, options, late);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    options.listen = endpointOf(listen);
    options.progress = std::chrono::seconds(progress);
    options.misbehaviour.late = std::chrono::milliseconds(late);
    return options;
}

} // namespace evarchive
