/**
 * @file
 * Commands that print pages for people.
 */
#ifndef EVCTL_PAGED_COMMAND_H
#define EVCTL_PAGED_COMMAND_H

#include "evctl/commands.h"
#include "evctl/views/pager.h"

namespace evctl {

/** onChosen() for a command that prints pages for people: through a pager, unless --no-pager, which
 * it adds, is given. */
template <typename Options>
void onChosenPaged(CLI::App& command, Chosen& chosen, std::shared_ptr<Options> options,
                   int (*run)(const Options&)) {
    auto noPager = std::make_shared<bool>(false);
    addPagerOption(command, *noPager);
    command.callback([&chosen, options, run, noPager] {
        chosen.run = [options, run, noPager] {
            return runPaged(!*noPager, [&] { return run(*options); });
        };
    });
}

} // namespace evctl

#endif
