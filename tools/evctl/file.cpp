/** evctl file: event log files, read without the event manager and without a change. */
#include "evctl/file.h"

#include "evctl/commands.h"
#include "evlog/guess.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace evctl {

void addFileCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group =
        addCommandGroup(parent, "file", "Show, judge and mend event log files, offline.");
    addFileListCommand(group, chosen);
    addFileShowCommand(group, chosen);
    addFileVerifyCommand(group, chosen);
    addFileInfoCommand(group, chosen);
    addFilePredictCommand(group, chosen);
    addFileSalvageCommand(group, chosen);
    addFileGuardCommand(group, chosen);
    addFileMapCommand(group, chosen);
    addFileCrashCommand(group, chosen);
}

void addFileArgument(CLI::App& command, std::string& path) {
    command.add_option("FILE", path, "The event log file; it is only read")->required();
}

EvlogImage_t loadLog(const std::string& path) {
    EvlogImage_t image;
    int error = evlogLoadFile(path.c_str(), &image);
    if (error == EINVAL) {
        throw std::runtime_error(path + ": not a regular file");
    }
    if (error != 0) {
        throw std::runtime_error(path + ": " + strerror(error));
    }
    if (!evlogIsLog(image)) {
        throw std::runtime_error(path + ": no event log; it is " + evlogGuess(image));
    }
    return image;
}

LogContent readLog(const EvlogImage_t& image, const EvlogIdentity_t* identity) {
    LogContent content;
    content.state = evlogWalk(
        image,
        {.onRecord = [&content](const EvlogRecord_t& record) { content.records.push_back(record); },
         .onFinding =
             [&content](const EvlogFinding_t& finding) { content.findings.push_back(finding); }},
        identity);
    return content;
}

int statusOf(const LogContent& content) {
    return content.findings.empty() ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

void sortByAge(std::vector<EvlogRecord_t>& records) {
    std::stable_partition(records.begin(), records.end(), [](const EvlogRecord_t& record) {
        return record.role == EVLOG_E_ROLE_OLDEST;
    });
}

} // namespace evctl
