/**
 * @file
 * What the file subcommands share.
 */
#ifndef EVCTL_FILE_H
#define EVCTL_FILE_H

#include "common/cli_fwd.h"
#include "evctl/files/file_identity.h"
#include "evlog/evlog.h"
#include "sources/source.h"

#include <string>
#include <vector>

namespace evctl {

/** The log of the blade that @p block means. Throws. */
std::string ownLog(const KeyOptions& block = {.key = {}, .otherName = "EVCTL_KEY"});

/** Adds the positional argument FILE; when it is not there, ownLog() is meant.
 * @param blade of a command with addBladeOfFile(), by which that log is then named, too; told
 * whether it is meant; nullptr: there is none */
void addFileArgument(CLI::App& command, std::string& path, BladeOfFile* blade = nullptr);

/** What a file holds, compressed or a bundle as it may be; what is wrong on the way goes to
 * standard error. Throws when it cannot be read.
 * @param status raised to a finding when something is wrong; nullptr: not wanted */
std::vector<sources::LogFile> loadLogFiles(const std::string& path, int* status = nullptr);

/** Of what loadLogFiles() has given the log: that which is no member of a bundle, be it what it
 * may, or the member of that name; nullptr when there is none. */
sources::LogFile* logAmong(std::vector<sources::LogFile>& files);

/** Reads a file that the event manager may be given as its log; of a bundle the log in it. Throws
 * when it cannot be read, or is a bundle without a log. */
EvlogImage_t loadAnyLog(const std::string& path, int* status = nullptr);

/** The same with what its bundle says of it. */
sources::LogFile loadLogFile(const std::string& path, int* status);

/** loadAnyLog(); throws also when it is no event log. */
EvlogImage_t loadLog(const std::string& path, int* status = nullptr);

/** Throws when a file is no event log. */
void requireLog(const std::string& name, const EvlogImage_t& image);

/** All of a log file; the records lead into its image. */
struct LogContent {
    EvlogState_t state;
    std::vector<EvlogRecord_t> records; ///< in the order of the file, dummy entries included
    std::vector<EvlogFinding_t> findings;
};

/** The exit status of a reader: a damaged file is a finding. */
int statusOf(const LogContent& content);

LogContent readLog(const EvlogImage_t& image, const EvlogIdentity_t* identity = nullptr);

/** Oldest first: the ring's oldest records lie behind its newest ones. */
void sortByAge(std::vector<EvlogRecord_t>& records);

} // namespace evctl

#endif
