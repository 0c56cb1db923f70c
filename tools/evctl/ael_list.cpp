/** evctl ael list and evctl ael show: what the event manager's next start will find. */
#include "catalog/event_text.h"
#include "common/names.h"
#include "evctl/commands.h"
#include "evctl/event_json.h"
#include "evctl/listing.h"
#include "evctl/options.h"
#include "sources/alternate_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

namespace evctl {
namespace {

using sources::AelFate;
using sources::AelFile;

constexpr char LIST_EXAMPLES[] =
    "The exit status is 1 when the next start will delete something without storing it.\n"
    "Examples:\n"
    "  evctl ael list --key 0x1234\n"
    "  evctl ael list --dir /nvram/aelfiles --type error --since -1d -o csv";
constexpr char SHOW_EXAMPLES[] =
    "Examples:\n"
    "  evctl ael show --key 0x1234\n"
    "  evctl ael show --dir /nvram/aelfiles kelta_alteventlog77.a1B2c3";

struct AelOptions {
    std::string directory;
    KeyOptions block;
    std::vector<std::string> names; ///< show: only these
    bool json = false;              ///< show
    ListingOptions listing;         ///< list: filters, order and output of them
};

std::vector<AelFile> filesOf(const AelOptions& options) {
    if (!options.directory.empty()) {
        return sources::readAelDirectory(options.directory);
    }
    const MPU_PARAMS_t& params = attachParams(options.block);
    try {
        return sources::readAelDirectory(
            fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)) +
            EMP_AEL_DIRECTORY_NAME);
    } catch (const std::system_error& problem) {
        if (problem.code() == std::errc::no_such_file_or_directory) {
            return {}; // The first event that is left makes the directory.
        }
        throw;
    }
}

std::string orderText(const AelFile& file) {
    return file.order ? std::to_string(*file.order) : "-";
}

std::string verdictText(const AelFile& file) {
    std::string fate = sources::aelFateName(file.fate);
    return file.reason.empty() ? fate : fate + ": " + file.reason;
}

/** What the names of a shell do not show may come from anywhere. */
std::string nameText(const std::string& name) {
    return escapedText({reinterpret_cast<const U8_t*>(name.data()), name.size()});
}

/** Beside a local time, one that no event can have is told in UTC. */
std::string timeOfFile(S64_t seconds, Zone zone) {
    return seconds >= 0 && seconds <= UINT32_MAX ? zonedTime(static_cast<U32_t>(seconds), zone)
                                                 : isoTimeOfFile(seconds);
}

std::string listLine(const AelFile& file, Zone zone) {
    std::array<char, 80> text{};
    snprintf(text.data(), text.size(), "%4s  %s  %8llu bytes  ", orderText(file).c_str(),
             timeOfFile(file.modified, zone).c_str(), static_cast<unsigned long long>(file.size));
    std::string line = text.data() + nameText(file.name) + "  " + verdictText(file);
    if (file.fate == AelFate::STORED) {
        const EmpEvRecord_t& header = file.header();
        line += ": " + tools::eventTypeNames.brief(header.evType) + " " +
                tools::endpointNames.brief(header.evSource) + " " +
                eventIdText(header.evSource, header.evId) + "  " +
                catalog::textColumn(file.event());
    }
    return line;
}

std::string showLines(const AelFile& file) {
    std::string lines = "file         " + nameText(file.name) + "\n" + "order        " +
                        orderText(file) + "\n" + "verdict      " + verdictText(file) + "\n" +
                        "modified     " + isoTimeOfFile(file.modified) + "\n" + "size         " +
                        std::to_string(file.size) + "\n";
    return file.hasHeader() ? lines + recordLines(file.header(), file.data()) : lines;
}

std::string jsonText(const AelFile& file) {
    Json json = {{"file", nameText(file.name)},
                 {"order", file.order ? Json(*file.order) : Json(nullptr)},
                 {"fate", sources::aelFateName(file.fate)},
                 {"reason", file.reason.empty() ? Json(nullptr) : Json(file.reason)},
                 {"modified", isoTimeOfFile(file.modified)},
                 {"modifiedSeconds", file.modified},
                 {"bytes", file.size},
                 {"event", file.hasHeader() ? eventJson(file.event()) : Json(nullptr)}};
    return jsonLine(json);
}

/** Only the named ones; throws for a name that is not there. */
std::vector<AelFile> chosenOf(std::vector<AelFile> files, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (std::ranges::find(files, name, &AelFile::name) == files.end()) {
            throw std::runtime_error(name + ": no such file in the directory");
        }
    }
    if (!names.empty()) {
        std::erase_if(files, [&names](const AelFile& file) {
            return std::ranges::find(names, file.name) == names.end();
        });
    }
    return files;
}

bool isLost(const AelFile& file) {
    return file.fate == AelFate::DELETED || file.fate == AelFate::UNKNOWN;
}

int statusOfFiles(const std::vector<AelFile>& files) {
    return std::ranges::any_of(files, isLost) ? tools::EXIT_FINDING : tools::EXIT_DONE;
}

/** Those that the options want. A file without an event is one of them when any event would do. */
std::vector<AelFile> selected(std::vector<AelFile> files, const ListingOptions& options) {
    std::erase_if(files, [&options](const AelFile& file) {
        return file.hasHeader() ? !options.filter.matches(file.event()) : !options.filter.isEmpty();
    });
    files.resize(
        static_cast<size_t>(std::min<U64_t>(files.size(), options.first.value_or(UINT64_MAX))));
    U64_t excess = files.size() - std::min<U64_t>(files.size(), options.last.value_or(UINT64_MAX));
    files.erase(files.begin(), files.begin() + static_cast<std::ptrdiff_t>(excess));
    if (options.reverse) {
        std::ranges::reverse(files);
    }
    return files;
}

std::string textOf(const AelFile& file, const OutputOptions& options, const EventPrinter& events) {
    if (options.form == Form::JSON) {
        return jsonText(file);
    }
    if (options.form == Form::FULL) {
        return showLines(file);
    }
    std::string line = listLine(file, options.zone);
    return file.hasHeader() ? events.styled(line, file.event()) : line + "\n";
}

bool isFormOfFiles(Form form) {
    return form == Form::SHORT || form == Form::FULL || form == Form::JSON;
}

void printInForm(const std::vector<AelFile>& files, const OutputOptions& options) {
    EventPrinter events(options);
    if (isFormOfFiles(options.form)) {
        for (const AelFile& file : files) {
            bool isApart = options.form == Form::FULL && &file != files.data();
            std::cout << (isApart ? "\n" : "") << textOf(file, options, events);
        }
        return;
    }
    for (const AelFile& file : files) {
        if (file.hasHeader()) {
            events.printNow(file.event());
        }
    }
}

int runList(const AelOptions& options) {
    std::vector<AelFile> files = selected(filesOf(options), options.listing);
    printInForm(files, options.listing.output);
    return statusOfFiles(files);
}

int runShow(const AelOptions& options) {
    std::vector<AelFile> files = chosenOf(filesOf(options), options.names);
    printInForm(files, {.form = options.json ? Form::JSON : Form::FULL});
    return statusOfFiles(files);
}

void addWhere(CLI::App& command, AelOptions& options) {
    CLI::Option_group* where = command.add_option_group("Directory");
    where->add_option("--dir", options.directory, "Directory of the alternate event log files")
        ->type_name("DIR");
    addKeyOption(*where, options.block);
    where->require_option(0, 1);
}

} // namespace

void addAelListCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<AelOptions>();
    CLI::App& command =
        addCommand(parent, "list", "List the files and what becomes of them.", LIST_EXAMPLES);
    addWhere(command, *options);
    ListingOptions& listing = options->listing;
    addZoneOption(command, listing.output.zone);
    addFilterOptions(command, listing.filter, &listing.output.zone);
    addLogChoice(command, listing.filter.logs);
    addOrderOptions(command, listing);
    addOutputOptions(command, listing.output);
    onChosen(command, chosen, options, runList);
}

void addAelShowCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<AelOptions>();
    CLI::App& command =
        addCommand(parent, "show", "Show files with their events and data.", SHOW_EXAMPLES);
    addWhere(command, *options);
    command.add_flag("--json", options->json, "One JSON object a line, events with their data");
    command.add_option("NAME", options->names, "Only these files; none: all");
    onChosen(command, chosen, options, runShow);
}

} // namespace evctl
