/**
 * @file
 * The alternate event log files of a directory, as the event manager's next start will meet them.
 *
 * Everything is only read. Between the look and the start files may come; two files of the same
 * second are replayed in the order in which the directory lists them, which need not stay.
 */
#ifndef SOURCES_ALTERNATE_FILES_H
#define SOURCES_ALTERNATE_FILES_H

#include "sources/source.h"

#include <optional>
#include <string>
#include <vector>

namespace sources {

/** What the next start does with a file. */
enum class AelFate {
    STORED,  ///< its event goes into the log, then it is deleted
    DELETED, ///< deleted, nothing is stored
    STAYS,   ///< left where it is
    UNKNOWN, ///< it cannot be read from here
};

/** A name found in the directory. */
struct AelFile {
    std::string name;
    U64_t size = 0;
    S64_t modified = 0; ///< seconds since 1970
    AelFate fate = AelFate::DELETED;
    std::string reason;         ///< why it is not stored; empty when it is
    std::vector<U8_t> bytes;    ///< header and announced data; only the header when these are cut
    std::optional<U32_t> order; ///< place among the stored ones, from 1

    /** Whether a whole header was read. */
    bool hasHeader() const { return bytes.size() >= EMP_RECORD_SIZE; }
    const EmpEvRecord_t& header() const {
        return *reinterpret_cast<const EmpEvRecord_t*>(bytes.data());
    }
    std::span<const U8_t> data() const { return std::span(bytes).subspan(EMP_RECORD_SIZE); }
    EventView event() const;
};

/**
 * Looks at every name in a directory but "." and "..".
 * @return the files in the order of their replay, those behind that are never replayed; throws
 * std::system_error when the directory cannot be read
 */
std::vector<AelFile> readAelDirectory(const std::string& directory);

/** Puts files that have been judged in the order of their replay, those behind that are never
 * replayed, and numbers those that are stored. @param files in the order in which they were found
 */
std::vector<AelFile> inOrderOfReplay(std::vector<AelFile> files);

/** Takes the alternate event log files out of @p files, such as those of a bundle, judged and in
 * the order of their replay. */
std::vector<AelFile> takeAlternates(std::vector<LogFile>& files);

/** What the next start makes of a file's first bytes, its size being more than 0: fate and reason.
 * @param bytes as much of the file as can be looked at, cut to header and data by this call */
void judgeAelFile(AelFile& file);

const char* aelFateName(AelFate fate); ///< "stored", "deleted", "stays", "unknown"

} // namespace sources

#endif
