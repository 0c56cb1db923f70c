#include "evctl/views/event_json.h"
#include "evctl/views/event_view.h"
#include "evctl/views/pager.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>

using evctl::EventView;

namespace {

EmpEvLogHeader_t sample() {
    EmpEvLogHeader_t header{};
    memcpy(header.evEnclosureId, "CHASSIS", 7);
    memset(header.evBladeId, 'B', sizeof(header.evBladeId)); // no terminator
    header.evSlotId = 2;
    header.evInstanceNumber = 0xFFFFFFFF;
    header.evSequenceId = 0x80000000;
    header.evTime = 1'164'117'600;
    header.evSource = 18;
    header.evType = 2;
    header.evCategory = 4;
    header.evIdVersion = 1;
    header.evId = 4;
    return header;
}

const U8_t DATA[] = {0x00, 'A', 0xFF};

} // namespace

TEST(EventView, TimesCoverAll32Bits) {
    EXPECT_EQ(evctl::isoTime(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(evctl::isoTime(951'782'400), "2000-02-29T00:00:00Z");
    EXPECT_EQ(evctl::isoTime(1'164'117'600), "2006-11-21T14:00:00Z");
    EXPECT_EQ(evctl::isoTime(0x7FFFFFFF), "2038-01-19T03:14:07Z");
    EXPECT_EQ(evctl::isoTime(0x80000000), "2038-01-19T03:14:08Z");
    EXPECT_EQ(evctl::isoTime(0xFFFFFFFF), "2106-02-07T06:28:15Z");
}

TEST(EventView, LineHasNamesForNumbers) {
    EmpEvLogHeader_t header = sample();
    EXPECT_EQ(evctl::eventLine({&header, DATA}),
              "2147483648  2006-11-21T14:00:00Z  warning      startup          disk           "
              "signal(4)             process ? (?) died of signal ?");
}

TEST(EventView, LineShowsNumbersWithoutName) {
    EmpEvLogHeader_t header = sample();
    header.evSequenceId = 5;
    header.evSource = 34;
    header.evType = 255;
    header.evCategory = 14;
    header.evId = 65535;
    EXPECT_EQ(evctl::eventLine({&header, {}}),
              "         5  2006-11-21T14:00:00Z  255          34               14             "
              "65535");
}

TEST(EventView, JsonHasNumbersAndNames) {
    EmpEvLogHeader_t header = sample();
    EXPECT_EQ(evctl::jsonLine(evctl::eventJson({&header, DATA})),
              R"({"sequenceId":2147483648,"instanceNumber":4294967295,)"
              R"("time":"2006-11-21T14:00:00Z","seconds":1164117600,)"
              R"("type":2,"typeName":"warning","source":18,"sourceName":"startup",)"
              R"("category":4,"categoryName":"disk","id":4,"idName":"signal","idVersion":1,)"
              R"("enclosureId":"CHASSIS","bladeId":")" +
                  std::string(64, 'B') +
                  R"(","slotId":2,"length":3,"data":"0041ff",)"
                  R"("text":"process ? (?) died of signal ?","severity":"error",)"
                  R"("fields":{"signal":{"value":null},"pid":{"value":null},)"
                  R"("name":{"value":null}}})" +
                  "\n");
}

TEST(EventView, JsonHasTheFieldsThatTheCatalogueKnows) {
    EmpEvLogHeader_t header = sample();
    std::vector<U8_t> data(344);
    data[3] = 11;
    data[323] = 200;
    memcpy(data.data() + 324, "\"emp\xFC", 6);
    const evctl::Json fields = evctl::eventJson({&header, data})["fields"];
    EXPECT_EQ(fields.dump(), R"({"signal":{"value":11,"name":"SIGSEGV"},"pid":{"value":200},)"
                             R"("name":{"value":"\"emp\\xFC"}})");
    header.evId = 3; // has none
    EXPECT_FALSE(evctl::eventJson({&header, data}).contains("fields"));
    EXPECT_EQ(evctl::eventJson({&header, data})["severity"], "warning");
    header.evSource = 34; // nobody's
    EXPECT_FALSE(evctl::eventJson({&header, data}).contains("severity"));
}

TEST(EventView, JsonHasNullForNoName) {
    EmpEvLogHeader_t header = sample();
    header.evSource = 34;
    header.evType = 0;
    evctl::Json json = evctl::eventJson({&header, {}});
    EXPECT_TRUE(json["sourceName"].is_null());
    EXPECT_TRUE(json["typeName"].is_null());
    EXPECT_TRUE(json["idName"].is_null());
}

TEST(EventView, TextsAreEscaped) {
    EXPECT_EQ(evctl::escapedText({}), "");
    const U8_t text[] = {'a', 0x1B, '\\', 0x80, 0xFF, '~', 0, 'x'};
    EXPECT_EQ(evctl::escapedText(text), "a\\x1B\\x5C\\x80\\xFF~");
}

TEST(EventView, AnOptionOfLessThatEndsInATextShowsNoColours) {
    EXPECT_TRUE(evctl::pagerCommandOf("less", "-XR").showsColours);
    EXPECT_TRUE(evctl::pagerCommandOf("less -r", "-X").showsColours);
    EXPECT_FALSE(evctl::pagerCommandOf("less", "-XPR").showsColours); // a prompt "R"
    EXPECT_FALSE(evctl::pagerCommandOf("less -Dr", "-X").showsColours);
}

TEST(EventView, HexDumpHasLinesOf16) {
    std::vector<U8_t> bytes(17, 'z');
    bytes[1] = 0x07;
    EXPECT_EQ(evctl::hexDump(bytes),
              "0000  7a 07 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a  |z.zzzzzzzzzzzzzz|\n"
              "0010  7a                                               |z|\n");
    EXPECT_EQ(evctl::hexDump({}), "");
}

TEST(EventView, RecordIsItsEventAndItsPlace) {
    EmpEvRecord_t header{};
    header.evSequenceId = 77;
    header.evId = 0x0102;
    EvlogRecord_t record = {
        .offset = 400, .header = &header, .body = DATA, .role = EVLOG_E_ROLE_OLDEST, .taken = true};
    evctl::Json json = evctl::recordJson(record);
    EXPECT_EQ(json["offset"], 400);
    EXPECT_EQ(json["part"], "oldest");
    EXPECT_EQ(json["taken"], true);
    EXPECT_EQ(json["sequenceId"], 77);
    EXPECT_EQ(json["id"], 258);
    EXPECT_EQ(json["data"], "0041ff");
}
