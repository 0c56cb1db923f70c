#include "common/help.h"

#include "common/names.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr size_t OPTION_COLUMN = 26;
constexpr size_t WIDTH_DEFAULT = 80;
constexpr size_t WIDTH_MIN = 40;
constexpr size_t WIDTH_MAX = 120;

/** Breaks @p text between words and indents every line. */
std::string wrapped(const std::string& text, size_t indent) {
    size_t width = helpWidth();
    std::istringstream words(text);
    std::string lines;
    size_t column = 0;
    for (std::string word; words >> word;) {
        if (column == 0 || column + 1 + word.size() > width) {
            lines += (column == 0 ? "" : "\n") + std::string(indent, ' ') + word;
            column = indent + word.size();
        } else {
            lines += " " + word;
            column += 1 + word.size();
        }
    }
    return lines + "\n";
}

/** What stands on the left of a line, and what is said of it on the right. */
std::string twoColumns(const std::string& left, const std::string& text) {
    // A narrow terminal has no room for two columns.
    size_t column = helpWidth() < 2 * OPTION_COLUMN ? OPTION_COLUMN / 3 : OPTION_COLUMN;
    std::string right = wrapped(text, column);
    return left.size() >= column ? left + "\n" + right : left + right.substr(left.size());
}

/** Wraps the lines that are no examples: those are indented, and stay as they are. What does not
 * fit on a line goes on with the next one, unless that is a title. */
std::string paragraphs(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    std::string rest; // of the line before
    for (std::string line; std::getline(lines, line);) {
        bool isProse = !line.empty() && line.front() != ' ' && line.back() != ':';
        if (!rest.empty()) {
            result += isProse ? "" : rest + "\n";
            line = isProse ? rest + " " + line : line;
            rest.clear();
        }
        bool fits = !isProse || line.size() <= helpWidth();
        std::string shown = fits ? line + "\n" : wrapped(line, 0);
        if (!fits) {
            size_t last = shown.rfind('\n', shown.size() - 2) + 1;
            rest = shown.substr(last, shown.size() - last - 1);
            shown.resize(last);
        }
        result += shown;
    }
    return result + (rest.empty() ? "" : rest + "\n");
}

/** The value's name as the program gave it: the library adds what the checks say of themselves. */
std::string typeNameOf(const CLI::Option& option) {
    std::string type = option.get_type_name();
    std::string checks;
    // The accessor lacks const; nothing is changed.
    auto& asked = const_cast<CLI::Option&>(option);
    try {
        for (int index = 0;; index++) {
            std::string check = asked.get_validator(index)->get_description();
            checks += check.empty() ? "" : ":" + check;
        }
    } catch (const CLI::OptionNotFound&) {
        return type.ends_with(checks) ? type.substr(0, type.size() - checks.size()) : type;
    }
}

class HelpFormatter : public CLI::Formatter {
  public:
    std::string make_option(const CLI::Option* option, bool isPositional) const override {
        std::string text = option->get_description();
        if (option->get_required()) {
            text += " (required)";
        }
        if (!option->get_default_str().empty()) {
            text += " (default " + option->get_default_str() + ")";
        }
        return twoColumns("  " + make_option_name(option, isPositional) + make_option_opts(option),
                          text);
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_items_expected_max() == 0) { // a flag
            return "";
        }
        if (option->get_positional()) {
            return typeNameOf(*option) == "TEXT" ? "" : " " + typeNameOf(*option);
        }
        std::string type = typeNameOf(*option);
        return option->get_expected_min() == 0 ? "[=" + type + "]" : " " + type;
    }

    std::string make_subcommand(const CLI::App* command) const override {
        return twoColumns("  " + command->get_name(), command->get_description());
    }

    /** A group of options, of which not any number may be given. */
    std::string make_expanded(const CLI::App* group) const override {
        const size_t least = group->get_require_option_min();
        std::string help = "\n" + group->get_group();
        if (group->get_require_option_max() == 1) {
            help += least == 1 ? ", one of these" : ", at most one of these";
        }
        help += ":\n";
        for (const CLI::Option* option : group->get_options()) {
            help += option == group->get_help_ptr() ? "" : make_option(option, false);
        }
        return help;
    }

    std::string make_description(const CLI::App* app) const override {
        return paragraphs(CLI::Formatter::make_description(app));
    }

    std::string make_footer(const CLI::App* app) const override {
        return paragraphs(CLI::Formatter::make_footer(app));
    }
};

} // namespace

size_t helpWidth() {
    struct winsize size {};
    size_t columns = WIDTH_DEFAULT;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
        columns = size.ws_col;
    } else if (const char* text = getenv("COLUMNS"); text != nullptr) {
        columns = parseNumber(text, UINT32_MAX).value_or(WIDTH_DEFAULT);
    }
    return std::clamp(columns, WIDTH_MIN, WIDTH_MAX);
}

std::shared_ptr<CLI::FormatterBase> makeHelpFormatter() {
    return std::make_shared<HelpFormatter>();
}

} // namespace tools
