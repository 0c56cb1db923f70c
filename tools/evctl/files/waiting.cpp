#include "evctl/files/waiting.h"

#include "configuration.h"
#include "evctl/files/file.h"
#include "evctl/listing/passed_over.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace evctl {
namespace {

namespace fs = std::filesystem;

/** Adds what the next start stores of a directory, if that is there. */
void addWaiting(LogAndWaiting& found, const std::string& directory, PassedOver& passedOver) {
    std::error_code error;
    if (!fs::exists(directory, error)) {
        return;
    }
    passedOver.attempt([&] {
        for (sources::AelFile& file : sources::readAelDirectory(directory)) {
            if (file.fate == sources::AelFate::UNKNOWN) {
                passedOver.add(directory + "/" + file.name + ": " + file.reason);
            } else if (file.fate == sources::AelFate::STORED) {
                found.waiting.push_back(std::move(file));
            }
        }
    });
}

void addDirectory(LogAndWaiting& found, const std::string& path, int* status,
                  PassedOver& passedOver) {
    if (fs::exists(path + EMP_LOG_FILE_NAME)) {
        found.log = loadAnyLog(path + EMP_LOG_FILE_NAME, status);
    }
    addWaiting(found, path, passedOver);
    addWaiting(found, path + EMP_AEL_DIRECTORY_NAME, passedOver);
    if (!found.log && found.waiting.empty() && passedOver.reasons().empty()) {
        throw std::runtime_error(
            path + ": a directory without an event log and without alternate event log files");
    }
}

void addFiles(LogAndWaiting& found, const std::string& path, int* status, PassedOver& passedOver) {
    std::vector<sources::LogFile> files = loadLogFiles(path, status);
    found.waiting = sources::takeAlternates(files);
    std::erase_if(found.waiting, [](const sources::AelFile& file) {
        return file.fate != sources::AelFate::STORED;
    });
    if (sources::LogFile* file = logAmong(files)) {
        found.log = std::move(file->image);
    } else if (found.waiting.empty() && !files.empty()) {
        throw std::runtime_error(path + ": a bundle without a log");
    }
    std::string log = fs::path(path).filename();
    if (log == &EMP_LOG_FILE_NAME[1]) {
        fs::path directory = fs::path(path).parent_path();
        addWaiting(found, (directory.empty() ? "." : directory.string()) + EMP_AEL_DIRECTORY_NAME,
                   passedOver);
    }
}

} // namespace

std::vector<EvlogRecord_t> LogAndWaiting::records() const {
    std::vector<EvlogRecord_t> records(waiting.size());
    for (size_t place = 0; place < waiting.size(); place++) {
        evlogReadAlternate(waiting[place].bytes, &records[place]);
    }
    return records;
}

LogAndWaiting loadLogAndWaiting(const std::string& path, int* status) {
    LogAndWaiting found;
    PassedOver passedOver;
    std::error_code error; // told by who opens it
    if (fs::is_directory(path, error)) {
        addDirectory(found, path, status, passedOver);
    } else {
        addFiles(found, path, status, passedOver);
    }
    if (found.log && found.waiting.empty()) {
        requireLog(path, *found.log);
    } else if (found.log) {
        // What made the bug-check may have been what stands in its place.
        passedOver.attempt([&] { requireLog(path, *found.log); });
    }
    *status = passedOver.say(*status);
    return found;
}

} // namespace evctl
