#include "options.h"

#include "common/cli.h"
#include "limit_options.h"

namespace evgate {
namespace {

constexpr char FOOTER[] =
    "SIGHUP reads certificate, key, authorities and map again; links that they no longer allow\n"
    "end, and so do those whose certificate has ended. SIGINT or SIGTERM ends the program.\n\n"
    "Examples:\n"
    "  evgate site --listen 10.1.0.5:4711 --to 192.0.2.7:4712 --name archive.example \\\n"
    "    --certificate site.pem --key site.key --ca ca.pem\n"
    "  evgate archive --listen 4712 --to 127.0.0.1:4711 --map enclosures \\\n"
    "    --certificate archive.pem --key archive.key --ca ca.pem";

/** What is parsed in another form than it is kept. */
struct Parsed {
    std::string listen;
    std::string to;
    unsigned wait = 10;
};

asio::ip::tcp::endpoint toOf(const std::string& text) {
    return evarchive::endpointOf(text, asio::ip::address_v4::loopback());
}

std::string checkTo(const std::string& text) {
    try {
        return toOf(text).port() == 0 ? "port 0 is nobody's" : "";
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

void addPlaces(CLI::App& app, Parsed& parsed, const char* who, const char* whereTo) {
    app.add_option("--listen", parsed.listen,
                   std::string("Where ") + who +
                       ": PORT, ADDRESS:PORT or [ADDRESS]:PORT; port 0 takes a free one, which the "
                       "first line of output names")
        ->required()
        ->check(evarchive::checkEndpoint);
    app.add_option("--to", parsed.to,
                   std::string(whereTo) + ": ADDRESS:PORT, or PORT on the loopback")
        ->required()
        ->check(checkTo);
}

void addFiles(CLI::App& app, TlsFiles& files) {
    app.add_option("--certificate", files.certificate,
                   "The certificate of this end, and what stands between it and the authority: PEM")
        ->required();
    app.add_option("--key", files.key, "Its key, without a passphrase: PEM")->required();
    app.add_option("--ca", files.ca,
                   "The authorities whose certificates are believed: PEM. Nobody else's are")
        ->required();
}

void addLimits(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::Option_group* limits = app.add_option_group("Limits");
    evarchive::addAllowOption(*limits, options.allow);
    evarchive::addLimitOptions(*limits,
                               {.connectionLimit = options.connectionLimit,
                                .hostLimit = options.hostLimit,
                                .handshakeRate = options.handshakeRate},
                               ", two a link");
    limits->add_option("--wait", parsed.wait, "Seconds that a link may take to come to stand")
        ->check(CLI::Range(1, 300))
        ->capture_default_str();
}

CLI::App* addSite(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* site = app.add_subcommand(
        "site", "Take blades in plain TCP, and speak TLS to the archive's end for each");
    addPlaces(*site, parsed, "blades connect", "The archive's end");
    site->add_option("--name", options.name,
                     "The name or IP address that the certificate of the archive's end must be "
                     "for; default: the address of --to");
    addFiles(*site, options.files);
    addLimits(*site, options, parsed);
    site->add_option("--answer-limit", options.answerLimit,
                     "Longest answer in bytes, where segments are larger than the connection says; "
                     "a blade dies of an answer in pieces. Default: what the connection says")
        ->check(CLI::Range(192, 4016));
    site->add_option("--segment-size", options.segmentSize,
                     "For tests: segments of blades' connections in bytes")
        ->check(CLI::Range(88, 32'767));
    return site;
}

CLI::App* addArchive(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* archive =
        app.add_subcommand("archive", "Take TLS from sites, and hand it to the archiver");
    addPlaces(*archive, parsed, "sites connect", "The archiver");
    archive
        ->add_option("--map", options.map,
                     "The file that says which certificate may speak for which enclosures")
        ->required();
    addFiles(*archive, options.files);
    addLimits(*archive, options, parsed);
    return archive;
}

} // namespace

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    Parsed parsed;
    CLI::App app("Carries blades' links to an Event Archiver through TLS 1.3.", "evgate");
    tools::setUpCommandLine(app, FOOTER);
    app.require_subcommand(1);
    addSite(app, options, parsed);
    const CLI::App* archive = addArchive(app, options, parsed);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    options.end = archive->parsed() ? GateEnd::ARCHIVE : GateEnd::SITE;
    options.listen = evarchive::endpointOf(parsed.listen);
    options.to = toOf(parsed.to);
    options.wait = std::chrono::seconds(parsed.wait);
    if (options.name.empty()) {
        options.name = options.to.address().to_string();
    }
    return options;
}

} // namespace evgate
