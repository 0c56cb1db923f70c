#include "common/cli.h"

#include "version.h"

#include <iostream>

namespace tools {
namespace {

constexpr char EXIT_STATUS_TEXT[] = "Exit status:\n"
                                    "  0  done\n"
                                    "  1  done, with a finding\n"
                                    "  2  could not";

} // namespace

void setUpCommandLine(CLI::App& app, const std::string& footer) {
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_help_all_flag("");
    app.set_version_flag("--version", [] { return std::string(VersionFullString()); });
    app.get_formatter()->column_width(34);
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
