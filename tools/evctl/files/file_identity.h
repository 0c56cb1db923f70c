/**
 * @file
 * The blade that a log file is judged for.
 */
#ifndef EVCTL_FILE_IDENTITY_H
#define EVCTL_FILE_IDENTITY_H

#include "common/cli.h"
#include "evlog/evlog.h"

#include <optional>
#include <string>

namespace evctl {

/** Enclosure and slot: both or none. */
struct IdentityOfFile {
    std::optional<std::string> enclosure;
    std::optional<U32_t> slot;
};

/** Adds --enclosure and --slot. */
void addIdentityOfFile(CLI::App& command, IdentityOfFile& options);

/** What they name; nothing when they are not given. */
std::optional<EvlogIdentity_t> identityOf(const IdentityOfFile& options);

} // namespace evctl

#endif
