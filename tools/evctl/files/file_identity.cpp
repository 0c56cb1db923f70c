#include "evctl/files/file_identity.h"

#include <algorithm>
#include <cstring>

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

} // namespace evctl
