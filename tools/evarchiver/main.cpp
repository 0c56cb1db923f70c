#include "common/descriptors.h"
#include "common/exit_status.h"
#include "common/say.h"
#include "db_command.h"
#include "lines.h"
#include "metrics.h"
#include "server.h"

#include <csignal>

namespace {

using evarchive::Level;
using evarchive::Options;

void say(Level level, const std::string& text) {
    evarchive::writeLine(evarchive::stampedLine(level, text, time(nullptr)));
}

// A service manager ends a program with SIGTERM and expects 0; a person with SIGINT, and wants to
// know.
int statusOf(const evarchive::ServerEnd& end, bool hasFinding) {
    if (!end.failure.empty()) {
        return tools::EXIT_COULD_NOT;
    }
    const bool isWorthTelling = end.signal == SIGINT && hasFinding;
    return isWorthTelling || !end.isSafe ? tools::EXIT_FINDING : tools::EXIT_DONE;
}

int summarise(evarchive::Server& server, const evarchive::ServerEnd& end) {
    const evarchive::ServerState state = server.state();
    const U64_t gaps = end.failure.empty() ? server.countGaps() : 0;
    const evarchive::ArchiveCounts& counts = state.lane.counts;
    const evarchive::SessionCounts& sessions = state.counts.sessions;
    say(Level::INFO,
        "summary: " + progressLine(counts, sessions) + ", " + std::to_string(gaps) + " gaps");
    if (!end.isSafe) {
        say(Level::FAILURE, "not all that came is in the archive; the blades send it again");
    }
    return statusOf(
        end,
        gaps + counts.generations + counts.refused + sessions.bordersLost + sessions.givenUp > 0);
}

int serve(const Options& options) {
    evarchive::Server server(options, say);
    std::optional<evarchive::Metrics> metrics;
    if (options.metrics) {
        metrics.emplace(
            *options.metrics, [&server] { return server.state(); }, options.database);
    }
    const evarchive::ServerEnd end =
        server.run([&options] { return evarchive::engineOf(options.database); });
    return summarise(server, end);
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is as a full disk
    try {
        if (evarchive::isDbCommand(argc, argv)) {
            return evarchive::runDbCommand(argc, argv);
        }
        const auto options = evarchive::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        return serve(std::get<Options>(options));
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evarchiver", error.what());
    }
}
