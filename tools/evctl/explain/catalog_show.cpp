/** evctl catalog: what is known of events, and whether a catalogue is as it should be. */
#include "catalog/catalog.h"
#include "catalog/event_names.h"
#include "common/cli.h"
#include "common/named_option.h"
#include "common/names.h"
#include "common/text.h"
#include "evctl/filters/event_filter.h"
#include "evctl/paged_command.h"
#include "evctl/views/event_view.h"

#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <utility>

namespace evctl {
namespace {

constexpr char CATALOG_SHOW_EXAMPLES[] = "Examples:\n"
                                         "  evctl catalog show eventlog 11\n"
                                         "  evctl catalog show startup signal --json";
constexpr char CATALOG_CHECK_EXAMPLES[] =
    "Without FILE, the catalogue in use is checked. The exit status is 1 when anything is wrong.\n"
    "What one directory replaces of another is told and is not wrong.\n"
    "Example:\n"
    "  evctl catalog check my-processes.json";

struct CatalogOptions {
    std::vector<std::string> files;
    std::string source;
    std::string id;
    bool json = false;
};

/** A catalogue, with everything that is wrong in it said. */
catalog::Catalog load(const std::vector<std::string>& files,
                      std::vector<catalog::Problem>* problems) {
    if (files.empty()) {
        return catalog::loadCatalog(problems);
    }
    catalog::Catalog loaded;
    for (const std::string& file : files) {
        loaded.addFile(file, problems);
    }
    return loaded;
}

Json problemJson(const catalog::Problem& problem, bool isReplaced) {
    return {
        {"file", tools::escapedUtf8(problem.file)},
        {"place", problem.place.empty() ? Json(nullptr) : Json(tools::escapedUtf8(problem.place))},
        {"text", tools::escapedUtf8(problem.text)},
        {"replaced", isReplaced}};
}

int sayProblems(const std::vector<catalog::Problem>& problems, std::ostream& out) {
    for (const catalog::Problem& problem : problems) {
        out << catalog::problemLine(problem) << "\n";
    }
    return problems.empty() ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

const char* kindName(catalog::Kind kind) {
    constexpr std::array<const char*, 5> names = {"unsigned", "signed", "text", "hex", "ipv4"};
    return names.at(static_cast<size_t>(kind));
}

const char* orderName(catalog::Order order) {
    constexpr std::array<const char*, 3> names = {"big", "little", "either"};
    return names.at(static_cast<size_t>(order));
}

std::string idsText(const catalog::Entry& entry) {
    std::string first = std::to_string(entry.firstId);
    return entry.lastId == entry.firstId ? first : first + "-" + std::to_string(entry.lastId);
}

Json fieldJson(const catalog::Field& field) {
    Json json = {{"name", field.name},
                 {"offset", field.offset},
                 {"width", field.width},
                 {"type", kindName(field.kind)}};
    if (field.kind == catalog::Kind::UNSIGNED || field.kind == catalog::Kind::SIGNED) {
        json["order"] = orderName(field.order);
    }
    if (!field.unit.empty()) {
        json["unit"] = field.unit;
    }
    for (const auto& [value, name] : field.names) {
        json["names"][std::to_string(value)] = name;
    }
    return json;
}

Json entryJson(const catalog::Entry& entry) {
    Json fields = Json::array();
    for (const catalog::Field& field : entry.fields) {
        fields.push_back(fieldJson(field));
    }
    return {{"source", entry.source},
            {"sourceName", tools::endpointNames.brief(entry.source)},
            {"id", entry.firstId},
            {"lastId", entry.lastId},
            {"idVersion", entry.version ? Json(*entry.version) : Json(nullptr)},
            {"name", entry.name},
            {"severity", entry.severity},
            {"text", entry.text},
            {"advice", entry.advice},
            {"fields", fields},
            {"file", entry.file}};
}

std::string entryLine(const catalog::Entry& entry) {
    std::array<char, 128> text{};
    snprintf(text.data(), text.size(), "%-15s  %7s  %-7s  %-11s  ",
             tools::endpointNames.brief(entry.source).c_str(), idsText(entry).c_str(),
             entry.version ? std::to_string(*entry.version).c_str() : "any",
             entry.severity.empty() ? "-" : entry.severity.c_str());
    return text.data() + entry.text + "\n";
}

void printEntry(const catalog::Entry& entry) {
    std::cout << "source    " << tools::endpointNames.brief(entry.source) << "(" << entry.source
              << ")\n"
              << "id        " << idsText(entry) << "\n"
              << "version   " << (entry.version ? std::to_string(*entry.version) : "any") << "\n"
              << "name      " << entry.name << "\n"
              << "severity  " << entry.severity << "\n"
              << "text      " << entry.text << "\n"
              << "advice    " << entry.advice << "\n"
              << "file      " << entry.file << "\n";
    for (const catalog::Field& field : entry.fields) {
        std::cout << "field     " << field.name << ": " << kindName(field.kind) << ", "
                  << countText(field.width, "byte") << " at " << field.offset
                  << (field.order == catalog::Order::BIG
                          ? ""
                          : std::string(", ") + orderName(field.order) + " byte first")
                  << (field.unit.empty() ? "" : ", " + field.unit) << "\n";
        for (const auto& [value, name] : field.names) {
            std::cout << "            " << value << ": " << name << "\n";
        }
    }
}

int runList(const CatalogOptions& options) {
    std::vector<catalog::Problem> problems;
    catalog::Catalog loaded = load(options.files, &problems);
    for (const catalog::Entry* entry : loaded.entries()) {
        std::cout << (options.json ? jsonLine(entryJson(*entry)) : entryLine(*entry));
    }
    return sayProblems(problems, std::cerr);
}

int runShow(const CatalogOptions& options) {
    U32_t source = parseNamed("SOURCE", options.source, tools::endpointNames, UINT8_MAX);
    U32_t id = parseEventId("ID", source, options.id);
    std::vector<catalog::Problem> problems;
    catalog::Catalog loaded = load({}, &problems);
    sayProblems(problems, std::cerr);
    bool found = false;
    for (const catalog::Entry* entry : loaded.entries()) {
        // Unless one of a later directory goes before it.
        if (loaded.find(source, id, entry->version.value_or(catalog::ANY_VERSION)) != entry) {
            continue;
        }
        found = true;
        if (options.json) {
            std::cout << jsonLine(entryJson(*entry));
        } else {
            printEntry(*entry);
        }
    }
    if (!found) {
        std::cerr << "evctl: the catalogue does not know this event\n";
    }
    return found ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

int runCheck(const CatalogOptions& options) {
    std::vector<catalog::Problem> problems;
    catalog::Catalog loaded = load(options.files, &problems);
    if (!options.json) {
        sayProblems(loaded.replaced(), std::cout);
        return sayProblems(problems, std::cout);
    }
    for (const auto& [list, isReplaced] :
         {std::pair(&loaded.replaced(), true), std::pair(&std::as_const(problems), false)}) {
        for (const catalog::Problem& problem : *list) {
            std::cout << jsonLine(problemJson(problem, isReplaced));
        }
    }
    return problems.empty() ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

} // namespace

void addCatalogCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "catalog", "What is known of events.");
    auto list = std::make_shared<CatalogOptions>();
    CLI::App& listCommand = addCommand(group, "list", "List the events that are known.", "");
    listCommand.add_flag("--json", list->json, "One JSON object a line");
    onChosenPaged(listCommand, chosen, list, runList);

    auto show = std::make_shared<CatalogOptions>();
    CLI::App& showCommand =
        addCommand(group, "show", "Show what is known of one event.", CATALOG_SHOW_EXAMPLES);
    showCommand.add_option("SOURCE", show->source, "Endpoint that it comes from")
        ->type_name("NAME|NUMBER")
        ->required();
    showCommand.add_option("ID", show->id, "Event id")->type_name("NAME|NUMBER")->required();
    showCommand.add_flag("--json", show->json, "As a JSON object");
    onChosenPaged(showCommand, chosen, show, runShow);

    auto check = std::make_shared<CatalogOptions>();
    CLI::App& checkCommand =
        addCommand(group, "check", "Say what is wrong in a catalogue.", CATALOG_CHECK_EXAMPLES);
    checkCommand.add_option("FILE", check->files, "Files of a catalogue")->check(CLI::ExistingFile);
    checkCommand.add_flag("--json", check->json, "One JSON object a line");
    onChosenPaged(checkCommand, chosen, check, runCheck);
}

} // namespace evctl
