#include "evctl/wire/blade_options.h"

#include "common/cli.h"
#include "common/text.h"
#include "evctl/wire/running_blades.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace evctl {
namespace {

/** A variable of the environment; one that is empty names nothing. */
const char* named(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/** Before the library is asked, which has lines of its own for a block that is not there, and the
 * same ones for one that may not be read. */
void checkMayRead(int key) {
    struct shmid_ds segment {};
    const int id = shmget(key, 0, 0);
    if (id < 0 && errno == ENOENT) {
        throw std::runtime_error("no parameter block under key " + tools::keyText(key));
    }
    if (id >= 0 && shmctl(id, IPC_STAT, &segment) != 0 && errno == EACCES) {
        throw std::runtime_error("the parameter block under key " + tools::keyText(key) +
                                 " is another user's: " + strerror(EACCES));
    }
}

/** Maker and owner: the one could, the other can, write into it. */
void checkOwner(const KeyOptions& options, int key, const struct ipc_perm& segment) {
    for (uid_t user : {segment.cuid, segment.uid}) {
        if (!options.anyOwner && user != 0 && user != geteuid()) {
            throw std::runtime_error("the parameter block under key " + tools::keyText(key) +
                                     " belongs to user " + std::to_string(user) +
                                     "; --any-owner takes it all the same");
        }
    }
}

} // namespace

int parseKey(const std::string& where, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    long key = strtol(text.c_str(), &end, 0);
    if (errno != 0 || text.empty() || *end != '\0' || key < KEY_MIN || key > INT32_MAX) {
        throw CLI::ValidationError(where, "'" + text + "' is not a key: a number from 100 on");
    }
    return static_cast<int>(key);
}

CLI::Option* addKeyOption(CLI::App& command, KeyOptions& options) {
    // Not within an option group, which would count it.
    CLI::App& whole = command.get_name().empty() ? *command.get_parent() : command;
    whole.add_flag("--any-owner", options.anyOwner,
                   "Take a parameter block that another user than you and root has made");
    std::optional<int>& key = options.key;
    return command
        .add_option_function<std::string>(
            "--key", [&key](const std::string& text) { key = parseKey("--key", text); },
            "Key of the blade's parameter block (decimal, 0x hexadecimal or 0 octal); else "
            "EVCTL_KEY, or else the only running blade's")
        ->type_name("KEY");
}

void addSwitchOptions(CLI::App& command, SwitchOptions& options) {
    CLI::Option_group* where = command.add_option_group("Message switch");
    where
        ->add_option("--dir", options.directory,
                     "Directory of the message switch's sockets; else EVCTL_DIR")
        ->type_name("DIR");
    addKeyOption(*where, options.block);
    where->require_option(0, 1);
}

bool isKeyNamed() {
    return named("EVCTL_KEY") != nullptr;
}

int keyOf(const KeyOptions& options) {
    if (options.key) {
        return *options.key;
    }
    const char* key = named("EVCTL_KEY");
    return key != nullptr ? parseKey("EVCTL_KEY", key) : onlyRunningBlade(options);
}

const MPU_PARAMS_t& attachParams(const KeyOptions& options) {
    int key = keyOf(options);
    checkMayRead(key);
    int id = -1;
    const MPU_PARAMS_t* params = MPU_getMpuParamsAndShmid(&id, key);
    if (params == nullptr) {
        throw std::runtime_error("no parameter block under key " + tools::keyText(key));
    }
    struct shmid_ds segment {};
    if (shmctl(id, IPC_STAT, &segment) != 0) {
        throw std::runtime_error(std::string("shmctl: ") + strerror(errno));
    }
    checkOwner(options, key, segment.shm_perm);
    return *params;
}

std::string switchDirectory(const SwitchOptions& options) {
    if (!options.block.given() && !options.directory.empty()) {
        return options.directory;
    }
    const char* directory = named("EVCTL_DIR");
    if (!options.block.given() && directory != nullptr) {
        return directory;
    }
    const MPU_PARAMS_t& params = attachParams(options.block);
    return tools::fieldText(params.mmsgDirectory, sizeof(params.mmsgDirectory));
}

void requireBlock(SwitchOptions& options, const std::string& who, const std::string& why) {
    if (options.block.given()) {
        return;
    }
    bool hasDirectory = !options.directory.empty() ||
                        (named("EVCTL_DIR") != nullptr && named("EVCTL_KEY") == nullptr);
    if (hasDirectory) {
        throw CLI::ValidationError(
            who, why + (options.directory.empty() ? ", not EVCTL_DIR" : ", not --dir"));
    }
    options.block.key = keyOf(options.block);
}

} // namespace evctl
