#include "evctl/views/crash_view.h"

#include "crash_records.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <cstring>

using evctl::Json;
using test::CrashLog;
using testing::HasSubstr;
using testing::Not;

namespace {

std::vector<U8_t> errorBody() {
    std::vector<U8_t> body(196);
    memcpy(body.data(), "empmain", 7);
    memcpy(body.data() + 64, "main", 4);
    body[131] = 67;
    memset(body.data() + 132, 'm', 64); // cut, no terminator
    return body;
}

std::vector<U8_t> controlBody() {
    std::vector<U8_t> body(460);
    body[3] = 1;                          // selectTimeout: 1 s
    body[6] = 0x03, body[7] = 0xE8;       // and 1000 us
    body[11] = 5;                         // socketFdMSM
    memcpy(&body[14], "/m/eventlog", 11); // sun_path
    memset(&body[124], 0xFF, 4);          // socketFdEventArchiver: -1
    body[130] = 0x1F, body[131] = 0x90;   // port 8080
    body[132] = 10, body[133] = 1, body[134] = 2, body[135] = 200;
    body[153] = 1; // evManagerStatusFlag
    body[155] = 3; // evArchiverSocketState
    body[171] = 9; // empSequenceId
    memcpy(&body[180], "ENC-1", 5);
    body[364] = 0x80;                            // ...ResourceNotAvailable
    body[452] = 2, body[455] = 1, body[456] = 7; // empWrapOver, empDebug, foundGap
    return body;
}

std::vector<U8_t> messageBody() {
    std::vector<U8_t> body(256);
    body[8] = 14, body[9] = 1, body[11] = 229; // type, version, mmsg_length
    body[12] = 8, body[15] = 1, body[16] = 18; // protocol, type, requestor
    body[20] = 0x08;                           // recipient_loc_bm: 27
    return body;
}

/** Piece 0 has slots 0 and 499, piece 19 slot 9999. */
std::vector<U8_t> indexBody(U32_t id) {
    std::vector<U8_t> body(2000);
    if (id == 15) {
        body[0] = 1, body[3] = 0xC8;
        body[1996] = 1, body[1998] = 0x10;
    } else if (id == 34) {
        body[1996] = 1, body[1997] = 0x12, body[1999] = 0x34;
    }
    return body;
}

void addCrash(CrashLog& log, const std::vector<U32_t>& missing = {}) {
    for (U32_t id = 11; id <= 34; id++) {
        if (std::find(missing.begin(), missing.end(), id) != missing.end()) {
            continue;
        }
        log.add(id, 1'164'117'600,
                id == 11   ? errorBody()
                : id == 12 ? controlBody()
                : id == 13 ? messageBody()
                : id == 14 ? std::vector<U8_t>(256, 'w')
                           : indexBody(id));
    }
}

Json report(const CrashLog& log, bool entries = false) {
    return evctl::crashJson(evctl::findCrashes(log.records()).at(0), entries);
}

} // namespace

TEST(CrashView, HeadSaysWhatWhereWhen) {
    CrashLog log;
    addCrash(log);
    EXPECT_EQ(evctl::crashLines(report(log))
                  .find("time          2006-11-21T14:00:00Z\n"
                        "message       " +
                        std::string(64, 'm') +
                        "\n"
                        "function      main\n"
                        "line          67\n"
                        "file          empmain\n"
                        "enclosure     \n"
                        "blade         \n"
                        "slot          2\n"
                        "records       24 of 24, sequence ids 1 to 24\n"
                        "\ncontrol block\n"),
              0U);
}

TEST(CrashView, IdsAreTheRangeOfItsRecordsInWhateverOrderTheyStand) {
    CrashLog log;
    log.add(12, 1'164'117'600);
    log.add(34, 1'164'117'600);
    log.add(11, 1'164'117'600, errorBody());
    log.add(15, 1'164'117'600);
    Json json = report(log);
    EXPECT_EQ(json["lowestSequenceId"], 1);
    EXPECT_EQ(json["highestSequenceId"], 4);
    EXPECT_EQ(json["records"], 4);
}

TEST(CrashView, WhatWaitsForTheNextStartHasNoIds) {
    CrashLog log;
    log.addRange(11, 12, 1'164'117'600);
    CrashLog waiting;
    waiting.addRange(13, 34, 1'164'117'600);
    auto reportOf = [&](const CrashLog& logged) {
        return evctl::crashJson(evctl::findCrashes(logged.records(), waiting.records()).at(0),
                                false);
    };
    Json json = reportOf({});
    EXPECT_EQ(json["waiting"], 22);
    EXPECT_EQ(json["lowestSequenceId"], nullptr);
    EXPECT_EQ(json["highestSequenceId"], nullptr);
    EXPECT_THAT(evctl::crashLines(json),
                HasSubstr("\nrecords       22 of 24, which wait for the event manager's next "
                          "start\nmissing       event ids 11-12\n"));
    json = reportOf(log);
    EXPECT_EQ(json["waiting"], 22);
    EXPECT_EQ(json["highestSequenceId"], 2);
    EXPECT_THAT(evctl::crashLines(json),
                HasSubstr("\nrecords       24 of 24, sequence ids 1 to 2; 22 of them wait for the "
                          "event manager's next start\n"));
}

TEST(CrashView, ZerosInThePlaceOfTheControlBlockAreRedactedData) {
    CrashLog log;
    for (U32_t id : {11U, 12U, 13U, 15U}) {
        log.add(id, 1'164'117'600);
    }
    Json json = report(log);
    EXPECT_EQ(json["redacted"], true);
    for (const char* member : {"message", "function", "line", "file", "control", "index"}) {
        EXPECT_EQ(json[member], nullptr) << member;
    }
    std::string lines = evctl::crashLines(json);
    EXPECT_THAT(lines, HasSubstr("\nmessage       redacted\nfunction      redacted\n"
                                 "line          redacted\nfile          redacted\n"));
    EXPECT_THAT(lines, HasSubstr("\ncontrol block\n  redacted\n\nmessage buffer\n  redacted\n"
                                 "\nwork space\n  missing\n\nindex\n  redacted\n"));
}

TEST(CrashView, WithoutControlBlockTheNameOfTheFileTellsWhetherDataAreRedacted) {
    CrashLog log;
    log.add(11, 1'164'117'600, errorBody());
    log.add(14, 1'164'117'600);
    Json json = report(log);
    EXPECT_EQ(json["redacted"], false);
    EXPECT_EQ(json["file"], "empmain");
    EXPECT_NE(json["workSpace"], nullptr) << "zeros, that is what it held";
    EXPECT_THAT(evctl::crashLines(json), HasSubstr("\ncontrol block\n  missing\n"));
    auto body = errorBody();
    memset(body.data(), 0, 64);
    CrashLog redacted;
    redacted.add(11, 1'164'117'600, body);
    json = report(redacted);
    EXPECT_EQ(json["redacted"], true);
    EXPECT_EQ(json["function"], "main");
    CrashLog neither;
    neither.add(14, 1'164'117'600);
    EXPECT_EQ(report(neither)["redacted"], false);
}

TEST(CrashView, MessageIsCompletedAndExplained) {
    CrashLog log;
    auto body = errorBody();
    memcpy(body.data() + 132, "Linux recv function fails, Event Archiver Msg length readSize = [",
           64);
    log.add(11, 1'164'117'600, body);
    Json json = report(log);
    EXPECT_EQ(json["message"].get<std::string>().size(), 64U);
    EXPECT_EQ(json["wholeMessage"],
              "Linux recv function fails, Event Archiver Msg length readSize = [?] is wrong");
    EXPECT_THAT(evctl::crashLines(json),
                HasSubstr("what to do    the archiver must write header and body in one piece; "
                          "restart\n"));
}

TEST(CrashView, ControlBlockHasNamesAndDottedAddresses) {
    auto body = controlBody();
    Json json = evctl::controlJson(*reinterpret_cast<const EmpInfo_t*>(body.data()));
    EXPECT_EQ(json["selectTimeout"], "1.001000");
    EXPECT_EQ(json["socketFdMSM"], 5);
    EXPECT_EQ(json["socketAddressMSM"]["sun_path"], "/m/eventlog");
    EXPECT_EQ(json["socketFdEventArchiver"], -1);
    EXPECT_EQ(json["socketAddressEventArchiver"]["sin_port"], 8080);
    EXPECT_EQ(json["socketAddressEventArchiver"]["sin_addr"], "10.1.2.200");
    EXPECT_EQ(json["evManagerStatusFlagName"], "archiver");
    EXPECT_EQ(json["evArchiverSocketState"], 3);
    EXPECT_EQ(json["evArchiverSocketStateName"], "open");
    EXPECT_EQ(json["empSequenceId"], 9);
    EXPECT_EQ(json["empEnclosureId"], "ENC-1");
    EXPECT_EQ(json["mmsgEventResponseMsgSendResourceNotAvailable"], 0x80000000U);
    EXPECT_EQ(json["empWrapOverName"], "true");
    EXPECT_EQ(json["foundGap"], 7);
    // The 56 lines of the console report, and the names of three numbers.
    EXPECT_EQ(json.size(), 56U + 3U);
}

TEST(CrashView, ControlBlockInWords) {
    CrashLog log;
    addCrash(log);
    std::string lines = evctl::crashLines(report(log));
    for (const char* line :
         {"  socketAddressEventArchiver\n    sin_family                                  0\n",
          "    sin_addr                                    10.1.2.200\n",
          "  evArchiverSocketState                         open(3)\n",
          "  empWrapOver                                   true(2)\n",
          "  foundGap                                      7\n\nmessage buffer\n"}) {
        EXPECT_THAT(lines, HasSubstr(line));
    }
    EXPECT_THAT(lines, Not(HasSubstr("evArchiverSocketStateName")));
}

TEST(CrashView, MessageBufferHasItsHeaderDecoded) {
    CrashLog log;
    addCrash(log);
    Json header = report(log)["messageBuffer"]["header"];
    EXPECT_EQ(header["mmsg_length"], 229);
    EXPECT_EQ(header["protocolName"], "eventmgr");
    EXPECT_EQ(header["typeName"], "log");
    EXPECT_EQ(header["requestorName"], "startup");
    EXPECT_EQ(header["recipient_loc_bm"], Json::array({"eventlog"}));
    std::string lines = evctl::crashLines(report(log));
    EXPECT_THAT(lines, HasSubstr("  requestor                                     startup(18)\n"));
    EXPECT_THAT(lines, HasSubstr("0000  00 00 00 00 00 00 00 00 0e 01 00 e5 08 00 00 01  |"));
    EXPECT_THAT(lines, HasSubstr("\nwork space\n0000  77 77 77 77"));
}

TEST(CrashView, BufferWithoutALocalMessageIsNotDecoded) {
    std::vector<U8_t> buffer(256);
    EXPECT_TRUE(evctl::bufferedHeaderJson(buffer).is_null());
    EXPECT_TRUE(evctl::bufferedHeaderJson(std::vector<U8_t>(63, 14)).is_null());
    CrashLog log;
    log.add(13, 100);
    EXPECT_THAT(evctl::crashLines(report(log)),
                HasSubstr("\nmessage buffer\n  no local message\n0000  00"));
}

TEST(CrashView, IndexIsPutTogether) {
    CrashLog log;
    addCrash(log);
    Json index = report(log, true)["index"];
    EXPECT_EQ(index.dump(), R"({"known":10000,"valid":3,"firstSlot":0,"lastSlot":9999,)"
                            R"("lowestOffset":200,"highestOffset":1179700,"entries":[)"
                            R"({"slot":0,"offset":200},{"slot":499,"offset":4096},)"
                            R"({"slot":9999,"offset":1179700}]})");
    EXPECT_THAT(evctl::crashLines(report(log, true)),
                HasSubstr("\nindex\n  3 valid of 10000 known entries of 10000\n"
                          "  slots 0 to 9999, offsets 200 to 1179700\n"
                          "  slot    0  offset     200\n"));
    EXPECT_FALSE(report(log)["index"].contains("entries"));
}

TEST(CrashView, WhatIsMissingIsSaid) {
    CrashLog log;
    addCrash(log, {11, 12, 13, 14, 16, 34});
    Json json = report(log);
    EXPECT_EQ(json["missing"], Json::array({11, 12, 13, 14, 16, 34}));
    for (const char* name :
         {"message", "function", "line", "file", "control", "messageBuffer", "workSpace"}) {
        EXPECT_TRUE(json.at(name).is_null()) << name;
    }
    EXPECT_EQ(json["index"]["known"], 9000);
    EXPECT_EQ(json["index"]["valid"], 2);
    std::string lines = evctl::crashLines(json);
    EXPECT_THAT(lines, HasSubstr("message       -\n"));
    EXPECT_THAT(lines, HasSubstr("records       18 of 24, sequence ids 1 to 18\n"
                                 "missing       event ids 11-14, 16, 34\n"));
    EXPECT_THAT(lines, HasSubstr("\ncontrol block\n  missing\n"));
    EXPECT_THAT(lines, HasSubstr("\nwork space\n  missing\n"));
}
