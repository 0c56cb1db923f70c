#include "evfleet/options.h"

#include "common/cli.h"

#include "../evarchiver/engine.h"
#include "../evarchiver/options.h"

#include <ctime>

namespace evfleet {
namespace {

constexpr char FOOTER[] =
    "The fleet ends by itself. Status 1: an event is missing, was claimed and lost, is held twice or\n"
    "is corrupt, an answer came in pieces, or a blade could not deliver everything in time.\n\n"
    "Examples:\n"
    "  evfleet --to 127.0.0.1:4711 --blades 1000 --events 500 --rate 20 --outages 2 --check events.db\n"
    "  evfleet --to 127.0.0.1:4711 --blades 10000 --events 0 --ramp 2000 --hold 10";

constexpr U32_t MOST_BLADES = 1'000'000;
constexpr U32_t MOST_EVENTS = 100'000'000;
constexpr double MOST = 1e9;
constexpr int LONGEST_SECONDS = 86'400;

std::string checkPlace(const std::string& text) {
    try {
        return evarchive::endpointOf(text).port() == 0 ? "port 0 is no archiver's" : "";
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

std::string checkEnclosure(const std::string& text) {
    return text.empty() || text.size() >= EMP_ID_TEXT_SIZE ? "1 to 63 bytes" : "";
}

std::string checkArchive(const std::string& text) {
    return evarchive::isPgPlace(text) ? "" : CLI::ExistingFile(text);
}

// A range that takes no "nan" and no "inf", which no comparison keeps out.
std::string checkAmount(const std::string& text) {
    double amount = 0;
    if (!CLI::detail::lexical_cast(text, amount) || !(amount >= 0 && amount <= MOST)) {
        return "'" + text + "' is no number from 0 to 1000000000";
    }
    return {};
}

/** Values that are given in other forms than they are kept. */
struct Raw {
    std::vector<std::string> places;
    std::string sizes = "100";
    unsigned reconnect = 1000;
    unsigned hold = 0;
    unsigned settle = 30;
    unsigned progress = 1;
};

void addFleet(CLI::App& app, FleetOptions& options, Raw& raw) {
    app.add_option("--to", raw.places,
                   "An archiver, ADDRESS:PORT; given several times, each connection takes one by "
                   "chance")
        ->required()
        ->check(checkPlace);
    app.add_option("--blades", options.blades, "Blades")
        ->check(CLI::Range(1U, MOST_BLADES))
        ->capture_default_str();
    app.add_option("--events", options.events, "Events that each blade logs")
        ->check(CLI::Range(0U, MOST_EVENTS))
        ->capture_default_str();
    app.add_option("--rate", options.rate,
                   "Events a second of each blade; 0: as fast as they are taken")
        ->check(checkAmount)
        ->capture_default_str();
    app.add_option("--size", raw.sizes, "Bytes of event data, N or N:M, 0 to 3848")
        ->capture_default_str();
    app.add_option("--ring", options.shape.ring, "Events that a blade's log holds")
        ->check(CLI::Range(2U, MOST_EVENTS))
        ->capture_default_str();
    app.add_option("--enclosure", options.shape.enclosure,
                   "The enclosure of all blades: another one for each run into the same archive")
        ->check(checkEnclosure)
        ->capture_default_str();
    app.add_flag("--one-by-one", options.oneByOne, "One event a send, as event managers do");
}

void addTrouble(CLI::App& app, FleetOptions& options, Raw& raw) {
    CLI::Option_group* trouble = app.add_option_group("Trouble");
    trouble
        ->add_option("--outages", options.outages,
                     "Of each link, on average: closed, reset within a message, abandoned, with a "
                     "byte sent twice, or by a restart of the event manager")
        ->check(checkAmount)
        ->capture_default_str();
    trouble
        ->add_option("--rebuilds", options.rebuilds,
                     "Of each log, on average: it is lost and counts from 1 again")
        ->check(checkAmount)
        ->capture_default_str();
    trouble->add_flag("--same-first", options.shape.beginsAlike,
                      "A log that is lost begins with the very event that it began with before, by "
                      "which archivers tell logs: events are missing then");
    trouble
        ->add_option("--clock-error", options.shape.clockError,
                     "Seconds that blades' clocks are wrong by, at most")
        ->capture_default_str();
    trouble
        ->add_option("--clock-jumps", options.shape.clockJumps,
                     "Events after which a blade's clock jumps: up to a year forward or back, to "
                     "1970, over 2038, towards 2106, or to the right time; 0: never")
        ->capture_default_str();
    trouble
        ->add_option("--reconnect", raw.reconnect,
                     "Milliseconds from the end of a link to the next try, on average")
        ->check(CLI::Range(0, LONGEST_SECONDS * 1000))
        ->capture_default_str();
    trouble->add_option("--seed", options.shape.seed, "Of everything that chance decides")
        ->capture_default_str();
}

void addCourse(CLI::App& app, FleetOptions& options, Raw& raw) {
    CLI::Option_group* course = app.add_option_group("Course");
    course
        ->add_option("--ramp", options.ramp,
                     "Connections a second at the beginning; 0: all at once")
        ->check(checkAmount)
        ->capture_default_str();
    course->add_option("--hold", raw.hold, "Seconds that the links stay idle before the end")
        ->check(CLI::Range(0, LONGEST_SECONDS))
        ->capture_default_str();
    course
        ->add_option("--settle", raw.settle,
                     "Seconds until everything must be archived, once it was sent")
        ->check(CLI::Range(1, LONGEST_SECONDS))
        ->capture_default_str();
    course->add_option("--check", options.check, "Compare this archive's content at the end")
        ->type_name("ARCHIVE")
        ->check(checkArchive);
    course->add_option("--progress", raw.progress, "Seconds between progress lines; 0: none")
        ->check(CLI::Range(0, LONGEST_SECONDS))
        ->capture_default_str();
    course->add_flag("--json", options.json, "The result as JSON");
}

// "100" or "0:3848". Throws std::invalid_argument.
void takeSizes(const std::string& text, LogShape& shape) {
    unsigned smallest = 0;
    unsigned largest = 0;
    char rest = 0;
    const int read = std::sscanf(text.c_str(), "%u:%u%c", &smallest, &largest, &rest);
    if (read == 1 && text.find(':') == std::string::npos) {
        largest = smallest;
    } else if (read != 2) {
        throw std::invalid_argument("--size: '" + text + "' is no size, N or N:M");
    }
    if (smallest > largest || largest > EMP_MAX_STRUCT) {
        throw std::invalid_argument("--size: " + text +
                                    " is not within 0:" + std::to_string(EMP_MAX_STRUCT));
    }
    shape.smallest = smallest;
    shape.largest = largest;
}

} // namespace

std::variant<FleetOptions, int> parseOptions(int argc, const char* const* argv) {
    FleetOptions options;
    Raw raw;
    CLI::App app("A fleet of simulated blades, to try an Event Archiver with.", "evfleet");
    tools::setUpCommandLine(app, FOOTER);
    addFleet(app, options, raw);
    addTrouble(app, options, raw);
    addCourse(app, options, raw);
    if (const auto status = tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    takeSizes(raw.sizes, options.shape);
    for (const std::string& place : raw.places) {
        options.archivers.push_back(evarchive::endpointOf(place));
    }
    options.shape.epoch = static_cast<U32_t>(std::time(nullptr));
    options.reconnect = std::chrono::milliseconds(raw.reconnect);
    options.hold = std::chrono::seconds(raw.hold);
    options.settle = std::chrono::seconds(raw.settle);
    options.progress = std::chrono::seconds(raw.progress);
    return options;
}

} // namespace evfleet
