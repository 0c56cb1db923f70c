#include "evctl/filters/event_filter.h"

#include "../run.h"
#include "common/cli.h"
#include "evctl/filters/pattern_size.h"

#include <gmock/gmock.h>

using evctl::EventFilter;

namespace {

EventFilter parse(const std::vector<std::string>& arguments, std::string* file = nullptr) {
    EventFilter filter;
    CLI::App app;
    std::string ignored;
    app.add_option("FILE", file != nullptr ? *file : ignored);
    evctl::addFilterOptions(app, filter);
    evctl::addLogChoice(app, filter.logs);
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    app.parse(reversed);
    return filter;
}

EmpEvLogHeader_t event(U32_t sequenceId, U8_t source, U8_t type, U8_t category, U16_t id) {
    EmpEvLogHeader_t header{};
    header.evSequenceId = sequenceId;
    header.evSource = source;
    header.evType = type;
    header.evCategory = category;
    header.evId = id;
    return header;
}

bool shows(const std::vector<std::string>& arguments, const EmpEvLogHeader_t& header) {
    return parse(arguments).matches(header);
}

/** Whether an event with that text for its data is shown. */
bool showsText(const std::vector<std::string>& arguments, const std::string& text) {
    const EmpEvLogHeader_t header = event(7, 20, 2, 4, 300);
    const auto* bytes = reinterpret_cast<const U8_t*>(text.data());
    return parse(arguments).matches(evctl::EventView{&header, {bytes, text.size()}});
}

} // namespace

TEST(EventFilter, WithoutOptionsEverythingMatches) {
    EXPECT_TRUE(shows({}, event(0, 0, 0, 0, 0)));
    EXPECT_TRUE(shows({}, event(0xFFFFFFFF, 255, 255, 255, 65535)));
}

TEST(EventFilter, EachFieldIsComparedByNameOrNumber) {
    EmpEvLogHeader_t header = event(7, 18, 2, 4, 300);
    EXPECT_TRUE(shows({"--type", "WARNING"}, header));
    EXPECT_TRUE(shows({"--type", "2"}, header));
    EXPECT_FALSE(shows({"--type", "error"}, header));
    EXPECT_TRUE(shows({"--source", "MMSG_E_EPID_STARTUPMP"}, header));
    EXPECT_FALSE(shows({"--source", "27"}, header));
    EXPECT_TRUE(shows({"--category", "disk"}, header));
    EXPECT_FALSE(shows({"--category", "system"}, header));
    EXPECT_TRUE(shows({"--id", "0x12c"}, header));
    EXPECT_FALSE(shows({"--id", "301"}, header));
}

TEST(EventFilter, NamesOfIdsAreThoseOfTheirSource) {
    EXPECT_TRUE(shows({"--id", "signal"}, event(7, 18, 2, 4, 4)));
    EXPECT_FALSE(shows({"--id", "signal"}, event(7, 20, 2, 4, 4)));
    EXPECT_FALSE(shows({"--id", "signal"}, event(7, 18, 2, 4, 5)));
    EXPECT_TRUE(shows({"--id", "signal,5"}, event(7, 20, 2, 4, 5)));
    EXPECT_FALSE(shows({"--id", "5"}, event(7, 18, 2, 4, 4)));
}

TEST(EventFilter, SeveralNamesOfIdsAreAlternatives) {
    EXPECT_TRUE(shows({"--id", "signal,dummy"}, event(7, 18, 2, 4, 4)));
    EXPECT_TRUE(shows({"--id", "signal,dummy"}, event(7, 27, 1, 2, 1)));
    EXPECT_FALSE(shows({"--id", "signal,dummy"}, event(7, 18, 2, 4, 1)));
}

TEST(EventFilter, ANameOfSeveralIdsMeansAllOfThem) {
    for (U16_t id : std::vector<U16_t>{15, 16, 34}) {
        EXPECT_TRUE(shows({"--id", "bugcheck_entry_database"}, event(7, 27, 3, 1, id))) << id;
    }
    EXPECT_FALSE(shows({"--id", "bugcheck_entry_database"}, event(7, 27, 3, 1, 14)));
    EXPECT_FALSE(shows({"--id", "bugcheck_entry_database"}, event(7, 27, 3, 1, 35)));
    EXPECT_FALSE(shows({"--id", "bugcheck_entry_database"}, event(7, 18, 3, 1, 15)));
}

TEST(EventFilter, ListsAreAlternativesAndFieldsAddUp) {
    EmpEvLogHeader_t header = event(7, 18, 2, 4, 300);
    EXPECT_TRUE(shows({"--type", "error,warning"}, header));
    EXPECT_TRUE(shows({"--type", "error", "--type", "warning"}, header));
    EXPECT_FALSE(shows({"--type", "warning", "--source", "snmp"}, header));
}

TEST(EventFilter, RangeIncludesBothEnds) {
    auto at = [](U32_t id) { return event(id, 1, 1, 1, 1); };
    EXPECT_FALSE(shows({"--seq", "10:20"}, at(9)));
    EXPECT_TRUE(shows({"--seq", "10:20"}, at(10)));
    EXPECT_TRUE(shows({"--seq", "10:20"}, at(20)));
    EXPECT_FALSE(shows({"--seq", "10:20"}, at(21)));
    EXPECT_TRUE(shows({"--seq", "10:"}, at(0xFFFFFFFF)));
    EXPECT_FALSE(shows({"--seq", "10:"}, at(9)));
    EXPECT_TRUE(shows({"--seq", ":20"}, at(0)));
    EXPECT_FALSE(shows({"--seq", ":20"}, at(21)));
    EXPECT_TRUE(shows({"--seq", "7"}, at(7)));
    EXPECT_FALSE(shows({"--seq", "7"}, at(8)));
}

TEST(EventFilter, TimesIncludeTheirSecond) {
    auto at = [](U32_t time) {
        EmpEvLogHeader_t header = event(7, 18, 2, 4, 300);
        header.evTime = time;
        return header;
    };
    EXPECT_FALSE(shows({"--since", "@100"}, at(99)));
    EXPECT_TRUE(shows({"--since", "@100"}, at(100)));
    EXPECT_TRUE(shows({"--until", "@100"}, at(100)));
    EXPECT_FALSE(shows({"--until", "@100"}, at(101)));
    EXPECT_TRUE(shows({"--until", "@4294967295"}, at(0xFFFFFFFF)));
}

TEST(EventFilter, IsEmptyOnlyWithoutAnyOfThem) {
    EXPECT_TRUE(parse({}).isEmpty());
    EXPECT_TRUE(parse({"--ignore-case"}).isEmpty());
    for (const char* option :
         {"--type=error", "--source=snmp", "--category=disk", "--id=300", "--id=signal",
          "--seq=7:", "--seq=:7", "--since=@1", "--until=@1", "--grep=x", "--enclosure=E",
          "--blade=B", "--slot=0", "--instance=0"}) {
        EXPECT_FALSE(parse({option}).isEmpty()) << option;
    }
}

TEST(EventFilter, ListDoesNotSwallowTheFileArgument) {
    std::string file;
    parse({"--type", "error", "log"}, &file);
    EXPECT_EQ(file, "log");
}

TEST(EventFilter, BladesAreTakenByTheirWholeNames) {
    EmpEvLogHeader_t header = event(7, 18, 2, 4, 300);
    header.evBladeId[0] = 'B';
    header.evSlotId = 3;
    EXPECT_TRUE(shows({"--blade", "B", "--slot", "3", "--instance", "0"}, header));
    EXPECT_FALSE(shows({"--blade", "BL"}, header));
    EXPECT_FALSE(shows({"--enclosure", "E"}, header));
    EXPECT_FALSE(shows({"--slot", "2"}, header));
}

TEST(Patterns, MeanTheLettersOfASCIIOnAnySystem) {
    EXPECT_TRUE(showsText({"-g", "^dr[a-z]+ [13]$"}, "drive 3"));
    EXPECT_FALSE(showsText({"-g", "DRIVE"}, "drive 3"));
    EXPECT_TRUE(showsText({"-g", "DRIVE", "-i"}, "drive 3"));
    EXPECT_TRUE(showsText({"-g", "f.nf", "-i"}, "FUNF"));
    EXPECT_TRUE(showsText({"-g", "fünf Übel"}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "übel|drive"}, "drive 3"));
}

TEST(Patterns, MeanCharactersNotTheirBytes) {
    if (!evctl::TextPattern::knowsCharacters()) {
        GTEST_SKIP() << "this system has no locale C.UTF-8";
    }
    EXPECT_TRUE(showsText({"-g", "^f.nf "}, "fünf Übel"));
    EXPECT_FALSE(showsText({"-g", "^f..nf "}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "^f[äöü]nf "}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "^[[:alpha:]]+ [[:upper:]]"}, "fünf Übel"));
    EXPECT_FALSE(showsText({"-g", "^[[:lower:]]+ [[:lower:]]"}, "fünf Übel"));
    EXPECT_FALSE(showsText({"-g", "ü{2}"}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "ü{2}"}, "füünf"));
    EXPECT_TRUE(showsText({"-g", "^xü*y"}, "xy")); // a pattern of characters, a text of bytes
}

TEST(Patterns, InAnyCaseHoldForAllLetters) {
    if (!evctl::TextPattern::knowsCharacters()) {
        GTEST_SKIP() << "this system has no locale C.UTF-8";
    }
    EXPECT_FALSE(showsText({"-g", "übel"}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "übel", "-i"}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "[ü]BEL", "-i"}, "fünf Übel"));
    EXPECT_TRUE(showsText({"-g", "ΑΒΓ ДИСК", "-i"}, "αβγ диск"));
    EXPECT_FALSE(showsText({"-g", "Abel", "-i"}, "fünf Übel"));
}

TEST(PatternSize, RepetitionsAreWrittenOut) {
    using evctl::patternSize;
    EXPECT_EQ(patternSize(""), 0U);
    EXPECT_EQ(patternSize("fan|disk\\.[0-9]?x*"), 11U);
    EXPECT_EQ(patternSize("a{5}"), 5U);
    EXPECT_EQ(patternSize("a{,5}b{2,3}c{4,}d{0}"), 13U);
    EXPECT_EQ(patternSize("(ab){2}"), 6U);
    EXPECT_EQ(patternSize("(a{3}b){2}{2}"), 20U);
    EXPECT_EQ(patternSize("((a+)+)+"), 14U); // each once more with a star
    EXPECT_EQ(patternSize("\\(a{3}\\{2}"), 7U);
    EXPECT_EQ(patternSize("(a[)]b){2}"), 8U);
    EXPECT_EQ(patternSize("([]})]b[^]{1,9}]c){2}"), 10U);
    EXPECT_EQ(patternSize("([[:alpha:])]b){2}"), 6U);
    for (const char* cut : {"(", "((a", "[", "[^", "[[:", "a{", "a{2", "\\"}) {
        EXPECT_LE(patternSize(cut), 4U) << cut;
    }
}

TEST(PatternSize, OnesThatWouldTakeAllMemoryAreRefused) {
    for (const char* text : {"((((.{1,200}){1,200}){1,200}){1,200})", "(.{1,101}){1,101}",
                             "((((((((((((((a+)+)+)+)+)+)+)+)+)+)+)+)+)+)+"}) {
        EXPECT_THAT(test::run({"file", "list", "no", "-g", text}).errors,
                    testing::StartsWith("evctl: --grep: '" + std::string(text) +
                                        "': more than 10000 characters when its repetitions are "));
    }
    EXPECT_EQ(evctl::patternSize(std::string(20'000, 'a')), evctl::PATTERN_SIZE_MAX + 1);
    EXPECT_NO_THROW(evctl::TextPattern("(.{1,50}x){1,100}"));
}
