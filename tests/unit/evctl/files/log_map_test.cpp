/** Pictures of the ring: what a cell shows, and that any file can be drawn. */
#include "../../evlog/log_damage.h"
#include "../run.h"

#include "evctl/files/log_map.h"
#include "evctl/views/svg.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <sstream>

using testing::HasSubstr;

namespace {

std::string mapOfBytes(const std::string& bytes, bool svg = false, bool ages = false) {
    EvlogImage_t image = test::imageOf(bytes);
    evctl::LogContent content = evctl::readLog(image);
    evctl::LogMap map = evctl::mapOf(content);
    return svg ? evctl::mapPicture(map, content, "a<b>&\"\x1b")
               : evctl::mapLines(map, content, ages);
}

/** The cells of a row of the text. */
std::string rowOf(const std::string& lines, size_t number) {
    std::istringstream text(lines);
    std::string line;
    for (size_t at = 0; at <= number + 1; at++) {
        std::getline(text, line);
    }
    return line.substr(8, 64);
}

std::string event(uint32_t id, uint8_t type, size_t body, uint32_t age = 0) {
    return test::record({.id = id, .time = 1'164'117'600 - age, .type = type},
                        std::string(body, 'e'));
}

} // namespace

TEST(LogMap, CellsShowTypeAgeGapUnusedAndPositions) {
    // Of before the wrap: an error at 8077 to 10077, then unused space from 10077 on.
    test::LogImage log;
    log.raw(event(1000, 1, 1840));
    log.raw(event(1001, 2, 1840));
    log.raw(std::string(4077, 'g'));
    log.raw(event(500, 3, 1840));
    log.dummy();
    log.zerosTo();
    std::string lines = mapOfBytes(log.bytes);
    EXPECT_EQ(rowOf(lines, 0), "IIWW>~~~<ee" + std::string(53, '='));
    EXPECT_EQ(rowOf(lines, 24), std::string(64, '='));
    EXPECT_THAT(lines, HasSubstr("wrapped: a log that has gone round its end\n      0 "));
    EXPECT_THAT(lines, HasSubstr(" ids 1000 to 1001, then 500 to 500\n"));
    EXPECT_THAT(lines, HasSubstr("\n> written next: offset 4000   < oldest event: offset 8077   "
                                 "= dummy entry: offset 10077\n"));
}

TEST(LogMap, TypeWithoutANameIsNoWarning) {
    test::LogImage log;
    log.raw(event(1000, 4, 1840));
    log.raw(event(1001, 0, 840));
    log.raw(std::string(2000, 'g'));
    log.raw(event(500, 200, 1840));
    log.dummy();
    log.zerosTo();
    EXPECT_EQ(rowOf(mapOfBytes(log.bytes), 0).substr(0, 8), "UUU>~<u=");
    EXPECT_THAT(mapOfBytes(log.bytes, true), HasSubstr("<title>other type</title>"));
}

TEST(LogMap, AgesAreDigitsAndHeights) {
    constexpr uint32_t hour = 3600;
    test::LogImage log;
    uint32_t id = 1000;
    for (uint32_t age : {365 * 24 * hour, 30 * 24 * hour, 30 * 24 * hour - 1, 7 * 24 * hour,
                         24 * hour, 6 * hour, hour, hour - 1}) {
        log.raw(event(id++, 1, 840, age));
    }
    log.raw(test::record({.id = id++, .time = 4'000'000'000}, std::string(840, 'e'))); // its clock
    log.raw(event(id, 1, 840));
    log.dummy();
    log.zerosTo();
    std::string lines = mapOfBytes(log.bytes, false, true);
    EXPECT_EQ(rowOf(lines, 0), "5544321000>" + std::string(53, '='));
    EXPECT_THAT(lines, HasSubstr("\n0 less than an hour before the newest event, 1 than 6 hours"));
    std::string picture = mapOfBytes(log.bytes, true);
    EXPECT_THAT(picture, HasSubstr("width=\"20\" height=\"4\" class=\"edge light\""));
    EXPECT_THAT(picture,
                HasSubstr("<title>information, more than 30 days before the newest</title>"));
    EXPECT_THAT(picture, HasSubstr("<title>information, 6 to 24 hours before the newest</title>"));
}

TEST(LogMap, DummyEntryInTheMiddleStandsForItsLengthOnly) {
    test::LogImage log;
    log.raw(event(1000, 1, 1840));
    log.dummy(2840);
    log.zerosTo();
    EXPECT_EQ(rowOf(mapOfBytes(log.bytes), 0).substr(0, 7), "II>==..");
    EXPECT_THAT(mapOfBytes(log.bytes, true), HasSubstr("<title>dummy entry</title>"));
}

TEST(LogMap, JsonHasTheSameCellsAndPositionsForPrograms) {
    test::LogImage log;
    log.raw(event(1000, 1, 1840));
    log.raw(event(1001, 2, 1840));
    log.raw(std::string(4077, 'g'));
    log.raw(event(500, 3, 1840, 30 * 24 * 3600));
    log.dummy();
    log.zerosTo();
    support::TempDirectory directory;
    support::writeFile(directory.file("log"), log.bytes);
    test::Said said = test::run({"file", "map", directory.file("log"), "--json"});
    EXPECT_EQ(said.status, 0) << said.errors;
    evctl::Json json = evctl::Json::parse(said.output);
    EXPECT_EQ(json["verdict"], "wrapped");
    EXPECT_EQ(json["writtenNext"], 4000);
    EXPECT_EQ(json["oldestEvent"], 8077);
    EXPECT_EQ(json["bytesPerCell"], 1000);
    EXPECT_EQ(json["findings"], 0);
    EXPECT_EQ(json["rows"].size(), 25U);
    EXPECT_EQ(json["dummyEntry"], 10'077);
    EXPECT_EQ(json["rows"][0]["cells"], "IIWW~~~~eee" + std::string(53, '='));
    EXPECT_EQ(json["rows"][0]["ages"], "0000~~~~555" + std::string(53, '='));
    EXPECT_EQ(json["rows"][0]["newest"]["lastSequenceId"], 1001);
    EXPECT_EQ(json["rows"][0]["oldest"]["firstSequenceId"], 500);
    EXPECT_EQ(json["rows"][24]["offset"], 1'536'000);
    EXPECT_TRUE(json["rows"][24]["newest"].is_null());
    log.bytes.resize(4000);
    log.dummy();
    support::writeFile(directory.file("log"), log.bytes);
    log.bytes[2100] = 'x';
    support::writeFile(directory.file("damaged"), log.bytes);
    EXPECT_EQ(test::run({"file", "map", directory.file("damaged")}).status, 1);
    json = evctl::Json::parse(test::run({"file", "map", directory.file("log"), "--json"}).output);
    EXPECT_TRUE(json["oldestEvent"].is_null()) << json;
}

TEST(LogMap, CellShowsTheWorstThatIsInIt) {
    test::LogImage log;
    for (uint8_t type : std::vector<uint8_t>{1, 3, 2, 1, 1, /* next cell */ 1, 2, 1, 1, 1}) {
        log.raw(event(1000 + static_cast<uint32_t>(log.bytes.size()) / 200, type, 40));
    }
    log.dummy();
    log.zerosTo();
    EXPECT_EQ(rowOf(mapOfBytes(log.bytes), 0).substr(0, 2), "EW");
}

TEST(LogMap, WithoutADummyEntryAllBehindTheLastRecordIsDamage) {
    test::LogImage log;
    log.events(0, 10);
    for (const std::string& rest : {std::string(), std::string(test::RING - 2000, '\0'),
                                    std::string(test::RING - 2000, 'g')}) {
        EXPECT_EQ(rowOf(mapOfBytes(log.bytes + rest), 0), "WW" + std::string(62, '!'));
    }
}

TEST(LogMap, CellOfAGapAndUnusedSpaceIsAGap) {
    test::LogImage log;
    log.events(0, 10);
    log.raw(std::string(1500, 'g'));
    log.dummy();
    log.zerosTo();
    EXPECT_EQ(rowOf(mapOfBytes(log.bytes), 0).substr(0, 5), "WW>~=");
}

TEST(LogMap, DamageIsSeen) {
    test::LogImage log;
    log.events(0, 10);
    log.dummy();
    log.zerosTo();
    log.damage(1100); // where the next event would be written, too
    std::string lines = mapOfBytes(log.bytes);
    EXPECT_EQ(rowOf(lines, 0).substr(0, 4), "W!==");
    EXPECT_THAT(lines, HasSubstr("> written next: offset 1000   = dummy entry: offset 2000\n"
                                 "offset 1000, 200 bytes: checksum does not match\n"));
}

TEST(LogMap, EveryLineFitsBesideItsRow) {
    test::LogImage log;
    log.events(4'000'000'000, 8000);
    std::istringstream lines(mapOfBytes(log.bytes));
    size_t rows = 0;
    for (std::string line; std::getline(lines, line); rows++) {
        EXPECT_LE(line.size(), 132U) << line;
    }
    EXPECT_EQ(rows, 1U + 25 + 4);
}

TEST(LogMap, PictureIsXmlWithPatterns) {
    test::LogImage log;
    log.events(0, 10);
    log.dummy();
    log.zerosTo();
    log.damage(1100);
    std::string picture = mapOfBytes(log.bytes, true);
    EXPECT_THAT(picture, testing::StartsWith("<svg xmlns=\"http://www.w3.org/2000/svg\""));
    EXPECT_THAT(picture, testing::EndsWith("</svg>\n"));
    EXPECT_THAT(picture, HasSubstr("<title>a&lt;b&gt;&amp;&quot;\\x1B</title>"));
    EXPECT_THAT(picture, HasSubstr("url(#crosses)"));
    EXPECT_THAT(picture, HasSubstr("url(#stripes)"));
    EXPECT_THAT(picture, HasSubstr("<title>damaged</title>"));
    EXPECT_THAT(picture, HasSubstr("@media (prefers-color-scheme: dark)"));
}

TEST(LogMap, PictureShowsPositionsByMarks) {
    test::LogImage log;
    log.raw(event(1000, 1, 1840));
    log.raw(std::string(4000, 'g'));
    log.raw(event(500, 3, 1840));
    log.dummy();
    log.zerosTo();
    std::string picture = mapOfBytes(log.bytes, true);
    EXPECT_THAT(picture, HasSubstr("width=\"20\" height=\"14\" class=\"edge light\""));
    EXPECT_THAT(picture, HasSubstr("width=\"20\" height=\"14\" class=\"edge dark\""));
    EXPECT_THAT(picture, HasSubstr("d=\"M90 50l-4.2 -6h8.4z\"><title>written next</title>"));
    EXPECT_THAT(picture, HasSubstr("d=\"M130 64l-4.2 6h8.4z\"><title>oldest event</title>"));
}

TEST(LogMap, AnyFileCanBeDrawn) {
    for (const std::string& bytes :
         {std::string(), std::string(test::RING, '\xB6'), std::string(2 * test::RING, '\0')}) {
        EXPECT_FALSE(mapOfBytes(bytes).empty());
    }
    std::minstd_rand random(20061122);
    for (int round = 0; round < 60; round++) {
        std::string bytes = (round % 2 == 0 ? test::unwrapped() : test::wrapped(300)).bytes;
        for (int acts = 0; acts < 3 && bytes.size() > 400; acts++) {
            test::damage(bytes, random);
        }
        EXPECT_FALSE(mapOfBytes(bytes).empty());
        EXPECT_THAT(mapOfBytes(bytes, true), testing::EndsWith("</svg>\n"));
    }
    test::LogImage full;
    full.events(0, 7999);
    full.event(7999, 100); // across the end
    full.zerosTo(test::RING + 1000);
    EXPECT_FALSE(mapOfBytes(full.bytes, true).empty());
}

TEST(LogMap, CommandDrawsAFile) {
    support::TempDirectory directory;
    test::LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    support::writeFile(directory.file("log"), log.bytes);
    test::Said said = test::run({"file", "map", directory.file("log")});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, mapOfBytes(log.bytes));
    EXPECT_THAT(test::run({"file", "map", "-o", "svg", directory.file("log")}).output,
                testing::StartsWith("<svg "));
    EXPECT_EQ(test::run({"file", "map", "-o", "gif", directory.file("log")}).status, 2);
}
