/** evctl complete: the values that may stand behind the words of a command line, for shells. */
#include "catalog/advice.h"
#include "common/names.h"
#include "evctl/commands.h"
#include "evctl/wire/running_blades.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <vector>

namespace evctl {
namespace {

using Words = std::vector<std::string>;

struct CompleteOptions {
    std::string words;
};

Words wordsOf(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

Words namesOf(const tools::NameTable& table) {
    Words names;
    for (const tools::EnumName& row : table.rows()) {
        names.emplace_back(row.brief);
    }
    return names;
}

Words keysOfRunningBlades() {
    Words keys;
    std::ifstream table(SHARED_MEMORY_TABLE);
    for (const RunningBlade& blade : runningBlades(table)) {
        std::ostringstream key;
        key << "0x" << std::hex << static_cast<U32_t>(blade.key);
        keys.push_back(key.str());
    }
    return keys;
}

Words verdicts() {
    Words names;
    for (const catalog::Advice& advice : catalog::allAdvice()) {
        if (advice.isVerdict()) {
            names.push_back(advice.name);
        }
    }
    return names;
}

/** @param words those in front, the program left out, at least one */
Words valuesBehind(const Words& words) {
    const std::string& last = words.back();
    if (last == "--type") {
        return namesOf(tools::eventTypeNames);
    }
    if (last == "--category") {
        return namesOf(tools::categoryNames);
    }
    const bool isSourceAsked = words.size() == 2 && words[0] == "catalog" && last == "show";
    if (last == "--source" || last == "--endpoint" || isSourceAsked) {
        return namesOf(tools::endpointNames);
    }
    if (last == "--key") {
        return keysOfRunningBlades();
    }
    return words.size() == 1 && last == "explain" ? verdicts() : Words{};
}

int runComplete(const CompleteOptions& options) {
    const Words words = wordsOf(options.words);
    const Words values = words.empty() ? Words{} : valuesBehind(words);
    for (const std::string& value : values) {
        std::cout << value << "\n";
    }
    return values.empty() ? tools::EXIT_FINDING : tools::EXIT_DONE;
}

} // namespace

void addCompleteCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<CompleteOptions>();
    CLI::App& command = addCommand(parent, "complete",
                                   "For shells: the values that may stand behind these words.", "");
    command.group(""); // not in the help
    command.add_option("--words", options->words, "The words, the program left out")->required();
    onChosen(command, chosen, options, runComplete);
}

} // namespace evctl
