#include "common/cli.h"
#include "common/descriptors.h"
#include "common/say.h"
#include "server.h"
#include "sqlite_store.h"

#include <exception>

namespace {

using evarchive::Archive;
using evarchive::Options;

void say(const std::string& line) {
    tools::sayPlain(line);
}

int summarise(Archive& archive, const evarchive::SessionCounts& sessions) {
    const evarchive::ArchiveCounts& counts = archive.counts();
    const U64_t gaps = archive.countGaps();
    say("summary: " + progressLine(counts, sessions) + ", " + std::to_string(gaps) + " gaps");
    const bool hasFinding =
        gaps + counts.generations + counts.refused + sessions.bordersLost + sessions.givenUp > 0;
    return hasFinding ? tools::EXIT_FINDING : tools::EXIT_DONE;
}

int serve(const Options& options) {
    const auto store = evarchive::openArchive(options.database);
    Archive archive(*store, options.archive, say);
    evarchive::Server server(options, archive, say);
    server.run();
    return summarise(archive, server.counts());
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        const auto options = evarchive::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        return serve(std::get<Options>(options));
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evarchiver", error.what());
    }
}
