#include "sources/alternate_files.h"

#include "altEventLog.h"
#include "mmsg.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace sources {
namespace {

// Shorter names are spared, so that "." and ".." are.
constexpr size_t NAME_REMOVED_FROM = 3;
constexpr size_t LONGEST_FILE = EMP_RECORD_SIZE + 65'535;

void setFate(AelFile& file, AelFate fate, const std::string& reason) {
    file.fate = fate;
    file.reason = reason;
}

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory openDirectory(const std::string& path) {
    Directory directory(opendir(path.c_str()));
    if (!directory) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return directory;
}

std::vector<std::string> namesIn(const std::string& path) {
    Directory directory = openDirectory(path);
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const struct dirent* found = readdir(directory.get());
        if (found == nullptr) {
            break;
        }
        names.emplace_back(found->d_name);
    }
    if (errno != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    std::erase(names, ".");
    std::erase(names, "..");
    return names;
}

/** A directory with something in it cannot be removed. */
bool isFullDirectory(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && !namesIn(path).empty();
}

void setDeleted(AelFile& file, const std::string& path, const std::string& reason) {
    if (isFullDirectory(path)) {
        setFate(file, AelFate::STAYS, "a directory that is not empty");
    } else {
        setFate(file, AelFate::DELETED, reason);
    }
}

/** Reads at most the longest file. @return 0, or an errno value */
int readBytes(const std::string& path, std::vector<U8_t>& bytes) {
    int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) {
        return errno;
    }
    bytes.resize(LONGEST_FILE);
    size_t length = 0;
    ssize_t count = 0;
    while (length < bytes.size() &&
           (count = read(descriptor, bytes.data() + length, bytes.size() - length)) > 0) {
        length += static_cast<size_t>(count);
    }
    int error = count < 0 ? errno : 0;
    close(descriptor);
    bytes.resize(length);
    return error;
}

/** Judges a file with the prefix. */
void lookInto(AelFile& file, const std::string& path, const struct stat& status) {
    if (status.st_size == 0) {
        setDeleted(file, path, "empty");
    } else if (!S_ISREG(status.st_mode)) {
        setDeleted(file, path, "not a regular file");
    } else if (int error = readBytes(path, file.bytes); error != 0) {
        file.bytes.clear();
        setFate(file, AelFate::UNKNOWN, strerror(error));
    } else {
        judgeAelFile(file);
    }
}

AelFile lookAt(const std::string& directory, const std::string& name) {
    std::string path = directory + "/" + name;
    AelFile file;
    file.name = name;
    struct stat status {}; // of a file that cannot be looked at: size 0
    if (stat(path.c_str(), &status) == 0) {
        file.size = static_cast<U64_t>(status.st_size);
        file.modified = status.st_mtime;
    }
    if (name.starts_with(EMP_AEL_FILE_PREFIX)) {
        lookInto(file, path, status);
    } else if (name.size() < NAME_REMOVED_FROM) {
        setFate(file, AelFate::STAYS, "a name of one or two characters");
    } else {
        setDeleted(file, path, "not the name of an alternate event log file");
    }
    return file;
}

/** Whether the event manager replays @p file before @p listed, which the directory named earlier.
 * It compares the times as 32-bit numbers with a sign. */
bool goesInFront(const AelFile& file, const AelFile& listed) {
    auto time = static_cast<S32_t>(file.modified);
    auto listedTime = static_cast<S32_t>(listed.modified);
    if (listedTime != time) {
        return listedTime > time;
    }
    return file.header().evSource == MMSG_E_EPID_STARTUPMP &&
           listed.header().evSequenceId > file.header().evSequenceId;
}

/** Files with a header, the bad ones among them too, are put in order one by one, as they are
 * found: the rule for equal times is no order that could be sorted by. */
void insertInOrder(std::vector<AelFile>& list, AelFile file) {
    auto place = std::ranges::find_if(
        list, [&file](const AelFile& listed) { return goesInFront(file, listed); });
    list.insert(place, std::move(file));
}

const char* whyDeleted(EVLOG_REASON_e reason) {
    switch (reason) {
    case EVLOG_E_REASON_NONE:
        return "";
    case EVLOG_E_REASON_CUT:
        return "shorter than its header says";
    case EVLOG_E_REASON_CHECKSUM:
        return "the checksum does not match";
    case EVLOG_E_REASON_SOURCE:
        return "a source above 34";
    case EVLOG_E_REASON_LENGTH:
        return "more than 3848 bytes of data";
    default:
        return "no record's signature";
    }
}

} // namespace

EventView AelFile::event() const {
    return {reinterpret_cast<const EmpEvLogHeader_t*>(bytes.data() + EMP_CRC_START), data()};
}

void judgeAelFile(AelFile& file) {
    if (!file.hasHeader()) {
        file.bytes.clear();
        setFate(file, AelFate::DELETED, "shorter than a record's header");
        return;
    }
    EvlogRecord_t record;
    EVLOG_REASON_e reason = evlogReadAlternate(file.bytes, &record);
    size_t length = EMP_RECORD_SIZE + size_t{file.header().evStructLength};
    file.bytes.resize(reason == EVLOG_E_REASON_CUT ? EMP_RECORD_SIZE : length);
    setFate(file, reason == EVLOG_E_REASON_NONE ? AelFate::STORED : AelFate::DELETED,
            whyDeleted(reason));
}

std::vector<AelFile> inOrderOfReplay(std::vector<AelFile> files) {
    std::vector<AelFile> replayed;
    std::vector<AelFile> others;
    for (AelFile& file : files) {
        if (file.hasHeader()) {
            insertInOrder(replayed, std::move(file));
        } else {
            others.push_back(std::move(file));
        }
    }
    U32_t order = 0;
    for (AelFile& file : replayed) {
        if (file.fate == AelFate::STORED) {
            file.order = ++order;
        }
    }
    std::ranges::sort(others, {}, &AelFile::name);
    std::ranges::move(others, std::back_inserter(replayed));
    return replayed;
}

std::vector<AelFile> takeAlternates(std::vector<LogFile>& files) {
    auto alternates = std::stable_partition(files.begin(), files.end(), [](const LogFile& file) {
        return file.kind != Kind::ALTERNATE;
    });
    std::vector<AelFile> taken;
    for (LogFile& found : std::span(alternates, files.end())) {
        AelFile file;
        file.name = found.name.substr(found.name.find_last_of(":/") + 1);
        file.size = found.image.fileSize;
        file.modified = found.modified;
        file.bytes = std::move(found.image.bytes);
        judgeAelFile(file);
        taken.push_back(std::move(file));
    }
    files.erase(alternates, files.end());
    return inOrderOfReplay(std::move(taken));
}

std::vector<AelFile> readAelDirectory(const std::string& directory) {
    std::vector<AelFile> files;
    for (const std::string& name : namesIn(directory)) {
        files.push_back(lookAt(directory, name));
    }
    return inOrderOfReplay(std::move(files));
}

const char* aelFateName(AelFate fate) {
    constexpr std::array<const char*, 4> names = {"stored", "deleted", "stays", "unknown"};
    return names.at(static_cast<size_t>(fate));
}

} // namespace sources
