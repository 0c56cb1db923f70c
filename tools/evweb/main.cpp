#include "common/descriptors.h"
#include "common/exit_status.h"
#include "common/say.h"
#include "engine.h"
#include "options.h"

#include <csignal>

namespace {

std::unique_ptr<evweb::View> viewOf(const evweb::Options& options) {
    if (!evarchive::isPgPlace(options.database)) {
        return evweb::openSqliteView(options.database, options.patience);
    }
#ifdef EVWEB_POSTGRES
    return evweb::openPgView(options.database, options.patience);
#else
    throw std::runtime_error("archives on PostgreSQL are not shown by this program");
#endif
}

// Threads inherit what is blocked: the one that listens takes the signals.
void blockEnds() {
    sigset_t ends{};
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
}

void run(const evweb::Options& options) {
    const std::unique_ptr<evweb::View> view = viewOf(options);
    evweb::Site site(*view, options.site);
    evweb::ServerSettings settings;
    settings.listen = options.listen;
    settings.connections = options.connections;
    settings.perHost = options.perHost;
    settings.lifetime = options.site.exportTime + std::chrono::seconds(60);
    settings.answer = [&site](const evweb::Request& request) { return site.answer(request); };
    settings.say = [](const std::string& line) { tools::say(line); };
    evweb::serve(settings);
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        const auto options = evweb::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        blockEnds();
        run(std::get<evweb::Options>(options));
        return tools::EXIT_DONE;
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evweb", error.what());
    }
}
