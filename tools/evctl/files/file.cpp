/** evctl file: event log files, read without the event manager and without a change. */
#include "evctl/files/file.h"

#include "common/text.h"
#include "configuration.h"
#include "evctl/commands.h"
#include "evlog/guess.h"

#include <algorithm>
#include <iostream>
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

std::string ownLog(const KeyOptions& block) {
    try {
        const MPU_PARAMS_t& params = attachParams(block);
        return tools::fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)) +
               EMP_LOG_FILE_NAME;
    } catch (const std::runtime_error& problem) {
        throw std::runtime_error(std::string("no FILE is named; ") + problem.what());
    }
}

void addFileArgument(CLI::App& command, std::string& path, BladeOfFile* blade) {
    const std::string named = blade != nullptr ? "of --key, else of EVCTL_KEY" : "of EVCTL_KEY";
    command.add_option("FILE", path,
                       "The event log file; it is only read. Without it the log of the blade " +
                           named + ", or of the only one that runs here");
    command.parse_complete_callback([&path, blade] {
        if (!path.empty()) {
            return;
        }
        try {
            path = blade != nullptr ? ownLog(blade->block) : ownLog();
            if (blade != nullptr) {
                blade->isOwnLog = true;
            }
        } catch (const std::runtime_error& problem) {
            throw CLI::ValidationError(problem.what());
        }
    });
}

std::vector<sources::LogFile> loadLogFiles(const std::string& path, int* status) {
    std::vector<std::string> notices;
    std::vector<sources::LogFile> files = sources::loadLogFiles(path, &notices);
    for (const std::string& notice : notices) {
        std::cerr << "evctl: " << tools::shownLine(notice) << "\n";
    }
    if (status != nullptr && !notices.empty()) {
        *status = std::max<int>(*status, tools::EXIT_FINDING);
    }
    return files;
}

sources::LogFile* logAmong(std::vector<sources::LogFile>& files) {
    auto place = std::ranges::find_if(files, [](const sources::LogFile& file) {
        return !file.isMember || file.name.ends_with(&EMP_LOG_FILE_NAME[1]);
    });
    return place == files.end() ? nullptr : &*place;
}

sources::LogFile loadLogFile(const std::string& path, int* status) {
    std::vector<sources::LogFile> files = loadLogFiles(path, status);
    sources::LogFile* log = logAmong(files);
    if (log == nullptr) {
        throw std::runtime_error(path + ": a bundle without a log");
    }
    return std::move(*log);
}

EvlogImage_t loadAnyLog(const std::string& path, int* status) {
    return loadLogFile(path, status).image;
}

void requireLog(const std::string& name, const EvlogImage_t& image) {
    if (!evlogIsLog(image)) {
        throw std::runtime_error(name + ": no event log; it is " + evlogGuess(image));
    }
}

EvlogImage_t loadLog(const std::string& path, int* status) {
    EvlogImage_t image = loadAnyLog(path, status);
    requireLog(path, image);
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
