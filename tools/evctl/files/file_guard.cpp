/** evctl file guard: before a start, puts a sound log in the place of one that would stop it. */
#include "common/new_file.h"
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/files/file.h"
#include "evctl/files/file_aside.h"
#include "evctl/files/predict_view.h"
#include "evctl/files/salvage.h"
#include "evctl/views/event_view.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <compare>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char FILE_GUARD_EXAMPLES[] =
    "For the time before the event manager's start: a log that 'evctl file predict'\n"
    "calls fatal is set aside as FILE.fatal-TIME, and what is readable of it put into\n"
    "a new log. The exit status is 1 when that was done, 2 when it could not be done.\n"
    "Example, of a unit:\n"
    "  ExecStartPre=-evctl file guard /var/lib/blade/slot1/nvram/kelta_eventlog";

constexpr char LOG_BEING_MADE[] = ".guard";

struct GuardOptions {
    std::string path;
    U32_t keep = 4;
    bool json = false;
};

/** The log, held open, so that what was judged is what is set aside. */
class GuardedLog {
  public:
    explicit GuardedLog(const std::string& path)
        : descriptor_(
              open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
        if (descriptor_ < 0 && errno == ELOOP) {
            throw std::runtime_error(path + ": is a link");
        }
        if (descriptor_ < 0 && errno != ENOENT) {
            tools::failWith(path, errno);
        }
    }
    ~GuardedLog() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    GuardedLog(const GuardedLog&) = delete;
    GuardedLog& operator=(const GuardedLog&) = delete;

    bool isThere() const { return descriptor_ >= 0; }

    struct stat status() const {
        struct stat status {};
        fstat(descriptor_, &status);
        return status;
    }

    EvlogImage_t load(const std::string& path) const {
        EvlogImage_t image;
        if (int error = evlogLoadDescriptor(descriptor_, &image); error != 0) {
            tools::failWith(path, error);
        }
        return image;
    }

    /** Whether another process has the file open, as far as the file system can tell. */
    bool isInUse() const {
        // A lease for writing is given to nobody while somebody else has the file open.
        if (fcntl(descriptor_, F_SETLEASE, F_WRLCK) == 0) {
            fcntl(descriptor_, F_SETLEASE, F_UNLCK);
            return false;
        }
        return errno == EAGAIN;
    }

  private:
    int descriptor_;
};

bool isSameFile(const std::string& path, const struct stat& file) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && status.st_dev == file.st_dev &&
           status.st_ino == file.st_ino;
}

std::string timeStamp() {
    time_t now = time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return text.data();
}

/** When a log was set aside: a clock may have been set back since, so a number goes before it. */
struct AsideOrder {
    U64_t number = 0;
    std::string stamp;
    auto operator<=>(const AsideOrder&) const = default;
};

/** What stands in a name behind LOG_ASIDE: "TIME" or "TIME-NUMBER"; all of another is its time. */
AsideOrder orderOf(const std::string& name) {
    const std::string text = name.substr(name.rfind(LOG_ASIDE) + strlen(LOG_ASIDE));
    const size_t dash = std::min(text.find('-'), text.size());
    AsideOrder order = {.stamp = text.substr(0, dash)};
    const char* end = text.data() + text.size();
    const char* digits = std::min(text.data() + dash + 1, end);
    if (std::from_chars(digits, end, order.number).ptr != end) {
        order = {.stamp = text};
    }
    return order;
}

/** Behind all that were set aside before. */
AsideOrder newestOrder(const std::vector<std::string>& asides) {
    AsideOrder order = {.stamp = timeStamp()};
    if (!asides.empty()) { // they are in their order
        const AsideOrder last = orderOf(asides.back());
        order.number = last.number + (last.stamp < order.stamp ? 0 : 1);
    }
    return order;
}

/** Gives the log a second name. One that ended half-way before has given it already. */
std::string setAside(const std::string& path, const struct stat& file) {
    const std::vector<std::string> asides = logsSetAside(path);
    for (const std::string& aside : asides) {
        if (isSameFile(aside, file)) {
            return aside;
        }
    }
    AsideOrder order = newestOrder(asides);
    for (const U64_t most = order.number + 9;; order.number++) {
        std::string aside = path + LOG_ASIDE + order.stamp;
        aside += order.number == 0 ? "" : "-" + std::to_string(order.number);
        if (link(path.c_str(), aside.c_str()) == 0) {
            tools::syncDirectoryOf(path);
            return aside;
        }
        if (errno != EEXIST || order.number == most) { // a link or a directory may have the name
            tools::failWith(aside, errno);
        }
    }
}

/** @param newest stays, whatever its name is @return those that are gone, fit to be shown */
std::vector<std::string> removeOldest(const std::string& path, U32_t keep,
                                      const std::string& newest) {
    std::vector<std::string> asides = logsSetAside(path);
    std::vector<std::string> removed;
    for (size_t place = 0; place + keep < asides.size(); place++) {
        if (asides[place] != newest && unlink(asides[place].c_str()) == 0) {
            removed.push_back(tools::escapedText(asides[place]));
        }
    }
    return removed;
}

/** The log's name leads to the damaged file or to the whole new one, at every moment.
 * @return the damaged file's new name */
std::string replace(const std::string& path, const EvlogSalvage_t& salvage,
                    const struct stat& file) {
    std::string made = path + LOG_BEING_MADE;
    unlink(made.c_str()); // of one that ended half-way
    if (!salvage.bytes.empty()) {
        tools::writeFileWhole(made, salvage.bytes, {.mode = file.st_mode & 07777});
    }
    std::string aside = setAside(path, file);
    int result = salvage.bytes.empty() ? unlink(path.c_str()) : rename(made.c_str(), path.c_str());
    if (result != 0) {
        tools::failWith(path, errno);
    }
    tools::syncDirectoryOf(path);
    return aside;
}

/** What was done, fit to be shown. */
struct Replaced {
    std::string file;
    std::string reason;
    std::string aside{};
    std::vector<std::string> removed{};
};

std::string whyFatal(const EvlogPrediction_t& prediction) {
    return prediction.bugcheck ? bugcheckLine(*prediction.bugcheck)
                               : evlogVerdictText(prediction.state.verdict);
}

void printLines(const Replaced& done, const EvlogSalvage_t& salvage) {
    std::cout << "set aside as " << done.aside << "; "
              << (salvage.bytes.empty() ? "no event can be read of it, the start makes a new log"
                                        : savedText(salvage))
              << "\n";
    for (const std::string& removed : done.removed) {
        std::cout << removed << ": removed\n";
    }
}

Json replacedJson(const Replaced& done, const EvlogSalvage_t& salvage) {
    return {{"file", done.file},      {"replaced", true},       {"reason", done.reason},
            {"aside", done.aside},    {"saved", salvage.saved}, {"marks", salvage.marks},
            {"removed", done.removed}};
}

int conclude(const GuardOptions& options, const Replaced& done, const EvlogSalvage_t& salvage) {
    if (options.json) {
        std::cout << jsonLine(replacedJson(done, salvage));
    } else {
        printLines(done, salvage);
    }
    return tools::EXIT_FINDING;
}

/** @param prediction nullptr: there is no log yet */
int nothingToDo(const GuardOptions& options, const EvlogPrediction_t* prediction) {
    const std::string file = tools::escapedText(options.path);
    const bool isLater = prediction != nullptr && prediction->bugcheck;
    const Json later = isLater ? Json(bugcheckLine(*prediction->bugcheck)) : Json(nullptr);
    if (options.json) {
        std::cout << jsonLine({{"file", file}, {"replaced", false}, {"later", later}});
    } else if (isLater) {
        std::cout << file << ": left as it is, but: " << later.get<std::string>() << "\n";
    }
    return tools::EXIT_DONE;
}

void requireOwn(const std::string& path, const struct stat& file) {
    if (!S_ISREG(file.st_mode)) {
        throw std::runtime_error(path + ": not a regular file");
    }
    if (file.st_uid != geteuid()) {
        throw std::runtime_error(path + ": belongs to another user; run guard as that one");
    }
}

int runGuard(const GuardOptions& options) {
    GuardedLog log(options.path);
    if (!log.isThere()) {
        return nothingToDo(options, nullptr);
    }
    struct stat file = log.status();
    requireOwn(options.path, file);
    EvlogImage_t image = log.load(options.path);
    EvlogPrediction_t prediction = evlogPredict(image, nullptr);
    if (!prediction.isFatal()) {
        return nothingToDo(options, &prediction);
    }
    if (log.isInUse()) {
        throw std::runtime_error(options.path + ": in use; end the event manager first");
    }
    Replaced done = {.file = tools::escapedText(options.path), .reason = whyFatal(prediction)};
    if (!options.json) { // also when more cannot be done
        std::cout << done.file << ": " << done.reason << "\n";
    }
    EvlogSource_t source = {.bytes = image.bytes};
    EvlogSalvage_t salvage = salvageTried({&source, 1}, {});
    if (!isSameFile(options.path, file)) {
        throw std::runtime_error(options.path + ": replaced meanwhile; nothing was changed");
    }
    const std::string aside = replace(options.path, salvage, file);
    done.aside = tools::escapedText(aside);
    done.removed = removeOldest(options.path, options.keep, aside);
    return conclude(options, done, salvage);
}

} // namespace

std::vector<std::string> logsSetAside(const std::string& log) {
    std::filesystem::path path(log);
    std::string prefix = path.filename().string() + LOG_ASIDE;
    std::vector<std::string> asides;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(
             path.has_parent_path() ? path.parent_path() : ".", error)) {
        if (entry.path().filename().string().starts_with(prefix) &&
            entry.symlink_status(error).type() == std::filesystem::file_type::regular) {
            asides.push_back(entry.path().string());
        }
    }
    std::ranges::sort(asides, {}, orderOf);
    return asides;
}

void addFileGuardCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<GuardOptions>();
    CLI::App& command =
        addCommand(parent, "guard", "Replace a log that would stop the event manager's next start.",
                   FILE_GUARD_EXAMPLES);
    command.add_option("FILE", options->path, "The log of an event manager that is not running")
        ->required();
    command.add_option("--keep", options->keep, "Logs set aside that are kept, the newest ones")
        ->type_name("NUMBER")
        ->capture_default_str()
        ->check(tools::wholeNumber(1, 1000));
    command.add_flag("--json", options->json, "As a JSON object");
    onChosen(command, chosen, options, runGuard);
}

} // namespace evctl
