/** evctl archive events, get, stats and export: the events that an archive holds. */
#include "archive.h"
#include "common/new_file.h"
#include "evctl/archives/archive_commands.h"
#include "evctl/listing/listing.h"
#include "evctl/views/event_json.h"
#include "reader.h"

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char ARCHIVE_EVENTS_EXAMPLES[] =
    "Examples:\n"
    "  evctl archive events --db events.db --type error --slot 3\n"
    "  evctl archive get 4711 --db events.db --blade BLADE-42 --data\n"
    "  evctl archive export --db events.db --to events.jsonl\n"
    "  evctl archive export --db events.db --to $(date +%F).jsonl --cursor-file exported\n"
    "The archive is only read, and may be in use.";

/** Which logs of an archive. */
struct LogFilter {
    std::string path;
    sources::LogChoice choice;
    bool allGenerations = false;

    bool matches(const evarchive::SeriesKey& key) const {
        return choice.enclosure.value_or(key.blade.enclosure) == key.blade.enclosure &&
               choice.blade.value_or(key.blade.blade) == key.blade.blade &&
               choice.slot.value_or(key.blade.slot) == key.blade.slot &&
               choice.instance.value_or(key.instance) == key.instance;
    }
};

struct EventsOptions {
    LogFilter logs;
    ListingOptions listing;
    std::string target;
    U32_t sequenceId = 0;
};

void addLogOptions(CLI::App& command, LogFilter& logs) {
    command.add_option("--db", logs.path, "The archive: a file, or postgresql://...")
        ->type_name("PLACE")
        ->required();
    addLogChoice(command, logs.choice);
    command.add_flag("--all-generations", logs.allGenerations,
                     "Also what logs held before they counted again from the start");
}

EventView viewOf(const evarchive::StoredEvent& event) {
    return sources::eventOf(event.image);
}

/** Calls @p take with each event of the logs, by log, generation and id. Events of another identity
 * are shown in their own log only. @return how many damaged ones were left out */
template <typename Take>
U64_t forEachEvent(const LogFilter& logs, const Take& take) {
    U64_t damaged = 0;
    const auto store = evarchive::openForReading(logs.path);
    const auto generations = store->listGenerations();
    for (size_t i = 0; i < generations.size(); ++i) {
        const bool isNewest =
            i + 1 == generations.size() || generations[i + 1].key != generations[i].key;
        if (!logs.matches(generations[i].key) || (!isNewest && !logs.allGenerations)) {
            continue;
        }
        store->forEachEvent(generations[i].number, [&](const evarchive::StoredEvent& event) {
            if (event.own && evarchive::isWholeEvent(event.image)) {
                take(generations[i], event);
            }
            damaged += event.own && !evarchive::isWholeEvent(event.image) ? 1 : 0;
        });
    }
    return damaged;
}

/** forEachEvent() of what the cursor and the filters want.
 * @param read receives how far has been read */
template <typename Take>
U64_t forEachWanted(const EventsOptions& options, Cursor& read, const Take& take) {
    std::map<evarchive::SeriesKey, sources::Origin> origins;
    auto eventIn = [&origins](const auto& generation, const evarchive::StoredEvent& event) {
        sources::Event found;
        found.view = viewOf(event);
        found.position = generation.number.generation;
        found.origin =
            &origins.try_emplace(generation.key, sources::Origin{"", sources::Kind::ARCHIVE})
                 .first->second;
        return found;
    };
    std::optional<Resume> resume;
    if (std::optional<Cursor> start = startCursor(options.listing)) {
        read = *start;
        resume.emplace(*std::move(start), options.listing.inclusive);
        forEachEvent(options.logs, [&](const auto& generation, const auto& event) {
            resume->look(eventIn(generation, event));
        });
        sayLines(resume->notes());
    }
    return forEachEvent(options.logs, [&](const auto& generation, const auto& event) {
        const sources::Event found = eventIn(generation, event);
        if (resume && !resume->wants(found)) {
            return;
        }
        read.moveTo(found);
        if (options.listing.filter.matches(found.view)) {
            take(generation, event);
        }
    });
}

/** Says what was left out. @return the exit status */
int conclude(U64_t damaged) {
    if (damaged == 0) {
        return tools::EXIT_DONE;
    }
    std::cerr << "evctl: " << damaged << " damaged events left out; see 'evctl archive check'\n";
    return tools::EXIT_FINDING;
}

/** @return the exit status */
int tellCursor(const EventsOptions& options, const Cursor& read) {
    EventPrinter printer(options.listing.output);
    Pager none(false);
    return tellCursor(options.listing, read, printer, none) ? tools::EXIT_DONE
                                                            : tools::EXIT_COULD_NOT;
}

int listArchive(const EventsOptions& options, const std::string& ifNone) {
    sources::Sources logs =
        sources::archiveSources(options.logs.path, {.logs = options.logs.choice,
                                                    .allGenerations = options.logs.allGenerations});
    bool several = logs.size() > 1;
    return listSources(std::move(logs), options.listing, several, ifNone);
}

int runEvents(const EventsOptions& options) {
    return listArchive(options, "");
}

int runGet(const EventsOptions& given) {
    EventsOptions options = given;
    options.listing.filter.onlySequenceId = options.sequenceId;
    return listArchive(options,
                       "no log holds an event with id " + std::to_string(options.sequenceId));
}

/** A file that was not there before, for its owner only; gone again unless it is finished. */
class NewFile {
  public:
    explicit NewFile(const std::string& path)
        : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)),
          stream_(descriptor_ < 0 ? nullptr : fdopen(descriptor_, "w")), path_(path) {
        require(stream_ != nullptr);
    }
    ~NewFile() {
        fclose(stream_);
        if (!isFinished_) {
            unlink(path_.c_str());
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(const std::string& text) {
        require(fwrite(text.data(), 1, text.size(), stream_) == text.size());
    }
    void finish() {
        require(fflush(stream_) == 0 && fsync(descriptor_) == 0);
        isFinished_ = true;
    }

  private:
    void require(bool isGood) const {
        if (!isGood) {
            tools::failWith(path_, errno);
        }
    }

    int descriptor_;
    FILE* stream_;
    std::string path_;
    bool isFinished_ = false;
};

int runExport(const EventsOptions& options) {
    NewFile file(options.target);
    U64_t count = 0;
    Cursor read;
    const U64_t damaged =
        forEachWanted(options, read, [&](const auto& generation, const auto& event) {
            file.write(jsonLineOf({eventMembers(viewOf(event)),
                                   numberMember("generation", generation.number.generation),
                                   numberMember("received", event.received)}));
            ++count;
        });
    file.finish();
    std::cout << count << " events written to " << options.target << "\n";
    return std::max(tellCursor(options, read), conclude(damaged));
}

/** What an archive holds, in numbers. */
struct Stats {
    U64_t events = 0;
    U64_t bytes = 0;
    U64_t doubtful = 0;
    std::map<U32_t, U64_t> types;
    std::set<evarchive::SeriesKey> logs;
};

int runStats(const EventsOptions& options) {
    Stats stats;
    Cursor read;
    const U64_t damaged =
        forEachWanted(options, read, [&](const auto& generation, const auto& event) {
            ++stats.events;
            stats.bytes += event.image.size();
            stats.doubtful += event.doubtful ? 1 : 0;
            ++stats.types[viewOf(event).header->evType];
            stats.logs.insert(generation.key);
        });
    U64_t aside = 0;
    evarchive::openForReading(options.logs.path)
        ->forEachAside([&](const evarchive::AsideEvent& event) {
            aside += options.logs.matches(event.key) ? 1 : 0;
        });
    Json types = Json::object();
    for (const auto& [type, count] : stats.types) {
        types[std::to_string(type)] = count;
    }
    const Json json = {{"logs", stats.logs.size()}, {"events", stats.events},
                       {"bytes", stats.bytes},      {"doubtful", stats.doubtful},
                       {"setAside", aside},         {"types", types}};
    if (options.listing.output.form == Form::JSON) {
        std::cout << jsonLine(json);
    } else {
        for (const auto& [name, value] : json.items()) {
            std::cout << name << " " << value.dump() << "\n";
        }
    }
    return std::max(tellCursor(options, read), conclude(damaged));
}

std::pair<CLI::App*, std::shared_ptr<EventsOptions>> addOne(CLI::App& group, Chosen& chosen,
                                                            const std::string& name,
                                                            const std::string& what,
                                                            int (*run)(const EventsOptions&)) {
    auto options = std::make_shared<EventsOptions>();
    CLI::App& command = addCommand(group, name, what, ARCHIVE_EVENTS_EXAMPLES);
    addLogOptions(command, options->logs);
    onChosen(command, chosen, options, run);
    return {&command, options};
}

/** What is counted or written, not how it is shown: --local is for the times in the options. */
void addReadingOptions(CLI::App& command, ListingOptions& listing) {
    addZoneOption(command, listing.output.zone);
    addFilterOptions(command, listing.filter, &listing.output.zone);
    addCursorOptions(command, listing);
}

} // namespace

void addArchiveEventCommands(CLI::App& group, Chosen& chosen) {
    const auto [events, eventsOptions] =
        addOne(group, chosen, "events", "Show the events of its logs, merged by time.", runEvents);
    addListingOptions(*events, eventsOptions->listing);

    const auto [get, getOptions] = addOne(
        group, chosen, "get", "Show the event with one id; status 1 when no log holds it.", runGet);
    get->add_option("ID", getOptions->sequenceId, "Sequence id")
        ->required()
        ->check(tools::wholeNumber(0, UINT32_MAX));
    addListingOptions(*get, getOptions->listing);

    const auto [stats, statsOptions] =
        addOne(group, chosen, "stats", "Count its logs, events and bytes.", runStats);
    addReadingOptions(*stats, statsOptions->listing);
    stats->add_flag_callback(
        "--json", [options = statsOptions] { options->listing.output.form = Form::JSON; },
        "As JSON");

    const auto [write, writeOptions] =
        addOne(group, chosen, "export", "Write its events to a new file, a JSON object a line.",
               runExport);
    addReadingOptions(*write, writeOptions->listing);
    write->add_option("--to", writeOptions->target, "The file, which must not be there yet")
        ->type_name("FILE")
        ->required();
}

} // namespace evctl
