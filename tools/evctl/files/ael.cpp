/** evctl ael: the events that wait for the event manager's next start. */
#include "evctl/commands.h"

namespace evctl {

void addAelCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group =
        addCommandGroup(parent, "ael", "Events that wait for the event manager's next start.");
    addAelWriteCommand(group, chosen);
    addAelListCommand(group, chosen);
    addAelShowCommand(group, chosen);
}

} // namespace evctl
