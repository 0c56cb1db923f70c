#include "catalog/catalog.h"

#include "program.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

using namespace catalog;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

std::vector<std::string> problemsOf(const std::string& json, Catalog* into = nullptr) {
    Catalog catalog;
    std::vector<Problem> problems;
    (into == nullptr ? catalog : *into).add(json, "f", &problems);
    std::vector<std::string> lines;
    for (const Problem& problem : problems) {
        lines.push_back(problemLine(problem));
    }
    return lines;
}

/** A catalogue of one event with one field. */
Catalog withField(const std::string& field, const std::string& text = "{x}") {
    Catalog catalog;
    EXPECT_THAT(problemsOf(R"({"source": 18, "events": [{"id": 5, "text": ")" + text +
                               R"(", "fields": [)" + field + "]}]}",
                           &catalog),
                IsEmpty());
    return catalog;
}

std::string message(const Catalog& catalog, const std::vector<U8_t>& data) {
    const Entry* entry = catalog.find(18, 5, 1);
    return entry == nullptr ? "no entry" : messageOf(*entry, data);
}

std::vector<U8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

} // namespace

TEST(Catalog, NumbersAreBigEndianUnlessTold) {
    EXPECT_EQ(message(withField(R"({"name":"x","offset":1,"width":2})"), {9, 1, 2}), "258");
    EXPECT_EQ(message(withField(R"({"name":"x","offset":0,"width":2,"order":"little"})"), {1, 2}),
              "513");
    Catalog either = withField(R"({"name":"x","offset":0,"width":4,"order":"either"})");
    EXPECT_EQ(message(either, {0, 0, 1, 0}), "256");
    EXPECT_EQ(message(either, {11, 0, 0, 0}), "11");
}

TEST(Catalog, NumbersOfOneToEightBytesHaveTheirWholeRange) {
    EXPECT_EQ(message(withField(R"({"name":"x","offset":0,"width":8})"),
                      {255, 255, 255, 255, 255, 255, 255, 255}),
              "18446744073709551615");
    EXPECT_EQ(message(withField(R"({"name":"x","offset":0,"width":8,"type":"signed"})"),
                      {128, 0, 0, 0, 0, 0, 0, 0}),
              "-9223372036854775808");
    Catalog narrow = withField(R"({"name":"x","offset":0,"width":1,"type":"signed"})");
    EXPECT_EQ(message(narrow, {255}), "-1");
    EXPECT_EQ(message(narrow, {128}), "-128");
    EXPECT_EQ(message(narrow, {127}), "127");
}

TEST(Catalog, UnitsAndNamesStandBesideTheNumber) {
    EXPECT_EQ(message(withField(R"({"name":"x","offset":0,"width":1,"unit":"rpm"})"), {7}),
              "7 rpm");
    Catalog named =
        withField(R"({"name":"x","offset":0,"width":1,"unit":"s","names":{"7":"seven"}})");
    EXPECT_EQ(message(named, {7}), "seven"); // within a sentence
    EXPECT_EQ(catalog::valueText(named.find(18, 5, 1)->fields.front(), std::array<U8_t, 1>{7}),
              "seven(7)");
    EXPECT_EQ(message(named, {8}), "8 s");
}

TEST(Catalog, TextsEndAtTheFirstNulAndAreEscaped) {
    Catalog text = withField(R"({"name":"x","offset":0,"width":8,"type":"text"})", "[{x}]");
    EXPECT_EQ(message(text, bytesOf(std::string("ab\0c", 4))), "[ab]");
    EXPECT_EQ(message(text, bytesOf("a\x1B[2J\n")), "[a\\x1B[2J\\x0A]");
    EXPECT_EQ(message(text, bytesOf("\u00e4\xFF")), "[\u00e4\\xFF]");
    EXPECT_EQ(message(text, {}), "[?]");
}

TEST(Catalog, AddressesAndDigits) {
    EXPECT_EQ(
        message(withField(R"({"name":"x","offset":0,"width":4,"type":"ipv4"})"), {192, 0, 2, 255}),
        "192.0.2.255");
    EXPECT_EQ(message(withField(R"({"name":"x","offset":0,"width":2,"type":"hex"})"), {0xAB, 1}),
              "ab01");
}

TEST(Catalog, DataThatEndsBeforeAFieldIsAQuestionMark) {
    Catalog catalog = withField(R"({"name":"x","offset":2,"width":2})", "{x}!");
    EXPECT_EQ(message(catalog, {1, 2, 3}), "?!");
    EXPECT_EQ(message(catalog, {}), "?!");
}

TEST(Catalog, EntryOfTheVersionGoesBeforeTheOneOfAny) {
    Catalog catalog;
    EXPECT_THAT(problemsOf(R"({"source":"startup","events":[{"id":5,"text":"any"},
                               {"id":5,"idVersion":2,"text":"two"},
                               {"id":7,"lastId":9,"text":"range"}]})",
                           &catalog),
                IsEmpty());
    EXPECT_EQ(catalog.find(18, 5, 1)->text, "any");
    EXPECT_EQ(catalog.find(18, 5, 2)->text, "two");
    EXPECT_EQ(catalog.find(18, 9, 0)->text, "range");
    EXPECT_EQ(catalog.find(18, 6, 0), nullptr);
    EXPECT_EQ(catalog.find(18, 10, 0), nullptr);
    EXPECT_EQ(catalog.find(19, 5, 1), nullptr);
    EXPECT_EQ(catalog.entries().size(), 3U);
}

TEST(Catalog, WhatIsWrongIsToldWithItsPlaceAndLeftOut) {
    Catalog catalog;
    EXPECT_THAT(problemsOf(R"({"source":18,"evnts":1,"events":[
        {"id":65536,"text":"a"}, {"id":1}, {"id":2,"text":"{y}"}, {"id":3,"text":"good"}, 7,
        {"id":4,"text":"b","severity":"loud"}, {"id":3,"text":"again"},
        {"id":5,"text":"c","fields":[{"name":"x","offset":3847,"width":2},
                                     {"name":"x","offset":0,"width":9}, {"offset":-1}]}]})",
                           &catalog),
                ElementsAre("f: /evnts: unknown member",
                            "f: /events/0/id: must be a number from 0 to 65535",
                            "f: /events/1/text: is missing",
                            "f: /events/2/text: no field is named 'y'",
                            "f: /events/4: must be an object",
                            "f: /events/5/severity: 'loud' is none of information, warning, error",
                            "f: /events/6: the same event stands in f, which counts",
                            "f: /events/7/fields/0: reaches beyond the 3848 bytes that an event "
                            "may have",
                            "f: /events/7/fields/1/width: a number has 1 to 8 bytes",
                            "f: /events/7/fields/1/name: another field bears the same name",
                            "f: /events/7/fields/2/name: is missing",
                            "f: /events/7/fields/2/offset: must be a number from 0 to 3847",
                            "f: /events/7/fields/2/width: is missing"));
    EXPECT_EQ(catalog.entries().size(), 1U);
    EXPECT_EQ(catalog.find(18, 3, 0)->text, "good");
}

TEST(Catalog, ARangeThatEndsBeforeItBeginsIsWrong) {
    EXPECT_THAT(problemsOf(R"({"source":18,"events":[{"id":7,"lastId":6,"text":"x"}]})"),
                ElementsAre("f: /events/0/lastId: must be a number from 7 to 65535"));
    EXPECT_THAT(problemsOf(R"({"source":18,"events":[{"id":7,"lastId":7,"text":"x"}]})"),
                ElementsAre());
}

TEST(Catalog, ANameThatIsTakenForAnIdIsWrong) {
    auto named = [](const std::string& name) {
        return problemsOf(R"({"source":18,"events":[{"id":7,"text":"x","name":")" + name + "\"}]}");
    };
    for (const char* name : {"7", "0", "0x1F", "0Xab", "65536", "99999999999999999999"}) {
        EXPECT_THAT(named(name), ElementsAre("f: /events/0/name: must not be a number")) << name;
    }
    for (const char* name : {"", "0x", "x7", "7a", "0x1g", "-7", "+7", "7 ", "1.5", "a7", "1f"}) {
        EXPECT_THAT(named(name), ElementsAre()) << name;
    }
}

TEST(Catalog, AnythingMayBeInAFile) {
    EXPECT_THAT(problemsOf(""),
                ElementsAre(testing::StartsWith("f: no JSON at line 1, column 1: ")));
    EXPECT_THAT(problemsOf("[]"), ElementsAre("f: must be an object"));
    EXPECT_THAT(problemsOf("{}").size(), 2U);
    EXPECT_THAT(problemsOf(R"({"source":[],"events":{}})").size(), 2U);
    EXPECT_THAT(problemsOf("[["),
                ElementsAre(testing::StartsWith("f: no JSON at line 1, column 3: ")));
    EXPECT_THAT(problemsOf(R"({"source":18,"events":[{"id":1,"text":"x","fields":7}]})"),
                ElementsAre("f: /events/0/fields: must be an array"));
}

TEST(Catalog, WhatIsNestedWithoutSenseIsRefusedBeforeItIsParsed) {
    const std::string deep = std::string(1'500'000, '[') + std::string(1'500'000, ']');
    for (const std::string& json :
         {"{\"source\":" + deep + ",\"events\":[]}", "{\"events\":" + deep + "}", deep,
          std::string(17, '['), R"({"a\"{":")" + std::string(20, ']') + "\",\"b\":" + deep}) {
        EXPECT_THAT(problemsOf(json), ElementsAre("f: nested more than 16 deep"));
    }
    EXPECT_THAT(problemsOf(std::string(16, '[') + std::string(16, ']')),
                ElementsAre("f: must be an object"));
    EXPECT_THAT(
        problemsOf(R"({"source":18,"note":")" + std::string(20, '[') + R"(\"[","events":[]})"),
        IsEmpty())
        << "brackets of a text are none";
}

TEST(Catalog, SourceThatIsNoTextAndNoNumberIsRefused) {
    for (const char* source : {"[18]", "{\"a\":18}", "true", "null", "256", "-1", "1.5"}) {
        EXPECT_THAT(problemsOf(std::string("{\"source\":") + source + ",\"events\":[]}"),
                    ElementsAre("f: /source: must be an endpoint's name or a number up to 255"))
            << source;
    }
}

TEST(Catalog, FieldsAndTextsWithoutEndAreRefused) {
    auto fields = [](size_t count) {
        std::string list;
        for (size_t number = 0; number < count; number++) {
            list += (number == 0 ? "" : ",") +
                    (R"({"offset":0,"width":1,"name":")" + std::to_string(number) + "\"}");
        }
        return R"({"source":18,"events":[{"id":1,"text":"{0}{3847}","fields":[)" + list + "]}]}";
    };
    EXPECT_THAT(problemsOf(fields(3848)), IsEmpty());
    EXPECT_THAT(problemsOf(fields(3849)), ElementsAre("f: /events/0/fields: more than 3848"));
    auto text = [](const std::string& words) {
        return R"({"source":18,"events":[{"id":1,"text":")" + words + "\"}]}";
    };
    EXPECT_THAT(problemsOf(text(std::string(4096, 'x'))), IsEmpty());
    EXPECT_THAT(problemsOf(text(std::string(4097, 'x'))),
                ElementsAre("f: /events/0/text: is longer than 4096 bytes"));
    EXPECT_EQ(problemsOf(text(std::string(4096, '{'))).size(), 1U);
}

TEST(Catalog, WithManyEventsEachIsFoundInItsPlace) {
    std::string events;
    for (U32_t id = 0; id < 4096; id++) { // from both ends
        events += (id == 0 ? "" : ",") +
                  (R"({"text":"x","id":)" + std::to_string(id % 2 == 0 ? id : 4096 - id) + "}");
    }
    Catalog catalog;
    EXPECT_THAT(problemsOf("{\"source\":18,\"events\":[" + events + "]}", &catalog), IsEmpty());
    std::vector<const Entry*> entries = catalog.entries();
    ASSERT_EQ(entries.size(), 4096U);
    for (U32_t id = 0; id < 4096; id++) {
        ASSERT_EQ(entries[id]->firstId, id);
        ASSERT_EQ(catalog.find(18, id, 1), entries[id]);
    }
}

TEST(Catalog, OurOwnEventsAndTheDemonstrationsAreWithoutProblem) {
    Catalog catalog;
    std::vector<Problem> problems;
    catalog.addDirectory(support::sourceFile("share/event-manager/catalog.d"), &problems);
    catalog.addDirectory(support::sourceFile("demo/catalog.d"), &problems);
    EXPECT_EQ(problems.size(), 0U);
    for (U32_t id : {1, 2, 3, 4, 11, 12, 13, 14, 15, 34}) {
        EXPECT_NE(catalog.find(27, id, 1), nullptr) << id;
    }
    for (U32_t id : {1, 2, 3, 4}) {
        EXPECT_NE(catalog.find(18, id, 1), nullptr) << id;
    }
}

TEST(Catalog, BugCheckIsReadFromItsBytes) {
    Catalog catalog;
    std::vector<Problem> problems;
    catalog.addDirectory(support::sourceFile("share/event-manager/catalog.d"), &problems);
    std::vector<U8_t> data(196);
    std::string function = "empInit";
    std::string text = "Linux connect function fails for MSM/EMP socket!";
    std::copy(function.begin(), function.end(), data.begin() + 64);
    data[130] = 1;
    data[131] = 2;
    std::copy(text.begin(), text.end(), data.begin() + 132);
    EXPECT_EQ(messageOf(*catalog.find(27, 11, 1), data),
              "bug-check: Linux connect function fails for MSM/EMP socket! (empInit, line 258)");
}

TEST(Catalog, DirectoriesAreThoseOfTheEnvironment) {
    setenv("EVENT_MANAGER_CATALOG", "/a::/b:", 1);
    EXPECT_THAT(catalogDirectories(), ElementsAre("/a", "/b"));
    unsetenv("EVENT_MANAGER_CATALOG");
    EXPECT_THAT(catalogDirectories(), ElementsAre(EndsWith("/share/event-manager/catalog.d"),
                                                  "/etc/event-manager/catalog.d"));
}

TEST(Catalog, AnEmptyVariableNamesNoDirectories) {
    unsetenv("EVENT_MANAGER_CATALOG");
    const std::vector<std::string> usual = catalogDirectories();
    setenv("EVENT_MANAGER_CATALOG", "", 1);
    EXPECT_EQ(catalogDirectories(), usual);
    std::vector<Problem> problems;
    EXPECT_NE(loadCatalog(&problems).find(27, 11, 1), nullptr);
    unsetenv("EVENT_MANAGER_CATALOG");
}

TEST(Catalog, AFileMayHaveFourMebibytesAndNotOneByteMore) {
    support::TempDirectory directory;
    std::string json = R"({"source":18,"events":[{"id":1,"text":"found"}]})";
    json.append((4U << 20) - json.size(), '\n');
    Catalog catalog;
    std::vector<Problem> problems;
    support::writeFile(directory.file("a.json"), json);
    catalog.addFile(directory.file("a.json"), &problems);
    EXPECT_THAT(problems, IsEmpty());
    ASSERT_NE(catalog.find(18, 1, 0), nullptr);
    support::writeFile(directory.file("b.json"), json + "\n");
    catalog.addFile(directory.file("b.json"), &problems);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problemLine(problems[0]), directory.file("b.json") + ": longer than 4 MiB");
}

TEST(Catalog, OnlyFilesNamedJsonAreReadInTheOrderOfNames) {
    support::TempDirectory directory;
    auto event = [](const char* text) {
        return std::string(R"({"source":18,"events":[{"id":1,"text":")") + text + "\"}]}";
    };
    support::writeFile(directory.file("b.json"), event("second"));
    support::writeFile(directory.file("a.json"), event("first"));
    support::writeFile(directory.file("c.json~"), "no JSON");
    Catalog catalog;
    std::vector<Problem> problems;
    catalog.addDirectory(directory.path(), &problems);
    EXPECT_EQ(catalog.find(18, 1, 0)->text, "first");
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problemLine(problems[0]), directory.file("b.json") +
                                            ": /events/0: the same event stands in " +
                                            directory.file("a.json") + ", which counts");
}

namespace {

std::string eventsOf(const std::string& events) {
    return R"({"source":18,"events":[)" + events + "]}";
}

/** Two directories, one after the other. */
class CatalogDirectories : public testing::Test {
  protected:
    CatalogDirectories() {
        shipped_ = directory_.makeDirectory("share") + "/";
        site_ = directory_.makeDirectory("etc") + "/";
        setenv("EVENT_MANAGER_CATALOG", (shipped_ + ":" + site_).c_str(), 1);
    }
    ~CatalogDirectories() override { unsetenv("EVENT_MANAGER_CATALOG"); }

    std::vector<std::string> load() {
        std::vector<Problem> problems;
        catalog_ = loadCatalog(&problems);
        std::vector<std::string> lines;
        problems.insert(problems.end(), catalog_.replaced().begin(), catalog_.replaced().end());
        for (const Problem& problem : problems) {
            lines.push_back(problemLine(problem));
        }
        return lines;
    }
    std::string textOf(U32_t id, U32_t version = 1) {
        const Entry* entry = catalog_.find(18, id, version);
        return entry == nullptr ? "none" : entry->text;
    }

    support::TempDirectory directory_;
    std::string shipped_;
    std::string site_;
    Catalog catalog_;
};

} // namespace

TEST_F(CatalogDirectories, AnEntryOfALaterOneReplacesThatOfTheSameEvent) {
    support::writeFile(shipped_ + "a.json", eventsOf(R"({"id":1,"text":"shipped"},
        {"id":1,"idVersion":2,"text":"shipped 2"}, {"id":5,"lastId":9,"text":"shipped range"})"));
    support::writeFile(site_ + "b.json", eventsOf(R"({"id":1,"text":"own"},
        {"id":7,"text":"own"}, {"id":8,"idVersion":3,"text":"own 3"})"));
    std::string goesBefore = ": goes before that of " + shipped_ + "a.json";
    EXPECT_THAT(load(), ElementsAre(site_ + "b.json: /events/0" + goesBefore, // both, said once
                                    site_ + "b.json: /events/1" + goesBefore));
    EXPECT_EQ(textOf(1), "own");
    EXPECT_EQ(textOf(1, 2), "own");
    EXPECT_EQ(textOf(6), "shipped range");
    EXPECT_EQ(textOf(7), "own");
    EXPECT_EQ(textOf(8), "shipped range");
    EXPECT_EQ(textOf(8, 3), "own 3");
    EXPECT_EQ(catalog_.entries().size(), 4U); // both of event 1 are gone
}

TEST_F(CatalogDirectories, RangeReplacesWhatItCoversAndGoesBeforeWhatItTouches) {
    support::writeFile(shipped_ + "a.json", eventsOf(R"({"id":1,"lastId":4,"text":"left"},
        {"id":5,"text":"covered"}, {"id":6,"idVersion":7,"text":"covered"},
        {"id":7,"lastId":9,"text":"right"})"));
    support::writeFile(site_ + "b.json", eventsOf(R"({"id":4,"lastId":7,"text":"own"})"));
    EXPECT_EQ(load().size(), 1U);
    for (const auto& [id, text] : std::map<U32_t, std::string>{
             {1, "left"}, {3, "left"}, {4, "own"}, {5, "own"}, {7, "own"}, {8, "right"}}) {
        EXPECT_EQ(textOf(id), text) << id;
    }
    EXPECT_EQ(textOf(6, 7), "own");
    EXPECT_EQ(catalog_.entries().size(), 3U);
}

TEST_F(CatalogDirectories, AFileOfALaterOneReplacesThatOfTheSameName) {
    support::writeFile(shipped_ + "a.json", eventsOf(R"({"id":1,"text":"shipped"},{"id":2})"));
    support::writeFile(site_ + "a.json", eventsOf(R"({"id":3,"text":"own"})"));
    EXPECT_THAT(load(), ElementsAre(site_ + "a.json: replaces " + shipped_ + "a.json"));
    EXPECT_EQ(textOf(1), "none");
    EXPECT_EQ(textOf(3), "own");
}

TEST_F(CatalogDirectories, OneThatIsNamedAndCannotBeReadIsTold) {
    support::writeFile(directory_.file("file"), "");
    setenv("EVENT_MANAGER_CATALOG", (directory_.file("no") + ":" + directory_.file("file")).c_str(),
           1);
    EXPECT_THAT(load(), ElementsAre(directory_.file("no") + ": No such file or directory",
                                    directory_.file("file") + ": Not a directory"));
}

TEST(Catalog, TextsThatWouldBreakALineAreRefused) {
    EXPECT_THAT(problemsOf(R"({"source":18,"\u001b[2J":1,"events":[{"id":1,"text":"a\nb"},
        {"id":2,"text":"x","advice":"\u202e"}, {"id":3,"text":"\u00e4"},
        {"id":4,"text":"x","fields":[{"name":"n","offset":0,"width":1,"unit":"\u001b",
                                      "names":{"1":"\r"}}]}]})"),
                ElementsAre("f: /\\x1B[2J: unknown member",
                            "f: /events/0/text: holds a control character",
                            "f: /events/1/advice: holds a control character",
                            "f: /events/3/fields/0/unit: holds a control character",
                            "f: /events/3/fields/0/names/1: holds a control character"));
}

TEST(Catalog, PlainTextIsUtf8WithoutControls) {
    EXPECT_EQ(plainText(bytesOf("drive 4")), "drive 4");
    EXPECT_EQ(plainText(bytesOf(std::string("a\n\0\0", 4))), "a\\x0A");
    EXPECT_EQ(plainText(bytesOf("\u00fcber")), "\u00fcber");
    for (const std::string& other :
         {std::string(), std::string(3, '\0'), std::string("a\0b", 3), std::string("\x1B[1m"),
          std::string("\xC0\x80"), std::string("\xED\xA0\x80"), std::string("\xE2\x80\xAE")}) {
        EXPECT_EQ(plainText(bytesOf(other)), std::nullopt) << other;
    }
}

TEST(Catalog, PlainTextMayHoldAFewOtherBytes) {
    EXPECT_EQ(plainText(bytesOf("fan \xFC"
                                "ber 90 %")),
              "fan \\xFCber 90 %"); // another character set
    EXPECT_EQ(plainText(bytesOf("\x1B[31mhot\x1B[0m")), "\\x1B[31mhot\\x1B[0m");
    EXPECT_EQ(plainText(bytesOf("\1\2abcdef")), "\\x01\\x02abcdef"); // a quarter
    EXPECT_EQ(plainText(bytesOf("\1\2\3abcdef")), std::nullopt);
    EXPECT_EQ(plainText(bytesOf("\1abcdef")), std::nullopt); // few bytes: a number, perhaps
    EXPECT_EQ(plainText(bytesOf("\1abcdef\1")), "\\x01abcdef\\x01");
    EXPECT_EQ(plainText(bytesOf(std::string("a name\0and another", 18))), std::nullopt);
    EXPECT_EQ(plainText(bytesOf("cut amid \xC3")), "cut amid \\xC3");
}
