/** evctl complete: the values that may stand behind the words of a command line, for shells. */
#include "catalog/advice.h"
#include "catalog/event_names.h"
#include "common/names.h"
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/wire/blade_options.h"
#include "evctl/wire/running_blades.h"
#include "mmsg.h"

#include <algorithm>
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
    std::string current;
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
        keys.push_back(tools::keyText(blade.key));
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

/** The value that an option among the words has; empty: it is not there. */
std::string valueOf(const Words& words, const std::string& option) {
    const auto at = std::ranges::find(words, option);
    return at != words.end() && at + 1 != words.end() ? *(at + 1) : "";
}

/** Of the source that is named; else of the one that events get when none is, or of all. */
Words namesOfIds(const Words& words) {
    const bool isOne = words[0] == "log" || (words[0] == "ael" && words.at(1) == "write");
    std::string source = valueOf(words, "--source");
    if (source.empty() && isOne) {
        source = std::to_string(static_cast<U32_t>(MMSG_E_EPID_SNMPMP));
    }
    const std::optional<U32_t> only = tools::endpointNames.valueOrNumber(source, UINT8_MAX);
    Words names;
    for (U32_t each = only.value_or(0); each <= only.value_or(UINT8_MAX); each++) {
        std::ranges::copy(catalog::eventNames(each), std::back_inserter(names));
    }
    return names;
}

/** What the parameter block of the blade that is meant has for an option; nothing when none is. */
Words valueOfBlade(const Words& words, const std::string& option) {
    KeyOptions block;
    const std::string key = valueOf(words, "--key");
    try {
        block.key = key.empty() ? keyOf({}) : parseKey("--key", key);
        const MPU_PARAMS_t& params = attachParams(block);
        const std::string value =
            option == "--enclosure" ? tools::fieldText(params.chassisSN, sizeof(params.chassisSN))
            : option == "--blade"   ? tools::fieldText(params.serialStr, sizeof(params.serialStr))
                                    : std::to_string(params.slotId);
        return {tools::escapedText(value)};
    } catch (const std::exception&) {
        return {};
    }
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
    if (last == "--id") {
        return namesOfIds(words);
    }
    if (last == "--key") {
        return keysOfRunningBlades();
    }
    if (last == "--enclosure" || last == "--blade" || last == "--slot") {
        return valueOfBlade(words, last);
    }
    return words.size() == 1 && last == "explain" ? verdicts() : Words{};
}

int runComplete(const CompleteOptions& options) {
    const Words words = wordsOf(options.words);
    const Words values = words.empty() ? Words{} : valuesBehind(words);
    const size_t comma = options.current.rfind(',');
    const std::string before =
        comma == std::string::npos ? "" : options.current.substr(0, comma + 1);
    for (const std::string& value : values) {
        std::cout << before << value << "\n";
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
    command.add_option("--current", options->current,
                       "What stands of the word to come: of a list, the items before the last");
    onChosen(command, chosen, options, runComplete);
}

} // namespace evctl
