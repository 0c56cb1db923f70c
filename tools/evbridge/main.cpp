#include "bridge.h"
#include "common/cli.h"
#include "common/descriptors.h"
#include "common/say.h"
#include "lines.h"

namespace {

constexpr char FOOTER[] =
    "Each event is handed on at least once, in the order of its log: what the receiver has\n"
    "taken is noted in the cursor file, and a new start goes on from there.\n\n"
    "Examples:\n"
    "  evbridge --from /var/lib/evarchiver/events.db --to journal --cursor /var/lib/evbridge/journal\n"
    "  evbridge --from events.db --to syslog:tcp:192.0.2.9:601 --cursor c --type error";

void say(evarchive::Level level, const std::string& text) {
    evarchive::writeLine(evarchive::stampedLine(level, text, time(nullptr)));
}

} // namespace

namespace evbridge {

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    U32_t interval = 2;
    CLI::App app("Hands the events of an archive or a log on to syslog or the journal.",
                 "evbridge");
    tools::setUpCommandLine(app, FOOTER);
    app.add_option(
           "--from", options.from,
           "An archive, a file or postgresql://..., or the log file of a blade, which may be "
           "running")
        ->required();
    app.add_option(
           "--to", options.to,
           "syslog:unix:PATH, syslog:udp:ADDRESS:PORT or syslog:tcp:ADDRESS:PORT (RFC 5424), "
           "journal or journal:PATH")
        ->required();
    app.add_option("--cursor", options.cursor, "The file that says how far events were handed on")
        ->required();
    app.add_option("--interval", interval, "Seconds between two looks for new events")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_flag("--once", options.once, "End when everything has been handed on");
    app.add_flag("--skip-old", options.skipOld,
                 "Without a cursor: leave out what is there, begin with what comes from now on");
    evctl::addFilterOptions(app, options.filter);
    evctl::addLogChoice(app, options.filter.logs);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    options.interval = std::chrono::seconds(interval);
    return options;
}

} // namespace evbridge

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        const auto options = evbridge::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        return evbridge::runBridge(std::get<evbridge::Options>(options), say);
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evbridge", error.what());
    }
}
