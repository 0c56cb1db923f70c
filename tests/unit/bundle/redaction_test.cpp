/** evctl support --redact: what is not in a bundle, and what stays. */
#include "support_bundle.h"

#include "evctl/support/redact.h"
#include "sources/source.h"

#include <nlohmann/json.hpp>

#include <random>
#include <unordered_set>

using test::Said;
using test::SECRET;
using test::secretLog;
using test::Support;
using testing::HasSubstr;
using testing::Not;

TEST_F(Support, RedactedHoldsNoNamesAndNoData) {
    write("emp.log", SECRET);
    Said said = pack({"--redact", "--tail", directory_.file("emp.log")});
    EXPECT_EQ(said.status, 1) << "the output is left out";
    EXPECT_THAT(said.errors, HasSubstr("outputs: emp.log is left out"));
    for (const auto& [name, content] : members_) {
        EXPECT_THAT(content, Not(HasSubstr("secret"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("CHASSIS"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("BLADE-A"))) << name;
    }
    EXPECT_EQ(members_.count("support/outputs/emp.log"), 0U);
    EXPECT_EQ(members_["support/missing.txt"], "outputs\n");
}

TEST_F(Support, RedactedHoldsNoSixBytesOfNamesOrDataWhereverTheyStood) {
    std::minstd_rand random(20061122);
    std::unordered_set<std::string> pieces;
    auto secret = [&](size_t length) {
        std::string text;
        while (text.size() < length) {
            text += static_cast<char>('!' + random() % 90);
        }
        for (size_t at = 0; at + 6 <= length; at++) {
            pieces.insert(text.substr(at, 6));
        }
        return text;
    };
    test::LogImage log;
    log.firstEntry();
    for (uint32_t id = 1; id <= 200; id++) {
        // Behind the end of a name, too; the whole field; and where a bug-check has its texts.
        std::string name = id % 3 == 0 ? std::string("\0", 1) + secret(63) : secret(64);
        bool bugcheck = id % 5 == 0;
        log.raw(test::record({.enclosure = name,
                              .blade = secret(7 + id % 50),
                              .id = id,
                              .source = static_cast<uint8_t>(bugcheck ? 27 : 18),
                              .eventId = static_cast<uint16_t>(bugcheck ? 11 : id)},
                             secret(bugcheck ? 196 : random() % 600)));
        log.raw(id % 7 == 0 ? secret(50) : "");
    }
    log.dummy();
    log.zerosTo(test::RING - 5000);
    log.raw(secret(4000));
    log.zerosTo();
    for (const char* name : {"kelta_eventlog", "kelta_eventlog.debug"}) {
        write("nvram/" + std::string(name), log.bytes);
    }
    write("nvram/kelta_eventlog.fatal-" + secret(12), log.bytes);
    write("nvram/aelfiles/kelta_alteventlog1." + secret(12), test::record({}, secret(300)));
    write("nvram/aelfiles/" + secret(12), secret(300));
    std::string output = directory_.file(secret(12));
    pack({"--redact", "--tail", output, "--tail", output});

    std::string packed = support::readFile(bundlePath());
    std::optional<std::string> problem;
    std::vector<U8_t> plain = sources::decompress(
        {reinterpret_cast<const U8_t*>(packed.data()), packed.size()}, size_t{64} << 20U, &problem);
    std::string all(plain.begin(), plain.end());
    ASSERT_GT(all.size(), 4 * test::RING);
    size_t found = 0;
    for (size_t at = 0; at + 6 <= all.size(); at++) {
        if (all[at] != '\0' && pieces.contains(all.substr(at, 6))) {
            ADD_FAILURE() << "'" << all.substr(at, 6) << "' at " << at;
            ASSERT_LT(++found, 10U);
        }
    }
}

TEST_F(Support, RedactedKeepsOnlyKnownMessagesOfBugChecksAndNothingBehindTheirEnds) {
    auto padded = [](std::string text, const std::string& rest) {
        text += std::string(1, '\0') + rest;
        text.resize(64, '\0');
        return text;
    };
    auto bugcheck = [&](const std::string& function, const std::string& message) {
        return padded("secret/path", "") + padded(function, "secret") + std::string("\0\0\1\7", 4) +
               padded(message, "secret");
    };
    test::LogImage log;
    log.firstEntry();
    auto add = [&](uint32_t id, const std::string& body) {
        log.raw(test::record({.id = id, .source = 27, .eventId = 11}, body));
    };
    add(1, bugcheck("main", "Linux select function fails"));
    add(2, bugcheck("secret", "Linux select function fails"));
    add(3, bugcheck("main", "secret"));
    log.raw(test::record({.id = 4, .source = 18, .eventId = 11},
                         bugcheck("main", "Linux select function fails"))); // anybody's data
    log.bytes[200 + 3] = 's'; // the reserved byte of record 1, which no checksum covers
    log.dummy();
    log.zerosTo();
    write("nvram/kelta_eventlog", log.bytes);
    pack({"--redact"});
    std::string shown = members_["support/kelta_eventlog"];
    EXPECT_THAT(shown, Not(HasSubstr("secret")));
    EXPECT_EQ(shown[203], '\0');
    test::Walked walked = test::walk(shown);
    ASSERT_EQ(walked.records.size(), 5U);
    auto bodyOf = [&](size_t place) {
        std::span<const U8_t> body = walked.records[place].body;
        return std::string(body.begin(), body.end());
    };
    EXPECT_EQ(bodyOf(1), std::string(64, '\0') + padded("main", "") + std::string("\0\0\1\7", 4) +
                             padded("Linux select function fails", ""));
    EXPECT_EQ(bodyOf(2), std::string(196, '\0'));
    EXPECT_EQ(bodyOf(3), std::string(196, '\0'));
    EXPECT_EQ(bodyOf(4), std::string(196, '\0'));
    EXPECT_THAT(members_["support/crashes.txt"], HasSubstr("Linux select function fails"));
}

TEST_F(Support, RedactedBugCheckIsSaidToBeAndNotShownAsIfItWereRead) {
    auto add = [this](uint16_t id, const std::string& body) {
        write("nvram/aelfiles/kelta_alteventlog1." + std::to_string(id),
              test::record({.instance = 0, .time = 1'164'117'800, .source = 27, .eventId = id},
                           body));
    };
    add(11, test::text64("empmain") + test::text64("main") + test::bigEndian(67, 4) +
                test::text64("Linux select function fails"));
    add(12, std::string(460, 'c'));
    add(14, std::string(256, 'w'));
    pack({"--redact"});
    const std::string crashes = members_["support/crashes.txt"];
    EXPECT_THAT(crashes, HasSubstr("\nmessage       Linux select function fails\n"
                                   "function      main\n"
                                   "line          67\n"
                                   "file          redacted\n"));
    EXPECT_THAT(crashes, HasSubstr("\ncontrol block\n  redacted\n\nmessage buffer\n  missing\n"
                                   "\nwork space\n  redacted\n\nindex\n  missing\n"));
    Said said = test::run({"file", "crash", bundlePath()});
    EXPECT_THAT(said.output, testing::EndsWith(crashes));
    EXPECT_THAT(test::run({"file", "crash", bundlePath(), "--json"}).output,
                HasSubstr(R"("redacted":true)"));
    EXPECT_THAT(test::run({"file", "crash", directory_.file("nvram"), "--json"}).output,
                HasSubstr(R"("redacted":false)"));
}

TEST(Redaction, AnEnclosureAndABladeOfOneNameGetNamesOfTheirKinds) {
    const std::string bytes = test::record({.enclosure = "X", .blade = "X"}, "");
    const std::vector<U8_t> record =
        evctl::Redaction().record({reinterpret_cast<const U8_t*>(bytes.data()), bytes.size()});
    EXPECT_EQ(std::string(record.begin() + 8, record.begin() + 136),
              test::text64("ENCLOSURE-1") + test::text64("BLADE-2"));
}

TEST(Redaction, StateOfTheLinkAndWordsForTheProductStay) {
    evctl::Json json = {
        {"link", "down"},      {"archiver", "192.0.2.7:1"}, {"vendorId", "V"},
        {"productId", "P"},    {"revisionLvl", "R"},        {"mpuVer", "1.2.3.4"},
        {"r7qVer", "4.3.2.1"}, {"serialStr", "S"},          {"words", {"link", "V"}}};
    EXPECT_EQ(evctl::Redaction::object(json).dump(),
              R"({"link":"down","archiver":"redacted","vendorId":"V","productId":"P",)"
              R"("revisionLvl":"R","mpuVer":"1.2.3.4","r7qVer":"4.3.2.1",)"
              R"("serialStr":"redacted","words":["redacted","redacted"]})");
}

TEST(Redaction, ObjectsLoseTextsAndSerialNumbers) {
    evctl::Json json = {{"serialNo", 17}, {"slotId", 3}, {"empty", ""}, {"mac", {"00:01", 5}}};
    EXPECT_EQ(evctl::Redaction::object(json).dump(),
              R"({"serialNo":"redacted","slotId":3,"empty":"","mac":["redacted",5]})");
}

TEST_F(Support, RedactedKeepsIdsTimesAndPlaces) {
    pack({"--redact"});
    test::Walked before = test::walk(secretLog());
    test::Walked after = test::walk(members_["support/kelta_eventlog"]);
    ASSERT_EQ(after.records.size(), before.records.size());
    for (size_t place = 0; place < before.records.size(); place++) {
        const EvlogRecord_t& one = before.records[place];
        const EvlogRecord_t& other = after.records[place];
        EXPECT_EQ(one.offset, other.offset);
        EXPECT_EQ(U32_t{one.header->evSequenceId}, U32_t{other.header->evSequenceId});
        EXPECT_EQ(U32_t{one.header->evTime}, U32_t{other.header->evTime});
        EXPECT_STREQ(reinterpret_cast<const char*>(other.header->evEnclosureId), "ENCLOSURE-1");
    }
}
