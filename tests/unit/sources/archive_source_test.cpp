/** The logs of an archive as sources: which, under which names, from the start again. */
#include "archive.h"
#include "ids.h"
#include "link_messages.h"
#include "sqlite.h"
#include "sqlite_store.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

using sources::openSources;
using sources::Sources;
using support::EventFields;
using testing::ElementsAre;

namespace {

class ArchiveLogs : public testing::Test {
  protected:
    void fill(const std::vector<EventFields>& events) const {
        const auto store = evarchive::openArchive(path_);
        evarchive::Archive archive(*store, {}, [](evarchive::Level, const std::string&) {});
        for (const EventFields& event : events) {
            archive.fileEvent(1, support::eventBody(event));
        }
        archive.commit();
    }
    void change(const char* sql) const {
        evarchive::SqliteDatabase(path_, SQLITE_OPEN_READWRITE, path_).execute(sql);
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
};

} // namespace

TEST_F(ArchiveLogs, BeginAnewInTheMidstOfOne) {
    fill({{.id = 1}, {.id = 2}, {.id = 3}});
    const Sources found = openSources(path_);
    ASSERT_EQ(found.size(), 1U);
    for (int taken = 1; taken <= 4; taken++) {
        for (int count = 0; count < taken; count++) {
            found[0]->next();
        }
        found[0]->rewind();
        const auto first = found[0]->next();
        ASSERT_TRUE(first) << taken;
        EXPECT_EQ(U32_t{first->view.header->evSequenceId}, 1U) << taken;
        found[0]->rewind();
    }
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 2, 3}));
}

// Ids above 2^32 stand behind all others, and are read as if they stood before them.
TEST_F(ArchiveLogs, WhatStandsBehindAnImpossibleIdIsNotTakenForAnEventOfTheNextGeneration) {
    fill({{.id = 1}, {.id = 2}, {.id = 3}, {.id = 5}, {.id = 1, .time = 900}});
    change("UPDATE events SET id = id + 4294967296 WHERE id IN (2, 3)");
    const Sources found = openSources(path_, {.allGenerations = true});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 5, 1}));
    EXPECT_THAT(found[0]->problems(),
                ElementsAre("1 damaged events left out; see 'evctl archive check'"));
}

TEST_F(ArchiveLogs, AreChosenByEachPartOfTheirName) {
    fill({{.log = {.enclosure = "ENC-B", .blade = "BLADE-2", .slot = 3, .instance = 4}, .id = 1},
          {.id = 1}});
    EXPECT_EQ(openSources(path_).size(), 2U);
    EXPECT_EQ(openSources(path_, {.logs = {.enclosure = "ENC-B"}}).size(), 1U);
    EXPECT_EQ(openSources(path_, {.logs = {.enclosure = "ENC-C"}}).size(), 0U);
    EXPECT_EQ(openSources(path_, {.logs = {.instance = 4}}).size(), 1U);
    const Sources found = openSources(
        path_, {.logs = {.enclosure = "ENC-B", .blade = "BLADE-2", .slot = 3, .instance = 4}});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]->origin().name, path_ + "/ENC-B/BLADE-2/3/4");
}

TEST_F(ArchiveLogs, HaveNamesThatATerminalMayBeShown) {
    path_ = directory_.file("ev\x1B[2J.db");
    fill({{.log = {.enclosure = "E\x1B[2J", .blade = "B\n"}, .id = 1}});
    const Sources found = openSources(path_);
    ASSERT_EQ(found.size(), 1U);
    const std::string& name = found[0]->origin().name;
    EXPECT_TRUE(std::ranges::all_of(name, [](char byte) { return byte >= ' '; })) << name;
    EXPECT_THAT(name, testing::EndsWith("/E\\x1B[2J/B\\x0A/1/1"));
}
