/**
 * @file
 * What the file subcommands share.
 */
#ifndef EVCTL_FILE_H
#define EVCTL_FILE_H

#include "common/cli.h"
#include "evlog/evlog.h"

#include <string>
#include <vector>

namespace evctl {

/** Adds the positional argument FILE. */
void addFileArgument(CLI::App& command, std::string& path);

/** Reads a log file; throws when it cannot be read, or is no event log. */
EvlogImage_t loadLog(const std::string& path);

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
