#include "evctl/salvage.h"

#include "evctl/file.h"
#include "evlog/guess.h"
#include "sources/alternate_files.h"

#include <filesystem>
#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

bool isAlternateEventFile(const std::string& path) {
    return path.substr(path.rfind('/') + 1).starts_with(EMP_AEL_FILE_PREFIX);
}

} // namespace

void SalvageInputs::add(const std::string& name, std::vector<U8_t> bytes, bool waiting) {
    bytes_.push_back(std::move(bytes));
    sources_.push_back({.bytes = bytes_.back(), .waiting = waiting});
    names_.push_back(name);
}

void SalvageInputs::add(const std::string& path) {
    if (std::filesystem::is_directory(path)) {
        for (sources::AelFile& file : sources::readAelDirectory(path)) {
            if (isAlternateEventFile(file.name)) {
                add(path + "/" + file.name, std::move(file.bytes), true);
            }
        }
        return;
    }
    std::vector<sources::LogFile> files = loadLogFiles(path);
    for (sources::LogFile& file : files) {
        bool waiting = file.kind == sources::Kind::ALTERNATE;
        if (waiting || evlogIsLog(file.image)) {
            add(file.name, std::move(file.image.bytes), waiting);
        } else if (files.size() == 1) {
            requireLog(file.name, file.image);
        } else { // of a bundle the rest is read
            std::cerr << "evctl: " << file.name << ": no event log, passed over\n";
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
    std::string text = std::to_string(salvage.saved) + " events saved, ids " +
                       std::to_string(salvage.firstId) + " to " + std::to_string(salvage.lastId);
    if (salvage.marks > 0) {
        text += ", " + std::to_string(salvage.marks) + " of these marks for lost events";
    }
    if (salvage.renumbered > 0) {
        text += ", " + std::to_string(salvage.renumbered) + " events with a new id";
    }
    return text;
}

} // namespace evctl
