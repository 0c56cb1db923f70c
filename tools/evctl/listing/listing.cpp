#include "evctl/listing/listing.h"

#include "common/cli.h"
#include "common/replaced_file.h"
#include "emp_evl.h"
#include "mmsg.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unistd.h>

namespace evctl {
namespace {

constexpr U64_t NEIGHBOURS = 10;
constexpr std::chrono::seconds CURSOR_KEPT_EVERY{1};
// Far more than that of an archive with many logs.
constexpr size_t LONGEST_CURSOR = 4U << 20U;

bool isBugCheck(const EmpEvLogHeader_t& header) {
    return header.evSource == MMSG_E_EPID_EVENTLOGMP &&
           header.evId == EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG;
}

/** Of the 24 events of a bug-check the one that says why stands for all. */
bool isRestOfBugCheck(const EmpEvLogHeader_t& header) {
    return header.evSource == MMSG_E_EPID_EVENTLOGMP &&
           header.evId > EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG &&
           header.evId < EMP_E_ID_EVENTMGRMP_NEXT_ID;
}

/** "5", or "+5" for the first ones. */
void parseHowMany(const std::string& text, ListingOptions& options) {
    const bool isFirst = text.starts_with('+');
    const std::optional<U32_t> number =
        tools::parseNumber(text.substr(isFirst ? 1 : 0), UINT32_MAX);
    if (!number || *number == 0) {
        throw CLI::ValidationError("-n", "'" + text + "' is not a whole number from 1 on");
    }
    (isFirst ? options.first : options.last) = *number;
}

Cursor parseCursor(const std::string& where, const std::string& text) {
    std::optional<Cursor> cursor = Cursor::parse(text);
    if (!cursor) {
        throw CLI::ValidationError(where, "'" + text + "' is no cursor");
    }
    return *std::move(cursor);
}

void addCursorOption(CLI::App& command, ListingOptions& options, const std::string& flag,
                     bool inclusive, const std::string& what) {
    command
        .add_option_function<std::string>(
            flag,
            [&options, flag, inclusive](const std::string& text) {
                options.cursor = parseCursor(flag, text);
                options.inclusive = inclusive;
            },
            what)
        ->type_name("CURSOR")
        ->group("Selection");
}

void addAroundOption(CLI::App& command, ListingOptions& options) {
    command
        .add_option_function<std::string>(
            "--around",
            [&options](const std::string& text) {
                options.around = Around{};
                if (text != "crash") {
                    options.around->sequenceId = tools::parseNumber(text, UINT32_MAX);
                    if (!options.around->sequenceId) {
                        throw CLI::ValidationError("--around", "'" + text +
                                                                   "' is neither a sequence id nor "
                                                                   "crash");
                    }
                }
            },
            "The events around this one, or around the newest bug-check: 10 on each side, or as "
            "many as -n says")
        ->type_name("ID|crash")
        ->group("Selection");
}

/** The file of a cursor. Throws. */
std::string fileOfCursor(const std::string& path) {
    return tools::fileToReplace(path, "a cursor");
}

/** The first line of a file; nothing when it is not there, or empty. Throws. */
std::optional<std::string> firstLineOf(const std::string& path) {
    // Another may have taken its place since it was looked at.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    if (descriptor < 0) {
        tools::failWith(path, errno);
    }
    std::string text;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    do {
        count = read(descriptor, piece.data(), piece.size());
        text.append(piece.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    } while (count > 0 && text.size() <= LONGEST_CURSOR &&
             memchr(piece.data(), '\n', static_cast<size_t>(count)) == nullptr);
    const int error = count < 0 ? errno : 0;
    close(descriptor);
    if (error != 0) {
        tools::failWith(path, error);
    }
    const bool isEmpty = text.empty();
    text.resize(std::min(text.find('\n'), text.size()));
    if (text.size() > LONGEST_CURSOR) {
        throw std::runtime_error(path + ": too long for a cursor");
    }
    return isEmpty ? std::nullopt : std::optional(std::move(text));
}

/** Throws for those that do not go together. */
const ListingOptions& checked(const ListingOptions& options) {
    if (options.around && options.first) {
        throw CLI::ValidationError("-n", "with --around it says how many on each side: no '+'");
    }
    return options;
}

/** Says what is wrong in a source. */
void sayProblems(const sources::Source& source, bool several) {
    const std::string& name = source.origin().name;
    bool isLog = source.origin().kind == sources::Kind::LOG ||
                 source.origin().kind == sources::Kind::DAMAGED_COPY;
    for (const std::string& problem : source.notices()) {
        std::cerr << "evctl: " << name << ": " << problem << "\n";
    }
    if (isLog && !source.problems().empty()) {
        std::cerr << "evctl: " << (several ? name : "the file")
                  << (several ? ": damaged" : " is damaged") << "; see 'evctl file verify'\n";
        return;
    }
    for (const std::string& problem : source.problems()) {
        std::cerr << "evctl: " << name << ": " << problem << "\n";
    }
}

} // namespace

void addCursorOptions(CLI::App& command, ListingOptions& options) {
    addCursorOption(command, options, "--cursor", true, "Begin with the events of this cursor");
    addCursorOption(command, options, "--after-cursor", false,
                    "Begin behind the events of this cursor");
    command
        .add_flag("--show-cursor", options.showCursor,
                  "At the end, a cursor for what has been read")
        ->group("Selection");
    command
        .add_option(
            "--cursor-file", options.cursorFile,
            "Begin behind the cursor in this file, if it is there, and leave the new one in "
            "it")
        ->type_name("FILE")
        ->group("Selection")
        ->excludes("--cursor")
        ->excludes("--after-cursor");
    command.get_option("--cursor")->excludes("--after-cursor");
}

void sayLines(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        std::cerr << "evctl: " << line << "\n";
    }
}

void writeCursorFile(const std::string& name, const Cursor& cursor) {
    const std::string path = fileOfCursor(name);
    const std::string text = cursor.text() + "\n";
    tools::replaceFile(path, {reinterpret_cast<const U8_t*>(text.data()), text.size()});
}

void addOrderOptions(CLI::App& command, ListingOptions& options) {
    command
        .add_option_function<std::string>(
            "-n,--last", [&options](const std::string& text) { parseHowMany(text, options); },
            "Only the last so many of them, or with + the first; without it, all")
        ->type_name("[+]NUMBER")
        ->group("Selection");
    command.add_flag("-r,--reverse", options.reverse, "Newest first")->group("Selection");
}

void refuseWithoutEnd(const ListingOptions& options) {
    const bool isReverse = options.reverse;
    if (isReverse || options.around) {
        throw CLI::ValidationError(isReverse ? "--reverse" : "--around",
                                   "not where there is no end, and so no newest event");
    }
}

void describeWithoutEnd(CLI::App& command) {
    command.get_option("--last")->description(
        "Begin with so many events that the log holds already; with + end behind so many");
    for (const char* option : {"--reverse", "--around"}) {
        command.get_option(option)->description("Refused: there is no end, and no newest event");
    }
}

void addListingOptions(CLI::App& command, ListingOptions& options) {
    addZoneOption(command, options.output.zone);
    addFilterOptions(command, options.filter, &options.output.zone);
    addOrderOptions(command, options);
    addAroundOption(command, options);
    addCursorOptions(command, options);
    addOutputOptions(command, options.output);
    addPagerOption(command, options.noPager);
}

std::optional<Cursor> startCursor(const ListingOptions& options) {
    if (options.cursorFile.empty()) {
        return options.cursor;
    }
    const std::optional<std::string> text = firstLineOf(fileOfCursor(options.cursorFile));
    // An empty one was made for a cursor, and not yet used.
    return text ? std::optional(parseCursor(options.cursorFile, *text)) : std::nullopt;
}

Listing::Listing(const ListingOptions& options, bool several, bool endless)
    : options_(checked(options)), pager_(!options.noPager && !endless),
      printer_(options.output,
               {.several = several, .paged = pager_.isThere(), .colours = pager_.showsColours()}),
      waits_(options.last || options.reverse || options.around), keeper_(options.cursorFile),
      cursor_(startCursor(options).value_or(Cursor{})) {}

bool Listing::isAnchor(const sources::Event& event) const {
    const EmpEvLogHeader_t& header = *event.view.header;
    return options_.around->sequenceId ? header.evSequenceId == *options_.around->sequenceId
                                       : isBugCheck(header);
}

bool Listing::show(const sources::Event& event) {
    printer_.print(event);
    if (live_) {
        std::cout.flush();
    }
    return static_cast<bool>(std::cout);
}

bool Listing::goLive() {
    live_ = true;
    waits_ = false;
    bool isRead = !isFull();
    for (const sources::Event& event : kept_) {
        isRead = show(event) && isRead;
    }
    kept_.clear();
    keeper_.move(cursor_);
    return isRead && std::cout.flush();
}

bool Listing::take(sources::Event event) {
    if (isFull()) {
        return false;
    }
    if (options_.showCursor || !options_.cursorFile.empty()) {
        cursor_.moveTo(event);
    }
    const bool isRead = place(std::move(event));
    if (live_ && std::cout) {
        keeper_.move(cursor_);
    }
    return isRead;
}

/** Shows it, keeps it, or passes it over. @return as take() */
bool Listing::place(sources::Event event) {
    const EmpEvLogHeader_t& header = *event.view.header;
    const bool isAroundCrash = options_.around && !options_.around->sequenceId;
    if (event.isDouble || (isAroundCrash && isRestOfBugCheck(header))) {
        return true;
    }
    if (!options_.filter.matches(event.view) && !(options_.around && isAnchor(event))) {
        return true;
    }
    taken_++;
    if (!waits_) {
        return show(event) && !isFull();
    }
    kept_.push_back(std::move(event));
    if (!options_.around && kept_.size() > options_.last.value_or(UINT64_MAX)) {
        kept_.pop_front();
    }
    return !isFull();
}

/** Leaves of what is kept the anchors and their neighbours. */
void Listing::keepNeighbours() {
    std::vector<size_t> anchors;
    for (size_t at = 0; at < kept_.size(); at++) {
        if (isAnchor(kept_[at])) {
            anchors.push_back(at);
        }
    }
    if (!options_.around->sequenceId && !anchors.empty()) {
        anchors = {anchors.back()};
    }
    auto reach =
        static_cast<size_t>(std::min<U64_t>(kept_.size(), options_.last.value_or(NEIGHBOURS)));
    std::deque<sources::Event> near;
    size_t next = 0; // not looked at yet
    for (size_t anchor : anchors) {
        size_t first = std::max(next, anchor - std::min(anchor, reach));
        next = anchor + 1 + std::min(kept_.size() - anchor - 1, reach);
        for (size_t at = first; at < next; at++) {
            near.push_back(kept_[at]);
        }
    }
    foundAnchor_ = !anchors.empty();
    kept_ = std::move(near);
}

bool tellCursor(const ListingOptions& options, const Cursor& cursor, EventPrinter& printer,
                Pager& pager) {
    if (options.showCursor) {
        printer.printCursor(cursor.text());
    }
    bool isTaken = static_cast<bool>(std::cout.flush());
    bool isShown = pager.finish();
    if (!options.cursorFile.empty() && isTaken && isShown) {
        writeCursorFile(options.cursorFile, cursor);
    }
    return isShown;
}

int Listing::finish() {
    if (options_.around) {
        keepNeighbours();
    }
    if (options_.reverse) {
        std::ranges::reverse(kept_);
    }
    for (const sources::Event& event : kept_) {
        printer_.print(event);
    }
    kept_.clear();
    bool isShown = tellCursor(options_, cursor_, printer_, pager_);
    if (!foundAnchor_) {
        std::cerr << "evctl: no "
                  << (options_.around->sequenceId
                          ? "event " + std::to_string(*options_.around->sequenceId)
                          : "bug-check")
                  << "\n";
    }
    return !isShown ? tools::EXIT_COULD_NOT : foundAnchor_ ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

void CursorKeeper::move(const Cursor& cursor) {
    isKept_ = path_.empty();
    if (std::chrono::steady_clock::now() - kept_ >= CURSOR_KEPT_EVERY) {
        keep(cursor);
    }
}

std::optional<std::chrono::steady_clock::time_point> CursorKeeper::due() const {
    return isKept_ ? std::nullopt : std::optional(kept_ + CURSOR_KEPT_EVERY);
}

void CursorKeeper::keep(const Cursor& cursor) {
    if (isKept_) {
        return;
    }
    writeCursorFile(path_, cursor);
    isKept_ = true;
    kept_ = std::chrono::steady_clock::now();
}

std::optional<Resume> resumeOf(const ListingOptions& options, const sources::Sources& sources) {
    std::optional<Cursor> cursor = startCursor(options);
    if (!cursor) {
        return std::nullopt;
    }
    Resume resume(*std::move(cursor), options.inclusive);
    for (const auto& source : sources) {
        resume.look(*source);
    }
    sayLines(resume.notes());
    return resume;
}

int listSources(sources::Sources sources, const ListingOptions& options, bool several,
                const std::string& ifNone) {
    std::optional<Resume> resume = resumeOf(options, sources);
    sources::Merge merge(std::move(sources));
    int status = tools::EXIT_DONE;
    {
        Listing listing(options, several);
        bool isRead = true;
        while (std::optional<sources::Event> event = isRead ? merge.next() : std::nullopt) {
            isRead = !resume || resume->wants(*event) ? listing.take(*std::move(event)) : isRead;
        }
        status = listing.finish();
        if (!ifNone.empty() && listing.taken() == 0) {
            std::cerr << "evctl: " << ifNone << "\n";
            status = std::max<int>(status, tools::EXIT_FINDING);
        }
    }
    for (const auto& source : merge.sources()) {
        sayProblems(*source, several);
        bool isSound = source->problems().empty() && source->notices().empty();
        status = std::max<int>(status, isSound ? tools::EXIT_DONE : tools::EXIT_FINDING);
    }
    return status;
}

} // namespace evctl
