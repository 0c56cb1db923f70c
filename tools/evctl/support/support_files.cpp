#include "evctl/support/support_files.h"

#include "common/text.h"
#include "configuration.h"
#include "evctl/files/file.h"
#include "evctl/files/file_aside.h"
#include "evctl/files/predict_view.h"
#include "evctl/views/crash_view.h"
#include "sources/alternate_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char FOLDER[] = "support/";

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/** The last bytes of a regular file. @return 0, or an errno value */
int readTail(const std::string& path, int flags, std::vector<U8_t>& bytes) {
    int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags);
    if (descriptor < 0) {
        return errno;
    }
    struct stat status {};
    int error = fstat(descriptor, &status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error == 0) {
        auto size = static_cast<U64_t>(status.st_size);
        auto length = static_cast<size_t>(std::min<U64_t>(size, SUPPORT_TAIL));
        bytes.resize(length);
        ssize_t count = pread(descriptor, bytes.data(), length, static_cast<off_t>(size - length));
        error = count < 0 ? errno : 0;
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    close(descriptor);
    return error;
}

Json findingsJson(const LogContent& content) {
    Json findings = Json::array();
    for (const EvlogFinding_t& finding : content.findings) {
        findings.push_back({{"offset", finding.offset},
                            {"bytes", finding.bytes},
                            {"reason", evlogReasonText(finding.reason)}});
    }
    return findings;
}

} // namespace

void SupportFiles::add(const std::string& name, std::vector<U8_t> bytes) {
    members_.push_back({FOLDER + name, std::move(bytes)});
}

void SupportFiles::addText(const std::string& name, const std::string& text) {
    add(name, {text.begin(), text.end()});
}

void SupportFiles::addProblem(const std::string& what, const std::string& why) {
    problems_.push_back(what + ": " + why);
    missing_ += (redact_ ? what : problems_.back()) + "\n";
}

void SupportFiles::addObject(const std::string& name, Json json) {
    addText(name, jsonLine(redact_ ? Redaction::object(std::move(json)) : json));
}

/** What the log is judged to be: nothing is quoted of it. */
void SupportFiles::addReports(const EvlogImage_t& original) {
    Json prediction =
        predictionJson(&EMP_LOG_FILE_NAME[1], evlogPredict(original, identity_), identity_);
    if (redact_) {
        prediction["judgedFor"] = Redaction::object(std::move(prediction["judgedFor"]));
    }
    addText("predict.json", jsonLine(prediction));
    addText("verify.json", jsonLine(findingsJson(readLog(original))));
}

/** The bug-checks in the log and in the alternate events, as they are in the bundle. */
void SupportFiles::addCrashes() {
    EvlogImage_t log;
    LogContent content;
    std::vector<EvlogRecord_t> waiting;
    for (const bundle::Member& member : members_) {
        EvlogRecord_t record;
        if (member.name == FOLDER + std::string(&EMP_LOG_FILE_NAME[1])) {
            log = evlogImageOf(member.bytes);
            content = readLog(log);
        } else if (member.name.starts_with(FOLDER + std::string(&EMP_AEL_DIRECTORY_NAME[1])) &&
                   evlogReadAlternate(member.bytes, &record) == EVLOG_E_REASON_NONE) {
            waiting.push_back(record);
        }
    }
    sortByAge(content.records);
    std::string crashes;
    for (const Crash& crash : findCrashes(content.records, waiting)) {
        crashes += (crashes.empty() ? "" : "\n") + crashLines(crashJson(crash, false));
    }
    addText("crashes.txt", crashes);
}

void SupportFiles::addLog(const std::string& path, const std::string& name, bool expected) {
    EvlogImage_t image;
    if (int error = evlogLoadFile(path.c_str(), &image); error != 0) {
        if (expected || error != ENOENT) {
            addProblem(name, error == EINVAL ? "not a regular file" : strerror(error));
        }
        return;
    }
    if (image.fileSize > image.bytes.size()) {
        addProblem(name, "only its first " + std::to_string(image.bytes.size()) + " bytes");
    }
    std::vector<U8_t> shown = redact_ ? redaction_.log(image) : image.bytes;
    if (expected) {
        addReports(image);
    }
    add(name, std::move(shown));
}

/** Of a loop of restarts the first and the newest bug-checks tell the most. Those that are never
 * replayed stand behind the others. */
void SupportFiles::leaveOutMiddle(std::vector<sources::AelFile>& files) {
    constexpr auto half = static_cast<std::ptrdiff_t>(SUPPORT_FILES_MAX / 2);
    for (bool replayed : {false, true}) {
        auto end = std::ranges::find_if_not(files, &sources::AelFile::hasHeader);
        auto first = replayed ? files.begin() : end;
        auto last = replayed ? end : files.end();
        if (std::ptrdiff_t count = last - first; count > 2 * half) {
            addProblem(std::to_string(count - 2 * half) + " of " + std::to_string(count) +
                           (replayed ? "" : " invalid") + " alternate event files",
                       "the first and the last " + std::to_string(half) + " are looked at");
            files.erase(first + half, last - half);
        }
    }
}

void SupportFiles::addAlternates(const std::string& directory) {
    std::vector<sources::AelFile> files;
    try {
        files = sources::readAelDirectory(directory);
    } catch (const std::system_error& problem) {
        if (problem.code() != std::errc::no_such_file_or_directory) {
            addProblem("alternate events", problem.what());
        }
        return;
    }
    leaveOutMiddle(files);
    for (size_t number = 0; number < files.size(); number++) {
        sources::AelFile& file = files[number];
        std::vector<U8_t> bytes = redact_ ? redaction_.record(file.bytes) : std::move(file.bytes);
        if (file.name.starts_with(EMP_AEL_FILE_PREFIX) && !bytes.empty()) {
            std::string name =
                redact_ ? EMP_AEL_FILE_PREFIX + std::to_string(number + 1) : file.name;
            add(&EMP_AEL_DIRECTORY_NAME[1] + ("/" + name), std::move(bytes));
            members_.back().time = file.modified; // which the order of their replay hangs on
        } else {
            addProblem("alternate events",
                       tools::escapedText(file.name) + ": left out, " +
                           (file.reason.empty() ? "no valid record" : file.reason));
        }
    }
}

/** Behind the stamp of the time there may be anything. */
std::string SupportFiles::nameOfAside(const std::string& path, size_t number) const {
    std::string name = baseName(path);
    std::string stamp = name.substr(name.rfind(LOG_ASIDE) + strlen(LOG_ASIDE));
    bool isStamp = stamp.find_first_not_of("0123456789TZ-") == std::string::npos;
    return redact_ && !isStamp ? &EMP_LOG_FILE_NAME[1] + (LOG_ASIDE + std::to_string(number))
                               : name;
}

void SupportFiles::addLogs(const std::string& directory, const EvlogIdentity_t* identity) {
    identity_ = identity;
    std::string log = directory + EMP_LOG_FILE_NAME;
    addLog(log, baseName(log), true);
    addLog(directory + EMP_DEBUG_LOG_FILE_NAME, &EMP_DEBUG_LOG_FILE_NAME[1], false);
    std::vector<std::string> asides = logsSetAside(log);
    for (size_t number = 0; number < asides.size(); number++) {
        addLog(asides[number], nameOfAside(asides[number], number + 1), false);
    }
    addAlternates(directory + EMP_AEL_DIRECTORY_NAME);
    addCrashes();
    identity_ = nullptr;
}

void SupportFiles::addTail(const std::string& path) {
    std::string name = tools::escapedText(baseName(path));
    if (redact_) {
        addProblem("outputs", name + " is left out, it quotes names and data");
        return;
    }
    std::vector<U8_t> bytes;
    if (int error = readTail(path, 0, bytes); error != 0) {
        addProblem("outputs", tools::escapedText(path) + ": " + strerror(error));
        return;
    }
    addOutput(path, std::move(bytes));
}

void SupportFiles::addKnownTail(const std::string& path) {
    std::vector<U8_t> bytes;
    if (redact_) {
        return;
    }
    if (int error = readTail(path, O_NOFOLLOW, bytes); error == 0) {
        addOutput(path, std::move(bytes));
    } else if (error != ENOENT) {
        addProblem("outputs", tools::escapedText(path) + ": " + strerror(error));
    }
}

void SupportFiles::addOutput(const std::string& path, std::vector<U8_t> bytes) {
    std::string name = tools::escapedText(baseName(path));
    std::string member = FOLDER + ("outputs/" + name);
    for (int number = 2;
         std::ranges::find(members_, member, &bundle::Member::name) != members_.end(); number++) {
        member = FOLDER + ("outputs/" + name) + "-" + std::to_string(number);
    }
    members_.push_back({member, std::move(bytes)});
}

std::vector<bundle::Member> SupportFiles::finish() {
    addText("missing.txt", missing_);
    std::string sums;
    for (const bundle::Member& member : members_) {
        sums += bundle::checksumLine(member.name.substr(strlen(FOLDER)), member.bytes);
    }
    addText(bundle::CHECKSUMS, sums);
    return std::move(members_);
}

} // namespace evctl
