#include "options.h"

#include "common/cli.h"
#include "engine.h"

namespace evweb {
namespace {

constexpr char FOOTER[] =
    "Examples:\n"
    "  evweb --db /var/lib/evarchiver/events.db\n"
    "  evweb --db postgresql://reader@db1,db2/events --listen unix:/run/evweb/evweb.sock \\\n"
    "      --trusted-user-header X-Forwarded-User\n"
    "  evweb --db events.db --listen 192.0.2.1:8480 --token-file /etc/event-manager/evweb.tokens";

/** Values that are given in other forms than they are kept. */
struct Raw {
    std::string listen = "127.0.0.1:8480";
    std::string tokenFile;
    std::string userHeader;
    std::vector<std::string> hosts;
    unsigned patience = 2;
    unsigned exportTime = 60;
};

std::string checkListen(const std::string& text) {
    try {
        listenPlaceOf(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

std::string checkHeader(const std::string& text) {
    constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-";
    const bool isName = !text.empty() && text.find_first_not_of(letters) == std::string::npos;
    return isName ? "" : "'" + text + "' is no name of a header";
}

void addAccess(CLI::App& app, Raw& raw) {
    app.add_option("--token-file", raw.tokenFile,
                   "Tokens that let in, one a line: as bearer tokens, or as the password that a "
                   "browser asks for")
        ->type_name("FILE");
    app.add_option("--trusted-user-header", raw.userHeader,
                   "Header in which a reverse proxy on this host names its user, such as "
                   "X-Forwarded-User; requests without it are refused")
        ->type_name("NAME")
        ->check(checkHeader);
    app.add_option("--host", raw.hosts,
                   "A further name that this server is asked for by; may be given several times")
        ->type_name("NAME");
}

void addLimits(CLI::App& app, Options& options, Raw& raw) {
    app.add_option("--connections", options.connections,
                   "Connections at a time; further ones are refused")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--per-host", options.perHost,
                   "Of these from one address other than this host's; half of them if not given")
        ->check(CLI::Range(1, 1000));
    app.add_option("--query-time", raw.patience,
                   "Seconds after which a question to the archive ends with what there is")
        ->check(CLI::Range(1, 60))
        ->capture_default_str();
    app.add_option("--export-rows", options.site.exportRows, "Events of an export, at most")
        ->check(CLI::Range(1, 10'000'000))
        ->capture_default_str();
    app.add_option("--export-time", raw.exportTime, "Seconds of an export, at most")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
}

/** Names that a page of another origin cannot have its own name lead to. */
std::set<std::string> hostsOf(const Options& options, const Raw& raw) {
    const bool isOnlyByToken = raw.userHeader.empty() && !raw.tokenFile.empty();
    if (isOnlyByToken || !options.listen.path.empty()) {
        return {};
    }
    std::set<std::string> hosts = {"localhost", "127.0.0.1", "[::1]", options.listen.address,
                                   "[" + options.listen.address + "]"};
    hosts.insert(raw.hosts.begin(), raw.hosts.end());
    return hosts;
}

void finish(Options& options, const Raw& raw) {
    options.listen = listenPlaceOf(raw.listen);
    options.perHost = options.perHost > 0 ? options.perHost : (options.connections + 1) / 2;
    options.patience = std::chrono::seconds(raw.patience);
    options.site.exportTime = std::chrono::seconds(raw.exportTime);
    if (!raw.tokenFile.empty()) {
        options.site.access.tokens = readTokens(raw.tokenFile);
    }
    options.site.access.userHeader = lowerCase(raw.userHeader);
    options.site.access.hosts = hostsOf(options, raw);
    if (raw.tokenFile.empty() && !options.listen.isLoopback()) {
        throw std::runtime_error(raw.listen +
                                 " is reached from elsewhere: that needs a --token-file");
    }
}

} // namespace

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    CLI::App app("Shows an event archive in a browser. Nothing is ever written.", "evweb");
    tools::setUpCommandLine(app, FOOTER);
    Options options;
    Raw raw;
    app.add_option("--db", options.database, "The archive: a file, or postgresql://...")
        ->required()
        ->type_name("ARCHIVE")
        ->check(tools::notEmpty());
    app.add_option("--listen", raw.listen,
                   "Where browsers come in: ADDRESS:PORT, PORT (on 127.0.0.1) or unix:PATH")
        ->check(checkListen)
        ->capture_default_str();
    addAccess(app, raw);
    addLimits(app, options, raw);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    try {
        finish(options, raw);
    } catch (const std::runtime_error& error) {
        return tools::sayCouldNot("evweb", error.what());
    }
    return options;
}

} // namespace evweb
