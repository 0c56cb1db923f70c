#include "common/descriptors.h"
#include "common/exit_status.h"
#include "evfleet/options.h"

#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>

namespace {

using evfleet::FleetResult;

void printJson(const FleetResult& result) {
    nlohmann::ordered_json json = {{"clean", result.isClean()},
                                   {"connectSeconds", result.connectSeconds},
                                   {"sendSeconds", result.sendSeconds},
                                   {"sent", result.counts.sent},
                                   {"connects", result.counts.connects},
                                   {"failedConnects", result.counts.failedConnects},
                                   {"closedByPeer", result.counts.closedByPeer},
                                   {"statusAnswers", result.counts.handshakes},
                                   {"outages", result.counts.outages},
                                   {"restarts", result.counts.restarts},
                                   {"died", result.counts.died},
                                   {"claimsBeyond", result.counts.claimsBeyond},
                                   {"unsettled", result.unsettled}};
    if (result.isChecked) {
        json["lost"] = result.lost;
        json["held"] = result.check.held;
        json["missing"] = result.check.missing;
        json["twice"] = result.check.twice;
        json["corrupt"] = result.check.corrupt;
        json["unlooked"] = result.check.unlooked;
        json["findings"] = result.check.findings;
    }
    std::cout << json.dump() << "\n";
}

void printText(const FleetResult& result) {
    const evfleet::FleetCounts& counts = result.counts;
    std::printf("%llu events sent in %.2f s, first status answers in %.2f s\n",
                static_cast<unsigned long long>(counts.sent), result.sendSeconds,
                result.connectSeconds);
    std::printf(
        "%llu connections (%llu failed), %llu ended by the archiver, %llu outages, %llu of them "
        "restarts\n",
        static_cast<unsigned long long>(counts.connects),
        static_cast<unsigned long long>(counts.failedConnects),
        static_cast<unsigned long long>(counts.closedByPeer),
        static_cast<unsigned long long>(counts.outages),
        static_cast<unsigned long long>(counts.restarts));
    std::printf("%llu blades died of an answer in pieces, %llu claims beyond a log, %u blades "
                "behind at the end\n",
                static_cast<unsigned long long>(counts.died),
                static_cast<unsigned long long>(counts.claimsBeyond), result.unsettled);
    if (result.isChecked) {
        std::printf("archive: %llu events that had been claimed were lost, %llu could not be "
                    "looked for\n",
                    static_cast<unsigned long long>(result.lost),
                    static_cast<unsigned long long>(result.check.unlooked));
        std::printf("archive: %llu events held, %llu missing, %llu twice, %llu corrupt\n",
                    static_cast<unsigned long long>(result.check.held),
                    static_cast<unsigned long long>(result.check.missing),
                    static_cast<unsigned long long>(result.check.twice),
                    static_cast<unsigned long long>(result.check.corrupt));
        for (const std::string& finding : result.check.findings) {
            std::printf("  %s\n", finding.c_str());
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const auto options = evfleet::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        const auto& asked = std::get<evfleet::FleetOptions>(options);
        evfleet::Fleet fleet(asked, [](const std::string& line) { std::cerr << line << "\n"; });
        const FleetResult result = fleet.run();
        asked.json ? printJson(result) : printText(result);
        return result.isClean() ? tools::EXIT_DONE : tools::EXIT_FINDING;
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evfleet", error.what());
    }
}
