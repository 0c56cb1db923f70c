#include "altEventLog.h"
#include "common/text.h"
#include "configuration.h"
#include "evlog/guess.h"
#include "sources/source.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#if SOURCES_READ_BUNDLES
#include "bundle/bundle.h"
#endif

namespace sources {
namespace {

using namespace std::string_view_literals;

// Far more than any log; a stream without end must not take all memory.
constexpr size_t LONGEST_INPUT = 64U << 20U;
constexpr char DAMAGED_COPY_SUFFIX[] = ".debug";
constexpr char GZIP_SUFFIX[] = ".gz";

[[noreturn]] void fail(const std::string& name, const std::string& reason) {
    throw std::runtime_error(name + ": " + reason);
}

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ > STDERR_FILENO) {
            close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const { return number_; }

  private:
    int number_;
};

bool startsWith(std::span<const U8_t> bytes, std::string_view magic) {
    return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())
        .starts_with(magic);
}

bool isGzip(std::span<const U8_t> bytes) {
    return startsWith(bytes, "\x1F\x8B"sv);
}

bool isArchive(std::span<const U8_t> bytes) {
    return startsWith(bytes, "SQLite format 3\0"sv);
}

bool isBundle(std::span<const U8_t> bytes) {
    constexpr size_t magicOffset = 257; // in a log, data of an event may stand there
    return bytes.size() > magicOffset && startsWith(bytes.subspan(magicOffset), "ustar"sv) &&
           !startsWith(bytes, "\xB6\x8F"sv);
}

Bytes readAll(const std::string& name, int descriptor) {
    constexpr size_t piece = 65'536;
    Bytes bytes;
    for (;;) {
        size_t length = bytes.size();
        bytes.resize(length + piece);
        ssize_t count = read(descriptor, bytes.data() + length, piece);
        bytes.resize(length + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0) {
            return bytes;
        }
        if (count < 0 && errno != EINTR) {
            fail(name, strerror(errno));
        }
        if (bytes.size() > LONGEST_INPUT) {
            fail(name, "more than " + std::to_string(LONGEST_INPUT) + " bytes");
        }
    }
}

std::string baseName(const std::string& name) {
    return name.substr(name.rfind('/') + 1);
}

Origin originOf(const std::string& name, Kind kind) {
    return {.name = tools::escapedUtf8(name), .kind = kind};
}

Origin logOrigin(const std::string& name) {
    bool isCopy = name.ends_with(DAMAGED_COPY_SUFFIX);
    return originOf(name, isCopy ? Kind::DAMAGED_COPY : Kind::LOG);
}

Sources one(std::unique_ptr<Source> source) {
    Sources list;
    list.push_back(std::move(source));
    return list;
}

Kind kindOf(const std::string& name) {
    return baseName(name).starts_with(EMP_AEL_FILE_PREFIX) ? Kind::ALTERNATE : logOrigin(name).kind;
}

Sources openImage(const std::string& name, EvlogImage_t image, const OpenOptions& options) {
    if (kindOf(name) == Kind::ALTERNATE) {
        return one(alternateFileSource(originOf(name, Kind::ALTERNATE), std::move(image.bytes)));
    }
    if (!evlogIsLog(image)) {
        fail(name, std::string("no event log; it is ") + evlogGuess(image));
    }
    return one(logSource(logOrigin(name), std::move(image), options.fileOrder));
}

#if SOURCES_READ_BUNDLES

/** Whether a name in a bundle is that of a log, be it a copy of one, or of an alternate event. */
bool isNameOfEvents(const std::string& name) {
    constexpr const char* log = &EMP_LOG_FILE_NAME[1];
    std::string base = baseName(name);
    return base == log || base.starts_with(std::string(log) + ".") ||
           base.starts_with(EMP_AEL_FILE_PREFIX);
}

std::string parametersAmong(const std::vector<bundle::Member>& members) {
    for (const bundle::Member& member : members) {
        if (baseName(member.name) == "parameters.json") {
            return {member.bytes.begin(), member.bytes.end()};
        }
    }
    return "";
}

/** Its logs and alternate events. Their names lead nowhere: they are only shown. */
std::vector<LogFile> unpackEvents(const std::string& name, std::span<const U8_t> bytes,
                                  std::vector<std::string>* problems) {
    std::vector<LogFile> found;
    const std::vector<bundle::Member> members = bundle::unpack(bytes, problems);
    bundle::compareChecksums(members, problems);
    const std::string parameters = parametersAmong(members);
    for (const bundle::Member& member : members) {
        if (isNameOfEvents(member.name)) {
            found.push_back({.name = name + ":" + member.name,
                             .kind = kindOf(member.name),
                             .image = evlogImageOf(member.bytes),
                             .modified = member.time.value_or(0),
                             .parameters = parameters,
                             .isMember = true});
        }
    }
    if (found.empty()) {
        fail(name, problems->empty() ? "a bundle without a log" : problems->front());
    }
    return found;
}

#else

std::vector<LogFile> unpackEvents(const std::string& name, std::span<const U8_t> /*bytes*/,
                                  std::vector<std::string>* /*problems*/) {
    fail(name, "a bundle; this program was built without what reads it");
}

#endif

Sources openBundle(const std::string& name, std::span<const U8_t> bytes,
                   const OpenOptions& options) {
    Sources found;
    std::vector<std::string> problems;
    for (LogFile& file : unpackEvents(name, bytes, &problems)) {
        try {
            found.push_back(
                std::move(openImage(file.name, std::move(file.image), options).front()));
        } catch (const std::runtime_error& problem) {
            problems.push_back(tools::shownLine(problem.what()));
        }
    }
    if (found.empty()) {
        fail(name, problems.front());
    }
    for (const std::string& problem : problems) {
        found.front()->addNotice(problem);
    }
    return found;
}

/** @param problem receives what is wrong, if some of it can be had */
Bytes plainOf(const std::string& name, std::span<const U8_t> bytes,
              std::optional<std::string>* problem) {
    Bytes plain;
    try {
        plain = decompress(bytes, LONGEST_INPUT, problem);
    } catch (const std::runtime_error& error) {
        fail(name, error.what());
    }
    if (isGzip(plain)) {
        fail(name, "compressed twice");
    }
    if (*problem && plain.empty()) {
        fail(name, **problem);
    }
    return plain;
}

/** The name of what is compressed. */
std::string plainName(const std::string& name) {
    bool hasSuffix = name.ends_with(GZIP_SUFFIX);
    return hasSuffix ? name.substr(0, name.size() - strlen(GZIP_SUFFIX)) : name;
}

Sources openCompressed(const std::string& name, std::span<const U8_t> bytes,
                       const OpenOptions& options) {
    std::optional<std::string> problem;
    Sources found = openBytes(plainName(name), plainOf(name, bytes, &problem), options);
    if (problem) {
        found.front()->addNotice(*problem);
    }
    return found;
}

/** A file of which only the beginning may have been read. */
Bytes wholeOf(const std::string& path, EvlogImage_t image) {
    if (image.fileSize == image.bytes.size()) {
        return std::move(image.bytes);
    }
    Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (descriptor.number() < 0) {
        fail(path, strerror(errno));
    }
    return readAll(path, descriptor.number());
}

const char* loadErrorText(int error) {
    return error == EINVAL ? "not a regular file" : strerror(error);
}

EvlogImage_t loadFile(const std::string& path) {
    EvlogImage_t image;
    if (int error = evlogLoadFile(path.c_str(), &image); error != 0) {
        fail(path, loadErrorText(error));
    }
    return image;
}

Sources openRegular(const std::string& path, const OpenOptions& options) {
    EvlogImage_t image = loadFile(path);
    if (isArchive(image.bytes)) {
        return archiveSources(path, options);
    }
    if (!isGzip(image.bytes) && !isBundle(image.bytes)) {
        return openImage(path, std::move(image), options);
    }
    return openBytes(path, wholeOf(path, std::move(image)), options);
}

void addAlternates(const std::string& directory, Sources& found,
                   std::vector<std::string>& problems) {
    try {
        std::unique_ptr<Source> source =
            alternateDirectorySource(originOf(directory, Kind::ALTERNATE), directory);
        if (source) {
            found.push_back(std::move(source));
        }
    } catch (const std::system_error& problem) {
        problems.push_back(directory + ": " + problem.code().message());
    }
}

bool isThere(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

Sources openDirectory(const std::string& path, const OpenOptions& options) {
    Sources found;
    std::vector<std::string> problems;
    for (const char* name : {EMP_DEBUG_LOG_FILE_NAME, EMP_LOG_FILE_NAME}) {
        std::string log = path + name;
        EvlogImage_t image;
        int error = evlogLoadFile(log.c_str(), &image);
        if (error == 0) {
            found.push_back(logSource(logOrigin(log), std::move(image), options.fileOrder));
        } else if (error != ENOENT) {
            problems.push_back(log + ": " + loadErrorText(error));
        }
    }
    addAlternates(path, found, problems);
    if (std::string below = path + EMP_AEL_DIRECTORY_NAME; isThere(below)) {
        addAlternates(below, found, problems);
    }
    if (found.empty()) {
        problems.push_back(path + ": a directory without an event log and without alternate event "
                                  "log files");
        throw std::runtime_error(problems.front());
    }
    for (const std::string& problem : problems) {
        found.front()->addNotice(problem);
    }
    return found;
}

/** Waits for whoever writes into it, as every reader of a pipe does. */
Bytes readPipe(const std::string& path) {
    Descriptor descriptor(path == "-" ? STDIN_FILENO
                                      : open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (descriptor.number() < 0) {
        fail(path, strerror(errno));
    }
    return readAll(path, descriptor.number());
}

} // namespace

Sources openBytes(const std::string& name, Bytes bytes, const OpenOptions& options) {
    if (isGzip(bytes)) {
        return openCompressed(name, bytes, options);
    }
    if (isArchive(bytes)) {
        fail(name, "an archive is read from its file only");
    }
    if (isBundle(bytes)) {
        return openBundle(name, bytes, options);
    }
    return openImage(name, evlogImageOf(bytes), options);
}

bool isServer(const std::string& path) {
    return path.starts_with("postgresql://") || path.starts_with("postgres://");
}

Sources openSources(const std::string& path, const OpenOptions& options) {
    if (path == "-") {
        return openBytes(path, readPipe(path), options);
    }
    if (isServer(path)) {
        return archiveSources(path, options);
    }
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        fail(path, strerror(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        return openDirectory(path, options);
    }
    return S_ISREG(status.st_mode) ? openRegular(path, options)
                                   : openBytes(path, readPipe(path), options);
}

std::vector<LogFile> loadLogFiles(const std::string& path, std::vector<std::string>* notices) {
    struct stat status {};
    bool isThere = path != "-" && stat(path.c_str(), &status) == 0;
    if (isThere && S_ISDIR(status.st_mode)) {
        return loadLogFiles(path + EMP_LOG_FILE_NAME, notices);
    }
    bool isPipe = path == "-" || (isThere && !S_ISREG(status.st_mode));
    Bytes piped = isPipe ? readPipe(path) : Bytes{};
    EvlogImage_t image = isPipe ? evlogImageOf(piped) : loadFile(path);
    auto whole = [&] { return isPipe ? std::move(piped) : wholeOf(path, std::move(image)); };
    std::string name = path;
    if (isGzip(image.bytes)) {
        std::optional<std::string> problem;
        Bytes plain = plainOf(path, whole(), &problem);
        if (problem) {
            notices->push_back(path + ": " + *problem);
        }
        name = plainName(path);
        if (isBundle(plain)) {
            return unpackEvents(path, plain, notices);
        }
        image = evlogImageOf(plain);
    } else if (isBundle(image.bytes)) {
        return unpackEvents(path, whole(), notices);
    }
    return {{.name = name, .kind = kindOf(name), .image = std::move(image)}};
}

} // namespace sources
