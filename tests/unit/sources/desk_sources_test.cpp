/** Sources that need libraries of the desk: archives and compressed files. */
#include "ids.h"
#include "sources/source.h"

#include "../evlog/log_image.h"
#include "archive.h"
#include "link_messages.h"
#include "sqlite.h"
#include "sqlite_store.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <sqlite3.h>
#include <zlib.h>

using sources::openSources;
using sources::Source;
using sources::Sources;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Compressed : public testing::Test {
  protected:
    /** The bytes as a member of a gzip file, behind those of an earlier call. */
    void append(const std::string& bytes) {
        gzFile file = gzopen(path_.c_str(), "ab");
        ASSERT_EQ(gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size())),
                  static_cast<int>(bytes.size()));
        gzclose(file);
    }
    void change(const std::function<void(std::string&)>& change) {
        std::string bytes = support::readFile(path_);
        change(bytes);
        support::writeFile(path_, bytes);
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("kelta_eventlog.debug.gz");
    test::LogImage log_;
};

class Archives : public testing::Test {
  protected:
    void fill(const std::vector<support::EventFields>& events) {
        const auto store = evarchive::openArchive(path_);
        evarchive::Archive archive(*store, {}, [](evarchive::Level, const std::string&) {});
        for (const auto& event : events) {
            archive.fileEvent(1, support::eventBody(event));
        }
        archive.commit();
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
};

} // namespace

TEST_F(Compressed, LogsAreReadAndNamedAsTheyWere) {
    log_.events(1, 5);
    log_.dummy();
    log_.zerosTo();
    append(log_.bytes.substr(0, 500));
    append(log_.bytes.substr(500));
    Sources found = openSources(path_);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]->origin().name, directory_.file("kelta_eventlog.debug"));
    EXPECT_EQ(found[0]->origin().kind, sources::Kind::DAMAGED_COPY);
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 2, 3, 4, 5}));
    EXPECT_TRUE(found[0]->problems().empty());
}

TEST_F(Compressed, WhatIsThereOfCutDataIsRead) {
    log_.events(1, 5);
    append(log_.bytes);
    change([](std::string& bytes) { bytes.resize(bytes.size() - 20); });
    Sources found = openSources(path_);
    EXPECT_GE(idsOf(*found.at(0)).size(), 4U);
    EXPECT_THAT(found[0]->notices(), ElementsAre("the compressed data is cut off"));
}

TEST_F(Compressed, AWrongChecksumIsSaid) {
    log_.events(1, 5);
    append(log_.bytes);
    change([](std::string& bytes) { bytes[bytes.size() - 6] ^= 1; });
    Sources found = openSources(path_);
    EXPECT_EQ(idsOf(*found.at(0)).size(), 5U);
    EXPECT_THAT(found[0]->notices(), ElementsAre("the compressed data is damaged"));
}

TEST_F(Compressed, WithoutEndIsRefused) {
    for (int count = 0; count < 65; count++) {
        append(std::string(1U << 20U, '\0'));
    }
    EXPECT_THAT([this] { openSources(path_); },
                testing::ThrowsMessage<std::runtime_error>(
                    HasSubstr("gz: more than 67108864 bytes, decompressed")));
}

TEST_F(Archives, EachLogIsASource) {
    fill({{.id = 1}, {.log = {.slot = 2}, .id = 9}, {.id = 2}, {.id = 4}});
    Sources found = openSources(path_);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0]->origin().name, path_ + "/ENC-A/BLADE-1/1/1");
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 2, 4}));
    found[0]->rewind();
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 2, 4}));
    EXPECT_EQ(idsOf(*found[1]), Ids{9});
}

TEST_F(Archives, OnlyChosenLogsAreOpened) {
    fill({{.id = 1}, {.log = {.slot = 2}, .id = 9}});
    EXPECT_EQ(openSources(path_, {.logs = {.slot = 2}}).size(), 1U);
    EXPECT_EQ(openSources(path_, {.logs = {.blade = "BLADE-9"}}).size(), 0U);
}

TEST_F(Archives, EventsOutliveTheNextOne) {
    fill({{.id = 1}, {.id = 2}});
    Sources found = openSources(path_);
    std::optional<sources::Event> first = found.at(0)->next();
    std::optional<sources::Event> second = found[0]->next();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(U32_t{first->view.header->evSequenceId}, 1U);
    EXPECT_EQ(first->position, 1U);
}

TEST_F(Archives, DamagedEventsAreLeftOutAndAProblem) {
    fill({{.id = 1}, {.id = 2}, {.id = 3}});
    evarchive::SqliteDatabase(path_, SQLITE_OPEN_READWRITE, path_)
        .execute("UPDATE events SET image = x'00' WHERE id = 2");
    Sources found = openSources(path_);
    EXPECT_EQ(idsOf(*found.at(0)), (Ids{1, 3}));
    found[0]->rewind();
    EXPECT_EQ(idsOf(*found[0]), (Ids{1, 3}));
    EXPECT_THAT(found[0]->problems(),
                ElementsAre("1 damaged events left out; see 'evctl archive check'"));
}
