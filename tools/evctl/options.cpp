#include "evctl/options.h"

#include "common/nearest.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace evctl {

namespace {

// The event manager refuses smaller keys, and key 0 would make a new segment.
constexpr int KEY_MIN = 100;

int parseKey(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    long key = strtol(text.c_str(), &end, 0);
    if (errno != 0 || text.empty() || *end != '\0' || key < KEY_MIN || key > INT32_MAX) {
        throw CLI::ValidationError("--key", "'" + text + "' is not a key: a number from 100 on");
    }
    return static_cast<int>(key);
}

} // namespace

CLI::Option* addKeyOption(CLI::App& command, std::optional<int>& key) {
    return command
        .add_option_function<std::string>(
            "--key", [&key](const std::string& text) { key = parseKey(text); },
            "Key of the blade's parameter block (decimal, 0x hexadecimal or 0 octal)")
        ->type_name("KEY");
}

void addSwitchOptions(CLI::App& command, SwitchOptions& options) {
    CLI::Option_group* where = command.add_option_group("Message switch");
    where->add_option("--dir", options.directory, "Directory of the message switch's sockets")
        ->type_name("DIR");
    addKeyOption(*where, options.key);
    where->require_option(1);
}

const MPU_PARAMS_t& attachParams(int key) {
    const MPU_PARAMS_t* params = MPU_getMpuParams(key);
    if (params == nullptr) {
        throw std::runtime_error("no parameter block under key " + std::to_string(key));
    }
    return *params;
}

std::string switchDirectory(const SwitchOptions& options) {
    if (!options.key) {
        return options.directory;
    }
    const MPU_PARAMS_t& params = attachParams(*options.key);
    return fieldText(params.mmsgDirectory, sizeof(params.mmsgDirectory));
}

U32_t parseNamed(const std::string& option, const std::string& text, const tools::NameTable& names,
                 U32_t max) {
    std::optional<U32_t> value = names.valueOrNumber(text, max);
    if (!value) {
        std::vector<std::string> known;
        for (const tools::EnumName& row : names.rows()) {
            known.emplace_back(row.brief);
        }
        throw CLI::ValidationError(option, "'" + text + "' is neither a name nor a number up to " +
                                               std::to_string(max) +
                                               tools::didYouMean(text, known));
    }
    return *value;
}

CLI::Option* addNamedOption(CLI::App& command, const std::string& flags, U32_t& value,
                            const tools::NameTable& names, U32_t max,
                            const std::string& description) {
    return command
        .add_option_function<std::string>(
            flags,
            [&value, &names, flags, max](const std::string& text) {
                value = parseNamed(flags, text, names, max);
            },
            description)
        ->default_str(names.brief(value))
        ->type_name("NAME|NUMBER");
}

std::string fieldText(const void* field, size_t size) {
    const auto* text = static_cast<const char*>(field);
    return {text, strnlen(text, size)};
}

} // namespace evctl
