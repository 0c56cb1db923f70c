#include "catalog/event_names.h"

#include "../../evlog/log_image.h"
#include "../run.h"

#include <gmock/gmock.h>

#include <cstdlib>

using test::run;
using testing::HasSubstr;

namespace {

/** A site's catalogue, and a log with one event of each name, and one without. */
class EventNames : public testing::Test {
  protected:
    void SetUp() override {
        const std::string site = directory_.makeDirectory("site");
        support::writeFile(site + "/site.json", R"({"source": "volmgr", "events": [
            {"id": 40, "name": "vol", "text": "volume {state}", "fields": [
                {"name": "state", "offset": 0, "width": 1, "names": {"1": "online", "-2": "lost"}}]},
            {"id": 40, "idVersion": 3, "name": "vol_moved", "text": "moved"},
            {"id": 70, "name": "größe max", "text": "t"},
            {"id": 50, "lastId": 52, "name": "disk, \"lost\"", "text": "lost"}]})");
        support::writeFile(site + "/startup.json", R"({"source": "startup", "events": [
            {"id": 4, "name": "other", "text": "t"},
            {"id": 1, "idVersion": 2, "name": "line", "text": "t"}]})");
        setenv("EVENT_MANAGER_CATALOG", site.c_str(), 1);
        std::string bytes;
        auto add = [&bytes](const test::RecordFields& fields) {
            bytes += test::record(fields, "\1");
        };
        add({.id = 1, .source = 20, .eventId = 40});
        add({.id = 2, .source = 20, .idVersion = 3, .eventId = 40});
        add({.id = 3, .source = 20, .eventId = 51});
        add({.id = 4, .source = 20, .eventId = 60});
        add({.id = 5, .source = 18, .eventId = 4});
        add({.id = 6, .source = 18, .idVersion = 2, .eventId = 1});
        add({.id = 7, .source = 20, .eventId = 70});
        support::writeFile(log_, bytes);
    }

    std::string idsOf(const std::string& name) {
        const test::Said said = run({"file", "list", log_, "--id", name, "-o", "csv"});
        std::string ids;
        for (size_t at = said.output.find('\n'); at + 1 < said.output.size();
             at = said.output.find('\n', at + 1)) {
            ids += said.output[at + 1];
        }
        return ids;
    }

    support::TempDirectory directory_;
    const std::string log_ = directory_.file("log");
};

} // namespace

TEST_F(EventNames, OfACatalogueStandWhereTheBladesOwnDo) {
    const std::string json = run({"file", "list", log_, "--json"}).output;
    for (const char* member : {R"("id":40,"idName":"vol",)", R"("id":40,"idName":"vol_moved",)",
                               R"("id":60,"idName":null,)", R"("id":51,"idName":"disk, \"lost\"",)",
                               R"("id":4,"idName":"signal",)", R"("id":1,"idName":"line",)"}) {
        EXPECT_THAT(json, HasSubstr(member));
    }
    EXPECT_THAT(run({"file", "list", log_, "-o", "csv"}).output,
                testing::AllOf(HasSubstr(",vol,1,"), HasSubstr(",\"disk, \"\"lost\"\"\",1,")));
    EXPECT_THAT(run({"file", "list", log_, "-o", "syslog"}).output,
                testing::AllOf(HasSubstr(" vol_moved ["), HasSubstr(" gr____e_max [")));
    EXPECT_THAT(run({"file", "list", log_}).output,
                testing::AllOf(HasSubstr(" vol(40) "), HasSubstr(" line(1) "), HasSubstr(" 60 ")));
    EXPECT_THAT(run({"stats", log_, "--json"}).output, HasSubstr("\"volmgr vol(40)\""));
}

TEST_F(EventNames, FindTheirEvents) {
    EXPECT_EQ(idsOf("vol"), "1");
    EXPECT_EQ(idsOf("VOL"), "1");
    EXPECT_EQ(idsOf("vol_moved"), "2");
    EXPECT_EQ(idsOf("40"), "12");
    EXPECT_EQ(idsOf("vol,60"), "14");
    EXPECT_EQ(idsOf("signal"), "5");
    EXPECT_EQ(idsOf("SUS_E_EM_MSG_SIGNAL"), "5");
    EXPECT_EQ(idsOf("line"), "6");
    EXPECT_EQ(idsOf("other"), ""); // of no event: the blade's own name stands before it
    const test::Said unknown = run({"file", "list", log_, "--id", "vol_movd"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.errors, HasSubstr("'vol_movd' is neither a name nor a number up to 65535; "
                                          "did you mean 'vol_moved'?"));
}

TEST_F(EventNames, AreCompletedAndShown) {
    EXPECT_EQ(run({"complete", "--words=file list --source volmgr --id"}).output,
              "vol\nvol_moved\ndisk, \"lost\"\ngröße max\n");
    EXPECT_THAT(run({"complete", "--words=file list --id"}).output,
                testing::AllOf(HasSubstr("signal\n"), HasSubstr("vol\n")));
    const test::Said shown = run({"catalog", "show", "volmgr", "vol"});
    EXPECT_EQ(shown.status, 0) << shown.errors;
    EXPECT_THAT(shown.output, HasSubstr("field     state: unsigned, 1 byte at 0\n"
                                        "            -2: lost\n"
                                        "            1: online\n"));
    EXPECT_THAT(run({"catalog", "show", "volmgr", "moved"}).errors,
                HasSubstr("ID: 'moved' is neither a name"));
}
