/**
 * @file
 * The blade that a log file is judged for.
 */
#ifndef EVCTL_FILE_IDENTITY_H
#define EVCTL_FILE_IDENTITY_H

#include "common/cli_fwd.h"
#include "evctl/wire/blade_options.h"
#include "evlog/evlog.h"

#include <optional>
#include <string>

namespace evctl {

/** Enclosure and slot: both or none. */
struct IdentityOfFile {
    std::optional<std::string> enclosure;
    std::optional<U32_t> slot;
};

/** The same, or by the key of a parameter block. */
struct BladeOfFile {
    IdentityOfFile identity;
    KeyOptions block;
    bool isOwnLog = false; ///< the log is that of the blade that is meant when none is named
};

/** Adds --enclosure and --slot. */
void addIdentityOfFile(CLI::App& command, IdentityOfFile& options);

/** What they name; nothing when they are not given. */
std::optional<EvlogIdentity_t> identityOf(const IdentityOfFile& options);

/** The identity that the event manager of a parameter block has. */
EvlogIdentity_t identityIn(const MPU_PARAMS_t& params);

/** Adds --enclosure and --slot, and --key instead. */
void addBladeOfFile(CLI::App& command, BladeOfFile& options);

/** What they name; else the blade of which it is the own log, or its bundle; else the block of
 * EVCTL_KEY, of a log in its directory; nothing when none is named. Throws when there is no such
 * block; that of EVCTL_KEY need not be there, which standard error says.
 * @param path of the log
 * @param parameters what its bundle says of the blade; may be anything, or empty */
std::optional<EvlogIdentity_t> identityOf(const BladeOfFile& options, const std::string& path,
                                          const std::string& parameters);

} // namespace evctl

#endif
