/**
 * @file
 * Sources of events: log files, their damaged copies, alternate event log files, archives; as
 * files, directories, standard input or pipes, plain or compressed with gzip.
 *
 * Every source gives its events oldest first, in the order of its log, whatever the times in them
 * say. Nothing is ever written. Any bytes may be given: what cannot be read is a problem of its
 * source, and the rest is read.
 */
#ifndef SOURCES_SOURCE_H
#define SOURCES_SOURCE_H

#include "sources/event.h"

#include <optional>
#include <unordered_map>

namespace sources {

/** One log, or what else keeps events in an order of its own. */
class Source {
  public:
    virtual ~Source() = default;

    /** The next event, which stays valid as long as the source; nothing when there is none. */
    virtual std::optional<Event> next() = 0;

    /** Begins again with the first event. */
    virtual void rewind() = 0;

    const Origin& origin() const { return origin_; }

    /** What is wrong in it, a line each, without its name; fit to be shown. */
    const std::vector<std::string>& problems() const { return problems_; }

    /** What was wrong on the way to it, likewise. */
    const std::vector<std::string>& notices() const { return notices_; }
    void addNotice(const std::string& notice) { notices_.push_back(notice); }

  protected:
    explicit Source(Origin origin) : origin_(std::move(origin)) {}

    Origin origin_;
    std::vector<std::string> problems_;

  private:
    std::vector<std::string> notices_;
};

using Sources = std::vector<std::unique_ptr<Source>>;

/** Which logs are meant; what is not given is any. */
struct LogChoice {
    std::optional<std::string> enclosure{}; ///< texts up to their NUL
    std::optional<std::string> blade{};
    std::optional<U32_t> slot{};
    std::optional<U32_t> instance{};

    bool matches(const EmpEvLogHeader_t& header) const;
    bool operator==(const LogChoice&) const = default;
};

struct OpenOptions {
    bool fileOrder = false;      ///< logs: in the order of the file
    LogChoice logs{};            ///< archives: only these logs are opened
    bool allGenerations = false; ///< archives: also what logs held before they began again
};

/** Whether what is to be read lies on a server: "postgresql://...". */
bool isServer(const std::string& path);

/**
 * The sources that @p path stands for:
 * - "-", or a pipe: what comes until its end, as the file that it is;
 * - a log file, or its damaged copy (a name that ends in ".debug");
 * - an alternate event log file (a name that begins with "kelta_alteventlog");
 * - an archive, in a file or on a server ("postgresql://..."): a source for each log in it;
 * - one of these but an archive, compressed with gzip;
 * - a bundle (tar, compressed or not): the logs, damaged copies and alternate event log files
 *   in it;
 * - a directory: the log file and the damaged copy in it, and the alternate event log files in it
 *   and in its subdirectory "aelfiles". What of it cannot be read is a notice of the first source.
 * Throws std::runtime_error with the name and the reason when it is none of these, holds none, or
 * cannot be read.
 */
Sources openSources(const std::string& path, const OpenOptions& options = {});

/** The sources of a file whose bytes are already in memory, by its name; as openSources(). */
Sources openBytes(const std::string& name, Bytes bytes, const OpenOptions& options = {});

/** A log, a copy of one or an alternate event log file, as it is. */
struct LogFile {
    std::string name; ///< as it was asked for, then the member within
    Kind kind = Kind::LOG;
    EvlogImage_t image;
    S64_t modified = 0;       ///< of what is in a bundle: its last change, seconds since 1970
    std::string parameters{}; ///< likewise: what the bundle says of the blade, parameters.json
    bool isMember = false;    ///< of a bundle
};

/**
 * A file, "-" or a pipe, plain or compressed; of a directory the log in it; or of a bundle all
 * logs, copies of logs and alternate event log files in it, in their order, at least one. Whether a
 * log stands in a file is not looked at.
 * @param notices receives what is wrong on the way, a line each
 * Throws std::runtime_error with the name and the reason.
 */
std::vector<LogFile> loadLogFiles(const std::string& path, std::vector<std::string>* notices);

// --- Single sources ------------------------------------------------------------------------------

/** A log file. Every readable record is given, also what the event manager's next start leaves. */
std::unique_ptr<Source> logSource(Origin origin, EvlogImage_t image, bool fileOrder = false);

/** One alternate event log file. */
std::unique_ptr<Source> alternateFileSource(Origin origin, Bytes bytes);

/** The alternate event log files of a directory, in the order of their replay; nullptr when there
 * is no name in it that one has. Throws std::system_error when it cannot be read. */
std::unique_ptr<Source> alternateDirectorySource(Origin origin, const std::string& directory);

/** The logs of an archive, of each the generations from old to new. */
Sources archiveSources(const std::string& path, const OpenOptions& options);

/** What gzip has compressed. Whatever can be had of damaged or cut data is returned.
 * @param problem receives what is wrong, nothing otherwise. Throws for more than @p most bytes */
Bytes decompress(std::span<const U8_t> compressed, size_t most,
                 std::optional<std::string>* problem);

// --- Several sources -----------------------------------------------------------------------------

/** The events of several sources in one line of time. Each source keeps its own order: an event
 * whose clock had been put back comes right behind the one before it. Of the same second, those of
 * one log come by instance and sequence id, whichever source they are in; logs, and alternate
 * events, in the order in which the sources were given. An event that another of them has given
 * already, such as a log and its copy have, is marked as a double. */
class Merge {
  public:
    explicit Merge(Sources sources);

    std::optional<Event> next();

    const Sources& sources() const { return sources_; }

  private:
    /** Where the next event of a source belongs. */
    struct Head {
        U64_t timeAndLog;
        U64_t number; ///< instance, sequence id; 0 for one that is in no log
        size_t source;
    };
    /** A source's next event, and the last log that it had one of. */
    struct Lane {
        Event next;
        std::string log{};
        U32_t logNumber = 0; ///< the first source that this log was met in
    };
    /** What no two events have in common that are not the same one. */
    struct Mark {
        U64_t content; ///< checksum of identity, fields and data; sequence id
        U64_t place;   ///< time, slot
        bool operator==(const Mark&) const = default;
    };
    struct MarkHash {
        size_t operator()(const Mark& mark) const {
            return static_cast<size_t>(mark.content ^ mark.place * 0x9E3779B97F4A7C15U);
        }
    };
    static bool isLater(const Head& left, const Head& right);
    static Mark markOf(const Event& event);
    U32_t logNumber(size_t source, const EmpEvLogHeader_t& header);
    Head headOf(size_t source);
    void fill(size_t source);

    Sources sources_;
    std::vector<Lane> lanes_;                          // by source
    std::unordered_map<std::string, U32_t> numbers_;   // of logs, by name
    std::vector<Head> heads_;                          // a heap, the earliest on top
    std::unordered_map<Mark, size_t, MarkHash> given_; // by which source
};

} // namespace sources

#endif
