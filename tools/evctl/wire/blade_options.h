/**
 * @file
 * Options that say which blade is meant.
 */
#ifndef EVCTL_BLADE_OPTIONS_H
#define EVCTL_BLADE_OPTIONS_H

#include "common/cli_fwd.h"
#include "mpu_gbl.h"

#include <optional>
#include <string>

namespace evctl {

/** The event manager refuses smaller keys, and key 0 would make a new segment. */
constexpr int KEY_MIN = 100;

/** The parameter block that is meant: of the option, else of EVCTL_KEY, else of the only blade that
 * runs here. */
struct KeyOptions {
    std::optional<int> key;
    bool anyOwner = false; ///< also one that another user than this one and root has made
    /** For a command without --key and --any-owner: how else one is named. */
    const char* otherName = nullptr;

    bool given() const { return key.has_value(); }
};

/** Where the message switch is: its directory (of the option, else of EVCTL_DIR), or the parameter
 * block that names it. */
struct SwitchOptions {
    std::string directory;
    KeyOptions block;
};

/** Adds --dir and --key, of which one may be given. */
void addSwitchOptions(CLI::App& command, SwitchOptions& options);

/**
 * For commands that need more of a blade than its switch: fixes the block, of which the switch is
 * then taken, too, so that no two blades are mixed up.
 * Throws CLI::ValidationError of @p who with @p why ("needs --key: ...") when only the directory of
 * a switch is named, and as keyOf().
 */
void requireBlock(SwitchOptions& options, const std::string& who, const std::string& why);

/** The switch's directory. Throws when the parameter block cannot be attached. */
std::string switchDirectory(const SwitchOptions& options);

/** Adds --key and --any-owner. @return the first, for further demands on it */
CLI::Option* addKeyOption(CLI::App& command, KeyOptions& options);

/** A key as --key takes it; throws CLI::ValidationError of @p where. */
int parseKey(const std::string& where, const std::string& text);

/** Whether EVCTL_KEY names one. */
bool isKeyNamed();

/** The key that is meant; throws when none is named and not just one blade runs here. */
int keyOf(const KeyOptions& options);

/** Attaches the parameter block; throws when there is none, when it cannot (the library having said
 * why), when none is named and not just one blade runs here, and when somebody else has made the
 * block: what stands in it decides where is read and written. */
const MPU_PARAMS_t& attachParams(const KeyOptions& options);

} // namespace evctl

#endif
