#include "options.h"

#include "common/cli.h"
#include "evctl/wire/blade_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace evbridge {
namespace {

constexpr char FOOTER[] =
    "Each event is handed on at least once, in the order in which it came: what the receiver\n"
    "has taken is noted in the cursor file, and a new start goes on from there.\n\n"
    "Examples:\n"
    "  evbridge --from archive /var/lib/evarchiver/events.db --to journal \\\n"
    "    --cursor /var/lib/evbridge/journal\n"
    "  evbridge --from blade 0x1234 --to syslog:relp:192.0.2.9:2514 --cursor c --type error";

const std::map<std::string, FeedOptions::Kind> KINDS = {{"archive", FeedOptions::Kind::ARCHIVE},
                                                        {"log", FeedOptions::Kind::LOG},
                                                        {"blade", FeedOptions::Kind::BLADE}};

int keyOf(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long key = strtol(text.c_str(), &end, 0);
    if (errno != 0 || text.empty() || *end != '\0' || key < evctl::KEY_MIN || key > INT32_MAX) {
        throw CLI::ValidationError("--from", "'" + text + "' is not a key: a number from 100 on");
    }
    return static_cast<int>(key);
}

FeedOptions fromOf(const std::vector<std::string>& words) {
    if (words.size() == 1) {
        return {.place = words.front()};
    }
    const auto kind = KINDS.find(words.front());
    if (kind == KINDS.end()) {
        throw CLI::ValidationError("--from",
                                   "'" + words.front() + "' is none of archive, log and blade");
    }
    if (kind->second == FeedOptions::Kind::BLADE) {
        return {.kind = kind->second, .key = keyOf(words.back())};
    }
    return {.kind = kind->second, .place = words.back()};
}

void addEnds(CLI::App& app, Options& options) {
    app.add_option_function<std::vector<std::string>>(
           "--from",
           [&options](const std::vector<std::string>& words) { options.from = fromOf(words); },
           "archive PLACE (a file or postgresql://...), log FILE (of a blade, which may be "
           "running) or blade KEY (of its parameter block, 0x for hexadecimal); a file alone is an "
           "archive or a log by what is in it")
        ->required()
        ->expected(1, 2)
        ->option_text("[archive|log|blade] PLACE REQUIRED");
    app.add_option("--to", options.sink.to,
                   "syslog:unix:PATH, syslog:udp:ADDRESS:PORT, syslog:tcp:ADDRESS:PORT, "
                   "syslog:tls:ADDRESS:PORT or syslog:relp:ADDRESS:PORT (RFC 5424), "
                   "snmp:ADDRESS:PORT, journal or journal:PATH")
        ->required();
    app.add_option("--cursor", options.cursor, "The file that says how far events were handed on")
        ->required();
}

void addReceiver(CLI::App& app, SinkOptions& sink) {
    CLI::Option_group* group = app.add_option_group("Receiver");
    group
        ->add_option("--enterprise", sink.enterprise,
                     "Private enterprise number under which what we say is ours; 32473 is for "
                     "examples and nobody's")
        ->check(CLI::Range(1U, 4'294'967'295U))
        ->capture_default_str();
    group->add_option("--community", sink.snmp.community, "SNMP: the community")
        ->capture_default_str();
    group
        ->add_option("--rate", sink.snmp.rate,
                     "SNMP: notifications a minute at most; 0: any number")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    group->add_option("--ca", sink.tls.ca,
                      "TLS: the authorities whose certificates are believed: PEM");
    CLI::Option* certificate = group->add_option(
        "--certificate", sink.tls.certificate,
        "TLS: our certificate, and what stands between it and the authority: PEM");
    CLI::Option* key =
        group->add_option("--key", sink.tls.key, "TLS: its key, without a passphrase: PEM");
    certificate->needs(key);
    key->needs(certificate);
    group->add_option("--name", sink.tlsName,
                      "TLS: the name or IP address that the receiver's certificate must be for; "
                      "default: the address of --to");
}

} // namespace

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    double interval = 2;
    int lag = 5;
    int patience = 15;
    CLI::App app(
        "Hands the events of an archive, a log or a blade on to syslog, the journal or SNMP.",
        "evbridge");
    tools::setUpCommandLine(app, FOOTER);
    addEnds(app, options);
    app.add_option("--interval", interval, "Seconds between two looks for new events")
        ->check(tools::decimalNumber(0.05, 3600))
        ->capture_default_str();
    app.add_option("--lag", lag,
                   "An archive on a server: seconds that its clock may be set back, or that of the "
                   "server that takes over be behind; events wait so long")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--patience", patience,
                   "An archive on several servers: seconds that the events of the others wait for "
                   "one that does not answer")
        ->check(CLI::Range(1, 900))
        ->capture_default_str();
    app.add_flag("--once", options.once,
                 "End when everything has been handed on that was there at the start");
    app.add_flag("--skip-old", options.skipOld,
                 "Without a cursor: leave out what is there, begin with what comes from now on");
    addReceiver(app, options.sink);
    evctl::addFilterOptions(app, options.filter);
    evctl::addLogChoice(app, options.filter.logs);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    options.from.lag = std::chrono::seconds(lag);
    options.from.patience = std::chrono::seconds(patience);
    options.interval = std::chrono::milliseconds(std::lround(interval * 1000));
    return options;
}

} // namespace evbridge
