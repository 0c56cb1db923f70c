#include "evctl/files/salvage.h"

#include "altEventLog.h"
#include "common/text.h"
#include "configuration.h"
#include "evctl/files/file.h"
#include "evctl/files/file_aside.h"
#include "evctl/views/event_view.h"
#include "evlog/guess.h"
#include "sources/alternate_files.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace evctl {
namespace {

/** Also a link that leads nowhere, and what cannot be looked at: who reads it will tell. */
bool isThere(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

} // namespace

void SalvageInputs::add(const std::string& name, std::vector<U8_t> bytes, bool waiting) {
    bytes_.push_back(std::move(bytes));
    sources_.push_back({.bytes = bytes_.back(), .waiting = waiting});
    names_.push_back(name);
}

void SalvageInputs::addAlternates(const std::string& directory) {
    for (sources::AelFile& file : sources::readAelDirectory(directory)) {
        std::string name = directory + "/" + file.name;
        if (file.name.starts_with(EMP_AEL_FILE_PREFIX)) {
            if (file.fate == sources::AelFate::UNKNOWN) {
                passedOver_.add(tools::escapedText(name) + ": " + file.reason);
            } else {
                add(name, std::move(file.bytes), true);
            }
        }
    }
}

void SalvageInputs::addDirectory(const std::string& path) {
    size_t before = sources_.size() + passedOver_.reasons().size();
    // Of two events under one id that of the log counts.
    std::string log = path + EMP_LOG_FILE_NAME;
    std::vector<std::string> logs = logsSetAside(log);
    logs.insert(logs.begin(), {log, path + EMP_DEBUG_LOG_FILE_NAME});
    for (const std::string& file : logs) {
        if (isThere(file)) {
            passedOver_.attempt([&] { addFile(file); });
        }
    }
    for (const std::string& directory : {path, path + EMP_AEL_DIRECTORY_NAME}) {
        if (isThere(directory)) {
            passedOver_.attempt([&] { addAlternates(directory); });
        }
    }
    if (sources_.size() + passedOver_.reasons().size() == before) {
        throw std::runtime_error(
            path + ": a directory without an event log and without alternate event log files");
    }
}

void SalvageInputs::add(const std::string& path) {
    std::error_code error; // told by who opens it
    bool isDirectory = std::filesystem::is_directory(path, error);
    passedOver_.attempt([&] { isDirectory ? addDirectory(path) : addFile(path); });
}

void SalvageInputs::addFile(const std::string& path) {
    std::vector<std::string> notices;
    std::vector<sources::LogFile> files = sources::loadLogFiles(path, &notices);
    for (const std::string& notice : notices) {
        passedOver_.add(notice);
    }
    for (sources::LogFile& file : files) {
        bool waiting = file.kind == sources::Kind::ALTERNATE;
        if (waiting || evlogIsLog(file.image)) {
            add(file.name, std::move(file.image.bytes), waiting);
        } else if (files.size() == 1) {
            requireLog(file.name, file.image);
        } else { // of a bundle the rest is read
            passedOver_.add(file.name + ": no event log, passed over");
        }
    }
}

EvlogSalvage_t salvageTried(std::span<const EvlogSource_t> sources,
                            const EvlogSalvageRules_t& rules) {
    EvlogSalvage_t salvage = evlogSalvage(sources, rules);
    if (salvage.bytes.empty()) {
        return salvage;
    }
    EvlogPrediction_t prediction = evlogPredict(evlogImageOf(salvage.bytes), &salvage.identity);
    if (prediction.state.verdict != EVLOG_E_VERDICT_UNWRAPPED || prediction.bugcheck ||
        prediction.lost != 0 || prediction.taken != salvage.saved + salvage.marks) {
        throw std::runtime_error("what was put together is no sound log; nothing was written");
    }
    return salvage;
}

std::string savedText(const EvlogSalvage_t& salvage) {
    if (salvage.bytes.empty()) {
        return "no event saved";
    }
    std::string text = countText(salvage.saved, "event") + " saved, ids " +
                       std::to_string(salvage.firstId) + " to " + std::to_string(salvage.lastId);
    if (salvage.marks > 0) {
        text += ", " + std::to_string(salvage.marks) + " of these marks for lost events";
    }
    if (salvage.renumbered > 0) {
        text += ", " + countText(salvage.renumbered, "event") + " with a new id";
    }
    return text;
}

} // namespace evctl
