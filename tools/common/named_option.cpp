#include "common/named_option.h"

#include "common/cli.h"
#include "common/nearest.h"

namespace tools {

void refuseName(const std::string& option, const std::string& text,
                const std::vector<std::string>& known, U32_t max) {
    const char* what =
        known.empty() ? "' is no number up to " : "' is neither a name nor a number up to ";
    throw CLI::ValidationError(option,
                               "'" + text + what + std::to_string(max) + didYouMean(text, known));
}

U32_t parseNamed(const std::string& option, const std::string& text, const NameTable& names,
                 U32_t max) {
    std::optional<U32_t> value = names.valueOrNumber(text, max);
    if (!value) {
        std::vector<std::string> known;
        for (const EnumName& row : names.rows()) {
            known.emplace_back(row.brief);
        }
        refuseName(option, text, known, max);
    }
    return *value;
}

CLI::Option* addNamedOption(CLI::App& command, const std::string& flags, U32_t& value,
                            const NameTable& names, U32_t max, const std::string& description) {
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

} // namespace tools
