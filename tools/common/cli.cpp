#include "common/cli.h"

#include "common/help.h"
#include "common/nearest.h"
#include "version.h"

#include <charconv>
#include <cmath>
#include <iostream>
#include <sstream>

namespace tools {
namespace {

constexpr char EXIT_STATUS_TEXT[] = "Exit status:\n"
                                    "  0  done\n"
                                    "  1  done, with a finding\n"
                                    "  2  could not";

/** The subcommands that the arguments named, the program itself first. */
std::vector<CLI::App*> namedCommands(CLI::App& app) {
    std::vector<CLI::App*> commands = {&app};
    for (;;) {
        std::vector<CLI::App*> next = commands.back()->get_subcommands();
        // Groups of options are commands without a name.
        std::erase_if(next, [](const CLI::App* command) { return command->get_name().empty(); });
        if (next.empty()) {
            return commands;
        }
        commands.push_back(next.back());
    }
}

void addOptionNames(const CLI::App& command, std::vector<std::string>& names) {
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    for (const CLI::App* group :
         command.get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
        addOptionNames(*group, names);
    }
}

/** Those that the help names. */
std::vector<std::string> commandNames(const CLI::App& command) {
    auto isShown = [](const CLI::App* each) {
        return !each->get_name().empty() && !each->get_group().empty();
    };
    std::vector<std::string> names;
    for (const CLI::App* sub : command.get_subcommands(isShown)) {
        names.push_back(sub->get_name());
    }
    return names;
}

std::string joined(const std::vector<std::string>& texts, const std::string& between) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : between) + text;
    }
    return all;
}

/** What is wrong with an argument that @p command does not know. */
std::string whyUnknown(const CLI::App& command, const std::string& argument) {
    if (argument.starts_with("-") && argument.size() > 1) {
        std::string name = argument.substr(0, argument.find('='));
        std::vector<std::string> names;
        addOptionNames(command, names);
        return "unknown option '" + name + "'" + didYouMean(name, names);
    }
    std::vector<std::string> names = commandNames(command);
    if (names.empty()) {
        return "unexpected argument '" + argument + "'";
    }
    std::string meant = didYouMean(argument, names);
    return "unknown command '" + argument + "'" +
           (meant.empty() ? "; there are " + joined(names, ", ") : meant);
}

/** What is wrong with the first argument that no command knew, if there is one. What stands behind
 * it may name another command by chance: @p commands is cut behind the one that was asked. */
std::optional<std::string> unknownArgument(std::vector<CLI::App*>& commands) {
    for (size_t at = 0; at < commands.size(); at++) {
        for (const std::string& argument : commands[at]->remaining()) {
            if (argument != "--") {
                commands.resize(at + 1);
                return whyUnknown(*commands[at], argument);
            }
        }
    }
    return std::nullopt;
}

/** Says what is wrong, and which page tells more. */
int sayWrongUse(CLI::App& app, const CLI::Error& error) {
    std::vector<CLI::App*> commands = namedCommands(app);
    std::string reason = unknownArgument(commands).value_or(error.what());
    std::vector<std::string> path;
    for (const CLI::App* command : commands) {
        path.push_back(command->get_name());
    }
    sayCouldNot(app.get_name(), reason);
    std::cerr << "Try '" << joined(path, " ") << " --help'.\n";
    return EXIT_COULD_NOT;
}

int statusOfOutput(const CLI::App& app) {
    return std::cout.flush() ? EXIT_DONE
                             : sayCouldNot(app.get_name(), "cannot write standard output");
}

template <typename Number>
std::optional<Number> parsed(const std::string& text) {
    Number number{};
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    bool whole = error == std::errc() && stop == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

std::string shortNumber(double number) {
    std::ostringstream text;
    text << number;
    return text.str();
}

} // namespace

void setUpCommandLine(CLI::App& app, const std::string& footer) {
    app.description(app.get_description() + "\n");
    // What comes later, such as behind an alias, goes before.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_help_all_flag("");
    app.set_version_flag(
        "--version", [] { return std::string(VersionFullString()); }, "Print the version and exit");
    app.formatter(makeHelpFormatter());
    app.footer(footer.empty() ? EXIT_STATUS_TEXT : footer + "\n\n" + EXIT_STATUS_TEXT);
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << "\n";
        return statusOfOutput(app);
    } catch (const CLI::Success& help) {
        app.exit(help);
        return statusOfOutput(app);
    } catch (const CLI::Error& error) {
        return sayWrongUse(app, error);
    }
}

CLI::Validator wholeNumber(U64_t min, U64_t max) {
    std::string range = max == UINT64_MAX
                            ? "from " + std::to_string(min) + " on"
                            : "from " + std::to_string(min) + " to " + std::to_string(max);
    auto check = [min, max, range](const std::string& text) -> std::string {
        std::optional<U64_t> number = parsed<U64_t>(text);
        bool fits = number && *number >= min && *number <= max;
        return fits ? "" : "'" + text + "' is not a whole number " + range;
    };
    return CLI::Validator(check, "");
}

CLI::Validator decimalNumber(double min, double max) {
    std::string range = "from " + shortNumber(min) + " to " + shortNumber(max);
    auto check = [min, max, range](const std::string& text) -> std::string {
        std::optional<double> number = parsed<double>(text);
        // Not a number compares false.
        bool fits = number && *number >= min && *number <= max;
        return fits ? "" : "'" + text + "' is not a number " + range;
    };
    return CLI::Validator(check, "");
}

CLI::Validator notEmpty() {
    return CLI::Validator(
        [](const std::string& text) -> std::string { return text.empty() ? "is empty" : ""; }, "");
}

} // namespace tools
