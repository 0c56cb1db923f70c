#include "common/cli.h"

#include "version.h"

#include <iostream>
#include <memory>
#include <sstream>

namespace tools {
namespace {

constexpr char EXIT_STATUS_TEXT[] = "Exit status:\n"
                                    "  0  done\n"
                                    "  1  done, with a finding\n"
                                    "  2  could not";

constexpr size_t HELP_WIDTH = 96;
constexpr size_t OPTION_COLUMN = 26;

/** Breaks @p text between words and indents every line. */
std::string wrapped(const std::string& text, size_t indent) {
    std::istringstream words(text);
    std::string lines;
    size_t column = 0;
    for (std::string word; words >> word;) {
        if (column == 0 || column + 1 + word.size() > HELP_WIDTH) {
            lines += (column == 0 ? "" : "\n") + std::string(indent, ' ') + word;
            column = indent + word.size();
        } else {
            lines += " " + word;
            column += 1 + word.size();
        }
    }
    return lines + "\n";
}

/** Options as a manual page shows them: names and value on the left, what they do on the right. */
class HelpFormatter : public CLI::Formatter {
  public:
    std::string make_option(const CLI::Option* option, bool isPositional) const override {
        std::string left = "  " + make_option_name(option, isPositional) + make_option_opts(option);
        std::string text = option->get_description();
        if (!option->get_default_str().empty()) {
            text += " (default " + option->get_default_str() + ")";
        }
        std::string right = wrapped(text, OPTION_COLUMN);
        if (left.size() >= OPTION_COLUMN) {
            return left + "\n" + right;
        }
        return left + right.substr(left.size());
    }

    /** Only the value's name: checks speak for themselves when a value is refused. */
    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_type_size() == 0) {
            return "";
        }
        std::string type = option->get_type_name();
        return option->get_positional() ? "" : " " + type.substr(0, type.find(':'));
    }
};

} // namespace

void setUpCommandLine(CLI::App& app, const std::string& footer) {
    app.description(app.get_description() + "\n");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_help_all_flag("");
    app.set_version_flag(
        "--version", [] { return std::string(VersionFullString()); }, "Print the version and exit");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(footer.empty() ? EXIT_STATUS_TEXT : footer + "\n\n" + EXIT_STATUS_TEXT);
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << "\n";
        return EXIT_DONE;
    } catch (const CLI::Success& help) {
        app.exit(help);
        return EXIT_DONE;
    } catch (const CLI::Error& error) {
        sayCouldNot(app.get_name(), error.what());
        std::cerr << "Try '" << app.get_name() << " --help'.\n";
        return EXIT_COULD_NOT;
    }
}

int sayCouldNot(const std::string& program, const std::string& text) {
    std::cerr << program << ": " << text << "\n";
    return EXIT_COULD_NOT;
}

} // namespace tools
