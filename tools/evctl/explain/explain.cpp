/** evctl explain: what an operator is told of a bug-check or a verdict. */
#include "catalog/advice.h"
#include "common/cli.h"
#include "common/text.h"
#include "evctl/paged_command.h"
#include "evctl/views/lines.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char EXPLAIN_EXAMPLES[] =
    "Several words are one text. The exit status is 1 when nothing has it.\n"
    "Examples:\n"
    "  evctl explain Mismatching empStartSequenceId in Event Entry!\n"
    "  evctl explain bad-source";

constexpr size_t EXPLAIN_WIDTH = 14;

struct ExplainOptions {
    std::vector<std::string> words;
    bool json = false;
};

Json adviceJson(const catalog::Advice& advice) {
    return {{"kind", advice.isVerdict() ? "verdict" : "bug-check"},
            {"name", advice.name},
            {"functions", advice.isVerdict() ? Json(nullptr) : Json(advice.functions)},
            {"meaning", advice.meaning},
            {"whatToDo", advice.whatToDo}};
}

std::string adviceLines(const catalog::Advice& advice) {
    Json lines = {{advice.isVerdict() ? "verdict" : "bug-check", advice.name}};
    if (!advice.isVerdict()) {
        lines["functions"] = advice.functions;
    }
    lines["meaning"] = advice.meaning;
    lines["what to do"] = advice.whatToDo;
    return namedLines(lines, EXPLAIN_WIDTH);
}

int runExplain(const ExplainOptions& options) {
    std::string text;
    for (const std::string& word : options.words) {
        text += (text.empty() ? "" : " ") + word;
    }
    std::vector<const catalog::Advice*> found = catalog::adviceMeantBy(text);
    for (const catalog::Advice* advice : found) {
        if (options.json) {
            std::cout << jsonLine(adviceJson(*advice));
        } else {
            std::cout << (advice == found.front() ? "" : "\n") << adviceLines(*advice);
        }
    }
    if (!found.empty()) {
        return tools::EXIT_DONE;
    }
    std::optional<std::string> nearest = catalog::adviceNearestTo(text);
    std::cerr << "evctl: nothing is known of '" << tools::escapedUtf8(text) << "'"
              << (nearest ? "; did you mean '" + *nearest + "'?" : "") << "\n";
    return tools::EXIT_FINDING;
}

} // namespace

void addExplainCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<ExplainOptions>();
    CLI::App& command =
        addCommand(parent, "explain", "Say what a bug-check or a verdict means.", EXPLAIN_EXAMPLES);
    command
        .add_option("TEXT", options->words,
                    "A bug-check's message, or a part of it; or a verdict of 'evctl file predict'")
        ->required()
        ->check(tools::notEmpty());
    command.add_flag("--json", options->json, "One JSON object a line");
    onChosenPaged(command, chosen, options, runExplain);
}

} // namespace evctl
