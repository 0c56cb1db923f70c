/**
 * Texts from outside: the parameter file, catalogues and the data that they describe, times,
 * archiver addresses, the values of filters. Anything may be in them; what is wrong is refused or
 * left out.
 */
#include "fuzz.h"

#include "catalog/catalog.h"
#include "common/text.h"
#include "common/time_text.h"
#include "evctl/filters/event_filter.h"
#include "evctl/wire/archiver_address.h"
#include "mpu_params.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <netdb.h>
#include <stdexcept>

// No name is looked up, see CMakeLists.txt.
extern "C" int __wrap_getaddrinfo(const char* node, const char* /*service*/,
                                  const struct addrinfo* /*hints*/, struct addrinfo** /*found*/) {
    fuzz::expect(node != nullptr, "nobody's address is asked for");
    return EAI_NONAME;
}

namespace {

using fuzz::Bytes;
using fuzz::Input;

void parameterFile(Input& input) {
    constexpr std::size_t guard = 64;
    static std::uint8_t memory[sizeof(MPU_PARAMS_t) + guard];
    std::memset(memory, 0, sizeof(MPU_PARAMS_t));
    std::memset(memory + sizeof(MPU_PARAMS_t), 0xEE, guard);
    mpu::pMpuParams = reinterpret_cast<MPU_PARAMS_t*>(memory);
    std::string text(input.text());
    if (!text.empty()) {
        FILE* file = fmemopen(text.data(), text.size(), "r");
        readNonXML(file);
        std::fclose(file);
    }
    mpu::pMpuParams = nullptr;
    for (std::size_t i = sizeof(MPU_PARAMS_t); i < sizeof(memory); i++) {
        fuzz::expect(memory[i] == 0xEE, "a parameter is written behind the block");
    }
}

/** A catalogue, and data for each event that it tells of: the bytes of the catalogue itself. */
void catalogue(Input& input) {
    std::string text(input.text());
    catalog::Catalog known;
    std::vector<catalog::Problem> problems;
    known.add(text, "file", &problems);
    for (const catalog::Problem& problem : problems) {
        catalog::problemLine(problem);
    }
    std::span<const U8_t> data(reinterpret_cast<const U8_t*>(text.data()), text.size());
    for (const catalog::Entry* entry : known.entries()) {
        catalog::messageOf(*entry, data);
        catalog::messageOf(*entry, data.first(data.size() / 2));
        fuzz::expect(known.find(entry->source, entry->firstId, entry->version.value_or(0)) !=
                         nullptr,
                     "an entry is not found");
        for (const catalog::Field& field : entry->fields) {
            catalog::valueNumber(field, data);
            catalog::valueText(field, {});
        }
    }
}

void timeText(Input& input) {
    std::uint32_t now = input.word();
    try {
        tools::parseTime(std::string(input.text()), now);
    } catch (const std::out_of_range&) {
    }
}

void archiverAddress(Input& input) {
    try {
        evctl::ArchiverAddress address = evctl::parseArchiver(std::string(input.text()));
        std::string again = tools::hostText(address.host) + ":" + std::to_string(address.port);
        fuzz::expect(address.port == 0 || evctl::parseArchiver(again).port == address.port,
                     "an address is not read as it is written");
    } catch (const std::runtime_error&) {
        // refused
    }
}

/** All options of a filter but the pattern, which is the C library's. */
void filterValue(Input& input) {
    static constexpr const char* options[] = {"--type", "--source", "--category", "--id",
                                              "--seq",  "--since",  "--until"};
    CLI::App app;
    evctl::EventFilter filter;
    evctl::addFilterOptions(app, filter);
    const char* option = options[input.byte() % std::size(options)];
    try {
        app.parse(std::vector<std::string>{std::string(input.text()), option});
    } catch (const CLI::ParseError&) {
        return; // refused
    }
    EmpEvLogHeader_t header = {};
    filter.matches(header);
}

constexpr void (*const kinds[])(Input&) = {parameterFile, catalogue, timeText, archiverAddress,
                                           filterValue};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    kinds[input.byte() % std::size(kinds)](input);
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    std::vector<Bytes> all;
    auto add = [&all](unsigned kind, std::string_view text) {
        all.push_back(Seed().byte(kind).text(text).bytes);
    };
    add(0,
        "slotId=2\n# remark\nchassisSN=ENC-1\nmacAddress[1]=0:17:164:1:2:3\nsmSize=512m\n"
        "mgtPortIpAddress=192.168.0.1\nmpuVer=1.2.3\nadapters=1/2\niCharMode=driver\nnoname=3\n");
    add(0, "numPorts=0x4\nportConfig[7]=99999999999999\nvendorId=abc");
    add(1, R"({"source": 18, "events": [{"id": 5, "text": "at {x} {y}", "fields": [)"
           R"({"name":"x","offset":1,"width":2},{"name":"y","offset":3,"width":4,"type":"ipv4"},)"
           R"({"name":"z","offset":3,"width":8,"type":"signed","order":"either"}]}]})");
    add(1, R"({"source": 18, "events": [{"id": 5, "fields": [{"name":"x","offset":4294967295,)"
           R"("width":4294967295,"type":"hex"}], "text": "{x} {"}]})");
    for (const char* time : {"now", "2006-11-21T14:00:05Z", "@1164117600", "-30m", "yesterday"}) {
        all.push_back(Seed().byte(2).word(1'164'117'600).text(time).bytes);
    }
    add(3, "192.0.2.7:1024");
    add(3, "off");
    add(3, "name.example:65535");
    constexpr std::string_view values[] = {"error,warning", "18",         "disk", "1,2,300",
                                           "10-20",         "2006-11-21", "-2h"};
    unsigned option = 0;
    for (std::string_view value : values) {
        all.push_back(Seed().byte(4).byte(option++).text(value).bytes);
    }
    return all;
}

} // namespace fuzz
