/** evctl ael list and evctl ael show: what the event manager's next start will find. */
#include "catalog/event_text.h"
#include "common/cli.h"
#include "common/names.h"
#include "common/text.h"
#include "evctl/files/file.h"
#include "evctl/listing/listing.h"
#include "evctl/paged_command.h"
#include "evctl/views/event_json.h"
#include "evctl/wire/blade_options.h"
#include "sources/alternate_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
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
    "  evctl ael list --dir /nvram/aelfiles --type error --since -1d -o csv\n"
    "  evctl ael list support.tar.gz";
constexpr char SHOW_EXAMPLES[] =
    "Examples:\n"
    "  evctl ael show --key 0x1234\n"
    "  evctl ael show --dir /nvram/aelfiles kelta_alteventlog77.a1B2c3";

struct AelOptions {
    std::string place; ///< a directory or a bundle
    KeyOptions block;
    std::vector<std::string> names; ///< show: only these
    bool json = false;              ///< show
    ListingOptions listing;         ///< list: filters, order and output of them
};

bool isDirectory(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error);
}

/** The alternate event log files of a bundle, or a single one. */
std::vector<AelFile> filesIn(const std::string& path, int* status) {
    std::vector<sources::LogFile> files = loadLogFiles(path, status);
    return sources::takeAlternates(files);
}

/** The directory that the event manager works in: its log is there, or the directory of its files.
 */
bool isHome(const std::string& path) {
    std::error_code error;
    return isDirectory(path + EMP_AEL_DIRECTORY_NAME) ||
           std::filesystem::exists(path + EMP_LOG_FILE_NAME, error);
}

/** What the next start finds; in the event manager's own directory nothing else is looked at. */
std::vector<AelFile> filesInDirectory(const std::string& path) {
    const std::filesystem::path named = (std::filesystem::path(path) / "").parent_path();
    if (!isHome(path) || named.filename() == &EMP_AEL_DIRECTORY_NAME[1]) {
        return sources::readAelDirectory(path);
    }
    if (isDirectory(path + EMP_AEL_DIRECTORY_NAME)) {
        return sources::readAelDirectory(path + EMP_AEL_DIRECTORY_NAME);
    }
    std::vector<AelFile> files = sources::readAelDirectory(path);
    std::erase_if(files,
                  [](const AelFile& file) { return !file.name.starts_with(EMP_AEL_FILE_PREFIX); });
    return files;
}

/** @param status raised to a finding when something is wrong on the way */
std::vector<AelFile> filesOf(const AelOptions& options, int* status) {
    if (!options.place.empty()) {
        bool isOneFile = options.place == "-" || std::filesystem::exists(options.place);
        return isOneFile && !isDirectory(options.place) ? filesIn(options.place, status)
                                                        : filesInDirectory(options.place);
    }
    const MPU_PARAMS_t& params = attachParams(options.block);
    try {
        return sources::readAelDirectory(
            tools::fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)) +
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
                                                 : tools::isoTimeOfFile(seconds);
}

std::string listLine(const AelFile& file, Zone zone) {
    std::array<char, 80> text{};
    snprintf(text.data(), text.size(), "%4s  %s  %8llu bytes  ", orderText(file).c_str(),
             timeOfFile(file.modified, zone).c_str(), static_cast<unsigned long long>(file.size));
    std::string line = text.data() + nameText(file.name) + "  " + verdictText(file);
    if (file.fate == AelFate::STORED) {
        const EmpEvLogHeader_t& header = *file.event().header;
        line += ": " + tools::eventTypeNames.brief(header.evType) + " " +
                tools::endpointNames.brief(header.evSource) + " " + eventIdText(header) + "  " +
                catalog::textColumn(file.event());
    }
    return line;
}

std::string showLines(const AelFile& file) {
    std::string lines = "file         " + nameText(file.name) + "\n" + "order        " +
                        orderText(file) + "\n" + "verdict      " + verdictText(file) + "\n" +
                        "modified     " + tools::isoTimeOfFile(file.modified) + "\n" +
                        "size         " + std::to_string(file.size) + "\n";
    return file.hasHeader() ? lines + recordLines(file.header(), file.data()) : lines;
}

std::string jsonText(const AelFile& file) {
    Json json = {{"file", nameText(file.name)},
                 {"order", file.order ? Json(*file.order) : Json(nullptr)},
                 {"fate", sources::aelFateName(file.fate)},
                 {"reason", file.reason.empty() ? Json(nullptr) : Json(file.reason)},
                 {"modified", tools::isoTimeOfFile(file.modified)},
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

/** A file without an event is wanted when any event would do. */
bool isWanted(const AelFile& file, const ListingOptions& options) {
    return file.hasHeader() ? options.filter.matches(file.event()) : options.filter.isEmpty();
}

/** Those that the options want. @param listed receives a mark for each file that was looked at, in
 * this listing or in that of the cursor: those that are gone need none */
std::vector<AelFile> selected(std::vector<AelFile> files, const ListingOptions& options,
                              Cursor& listed) {
    const Cursor before = startCursor(options).value_or(Cursor{});
    U64_t left = options.first.value_or(UINT64_MAX);
    std::erase_if(files, [&](const AelFile& file) {
        const U64_t number = fileNumber(file.name, file.modified);
        const bool isOld = before.find(number) != nullptr;
        if (left == 0 && !isOld) {
            return true;
        }
        listed.addFile(number);
        const bool isShown = left > 0 && (!isOld || options.inclusive) && isWanted(file, options);
        left -= isShown ? 1 : 0;
        return !isShown;
    });
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

void printInForm(const std::vector<AelFile>& files, const OutputOptions& options,
                 EventPrinter& events) {
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
    int status = tools::EXIT_DONE;
    Cursor listed;
    std::vector<AelFile> files = selected(filesOf(options, &status), options.listing, listed);
    Pager pager(!options.listing.noPager);
    EventPrinter events(options.listing.output,
                        {.paged = pager.isThere(), .colours = pager.showsColours()});
    printInForm(files, options.listing.output, events);
    bool isShown = tellCursor(options.listing, listed, events, pager);
    return isShown ? std::max(status, statusOfFiles(files)) : tools::EXIT_COULD_NOT;
}

int runShow(const AelOptions& options) {
    int status = tools::EXIT_DONE;
    std::vector<AelFile> files = chosenOf(filesOf(options, &status), options.names);
    const OutputOptions output = {.form = options.json ? Form::JSON : Form::FULL};
    EventPrinter events(output);
    printInForm(files, output, events);
    return std::max(status, statusOfFiles(files));
}

CLI::Option_group* addWhere(CLI::App& command, AelOptions& options) {
    CLI::Option_group* where = command.add_option_group("Directory");
    where
        ->add_option(
            "--dir", options.place,
            "Directory of the alternate event log files, or the one that the event manager "
            "works in, or a bundle")
        ->type_name("DIR");
    addKeyOption(*where, options.block);
    where->require_option(0, 1);
    return where;
}

} // namespace

void addAelListCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<AelOptions>();
    CLI::App& command =
        addCommand(parent, "list", "List the files and what becomes of them.", LIST_EXAMPLES);
    addWhere(command, *options)
        ->add_option("PLACE", options->place, "As --dir: a directory, or a bundle");
    ListingOptions& listing = options->listing;
    addZoneOption(command, listing.output.zone);
    addFilterOptions(command, listing.filter, &listing.output.zone);
    addLogChoice(command, listing.filter.logs);
    addOrderOptions(command, listing);
    addCursorOptions(command, listing);
    addOutputOptions(command, listing.output);
    addPagerOption(command, listing.noPager);
    onChosen(command, chosen, options, runList);
}

void addAelShowCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<AelOptions>();
    CLI::App& command =
        addCommand(parent, "show", "Show files with their events and data.", SHOW_EXAMPLES);
    addWhere(command, *options);
    command.add_flag("--json", options->json, "One JSON object a line, events with their data");
    command.add_option("NAME", options->names, "Only these files; none: all");
    onChosenPaged(command, chosen, options, runShow);
}

} // namespace evctl
