#include "evctl/files/file_identity.h"

#include "common/cli.h"
#include "common/text.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace evctl {

void addIdentityOfFile(CLI::App& command, IdentityOfFile& options) {
    CLI::Option* enclosure =
        command.add_option("--enclosure", options.enclosure, "Enclosure id of the blade")
            ->type_name("TEXT");
    CLI::Option* slot = command.add_option("--slot", options.slot, "Slot of the blade")
                            ->type_name("NUMBER")
                            ->needs(enclosure);
    enclosure->needs(slot);
}

std::optional<EvlogIdentity_t> identityOf(const IdentityOfFile& options) {
    if (!options.enclosure) {
        return std::nullopt;
    }
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = *options.slot};
    memcpy(identity.enclosureId, options.enclosure->data(),
           std::min(options.enclosure->size(), sizeof(identity.enclosureId)));
    return identity;
}

EvlogIdentity_t identityIn(const MPU_PARAMS_t& params) {
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = params.slotId};
    memcpy(identity.enclosureId, params.chassisSN,
           std::min(sizeof(identity.enclosureId), sizeof(params.chassisSN)));
    return identity;
}

void addBladeOfFile(CLI::App& command, BladeOfFile& options) {
    addIdentityOfFile(command, options.identity);
    addKeyOption(command, options.block)
        ->excludes("--enclosure")
        ->description("Key of the parameter block of the blade that the log is to be of (decimal, "
                      "0x hexadecimal or 0 octal); else EVCTL_KEY, of a log in its directory");
}

namespace {

bool isIn(const std::string& path, const std::string& directory) {
    std::error_code error;
    const std::filesystem::path place = std::filesystem::weakly_canonical(path, error);
    const std::filesystem::path home = std::filesystem::canonical(directory, error);
    return !error && (place == home || place.parent_path() == home);
}

/** What a bundle has of the parameter block; nothing when that names no enclosure and slot as they
 * are. */
std::optional<EvlogIdentity_t> identityFrom(const std::string& parameters) {
    const nlohmann::json block = nlohmann::json::parse(parameters, nullptr, false);
    if (!block.is_object() || !block.contains("chassisSN") || !block.contains("slotId")) {
        return std::nullopt;
    }
    const nlohmann::json& enclosure = block["chassisSN"];
    const nlohmann::json& slot = block["slotId"];
    if (!enclosure.is_string() || !slot.is_number_unsigned() || slot.get<U64_t>() > UINT32_MAX) {
        return std::nullopt;
    }
    const std::string text = enclosure.get<std::string>();
    const bool isWhole = !text.empty() && text.find('\\') == std::string::npos;
    return isWhole && text != "redacted" ? identityOf(IdentityOfFile{text, slot.get<U32_t>()})
                                         : std::nullopt;
}

} // namespace

std::optional<EvlogIdentity_t> identityOf(const BladeOfFile& options, const std::string& path,
                                          const std::string& parameters) {
    if (options.identity.enclosure) {
        return identityOf(options.identity);
    }
    if (options.isOwnLog) {
        return identityIn(attachParams(options.block));
    }
    if (!options.block.given() && !parameters.empty()) {
        return identityFrom(parameters);
    }
    if (!options.block.given() && !isKeyNamed()) {
        return std::nullopt;
    }
    try {
        const MPU_PARAMS_t& params = attachParams(options.block);
        if (!options.block.given() &&
            !isIn(path, tools::fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)))) {
            return std::nullopt; // somebody else's, most likely
        }
        return identityIn(params);
    } catch (const CLI::Error&) {
        throw; // what EVCTL_KEY holds is no key
    } catch (const std::runtime_error& problem) {
        if (options.block.given()) {
            throw;
        }
        std::cerr << "evctl: judged for no blade, of EVCTL_KEY there is none: " << problem.what()
                  << "\n";
        return std::nullopt;
    }
}

} // namespace evctl
