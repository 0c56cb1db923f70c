/** From an archive in a file to a shared one. */
#include "fleet_server.h"
#include "postgres/fleet_import.h"
#include "sqlite_store.h"

#include <numeric>

using namespace evarchive;
using fleet::NOW;
using support::eventBody;
using testing::HasSubstr;

namespace {

using Events = std::map<std::pair<SeriesKey, U32_t>, std::vector<StoredEvent>>;

class FleetImportTest : public testing::TestWithParam<std::string (*)()> {
  protected:
    void add(const SeriesKey& key, U32_t number, const std::vector<U32_t>& ids) {
        from_->begin();
        const auto known = from_->findSeries(key);
        const GenerationKey generation{known ? *known : from_->addSeries(key), number};
        from_->addGeneration(generation, NOW + number);
        for (const U32_t id : ids) {
            const Bytes image = eventBody({.id = id, .time = 1000 + number});
            from_->addEvent(generation, {id, image, id % 2 == 0, id % 5 == 4, NOW + id});
        }
        from_->noteProven(generation, {ids.front(), ids.front()});
        from_->countDuplicates(generation, number);
        from_->commit();
    }

    static Events eventsOf(StoreReader& store) {
        Events events;
        for (const GenerationInfo& info : store.listGenerations()) {
            auto& list = events[{info.key, info.number.generation}];
            store.forEachEvent(info.number,
                               [&](const StoredEvent& event) { list.push_back(event); });
        }
        return events;
    }

    std::string place_ = GetParam()();
    std::unique_ptr<Store> from_ = openArchiveInMemory();
    std::ostringstream out_;
};

bool isSame(const StoredEvent& left, const StoredEvent& right) {
    return left.sequenceId == right.sequenceId && left.own == right.own &&
           left.image == right.image && left.doubtful == right.doubtful &&
           left.received == right.received;
}

} // namespace

TEST_P(FleetImportTest, EveryLogIsTakenOverWithAllItsGenerations) {
    std::vector<U32_t> many(2500);
    std::iota(many.begin(), many.end(), 3U);
    for (U32_t slot = 0; slot < 6; ++slot) {
        add({{"ENC-A", "BLADE-1", slot}, 1}, 1, {0, 1, 2, 9});
    }
    add({{"ENC-A", "BLADE-1", 0}, 1}, 2, {0, 4});
    add({{"ENC-B", "BLADE-2", 0}, 1}, 1, many);
    from_->begin();
    from_->setAside({{"ENC-A", "BLADE-1", 3}, 1}, Aside::SUPERSEDED,
                    {7, eventBody({.id = 7}), true, true, NOW});
    from_->commit();

    const Imported imported = importArchive(*from_, place_, out_);
    EXPECT_EQ(imported.logs, 7U);
    EXPECT_EQ(imported.events, 6 * 4 + 2 + 2500U);
    EXPECT_EQ(imported.setAside, 1U);
    EXPECT_EQ(out_.str(), "");
    const auto archive = openPgArchiveForReading(place_);
    const Events expected = eventsOf(*from_);
    const Events got = eventsOf(*archive);
    ASSERT_EQ(got.size(), expected.size());
    for (const auto& [generation, events] : expected) {
        EXPECT_TRUE(std::ranges::equal(got.at(generation), events, isSame));
    }
    const auto before = from_->listGenerations();
    const auto after = archive->listGenerations();
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].opened, before[i].opened);
        EXPECT_EQ(after[i].duplicates, before[i].duplicates);
        ASSERT_TRUE(after[i].proven); // the events themselves may have told of more
        EXPECT_TRUE(!before[i].proven || (after[i].proven->first <= before[i].proven->first &&
                                          after[i].proven->last >= before[i].proven->last));
    }
    std::vector<Bytes> aside;
    archive->forEachAside([&](const AsideEvent& event) { aside.push_back(event.image); });
    EXPECT_THAT(aside, testing::ElementsAre(eventBody({.id = 7})));
}

TEST_P(FleetImportTest, LogThatIsThereAlreadyIsLeftOut) {
    add({{"ENC-A", "BLADE-1", 0}, 1}, 1, {0, 1});
    importArchive(*from_, place_, out_);
    add({{"ENC-A", "BLADE-1", 1}, 1}, 1, {0});
    const Imported again = importArchive(*from_, place_, out_);
    EXPECT_EQ(again.logs, 1U);
    EXPECT_EQ(again.leftOut, 1U);
    EXPECT_THAT(out_.str(), HasSubstr("slot 0 instance 1: left out"));
    if (GetParam() == fleet::emptyArchive) { // no blade was taken from its archiver
        EXPECT_EQ(fleet::server().sql("SELECT max(epoch) FROM logs", "contract"), "1\n");
    }
    EXPECT_EQ(openPgArchiveForReading(place_)->rowCount(), 3U);
}

INSTANTIATE_TEST_SUITE_P(Places, FleetImportTest,
                         testing::Values(&fleet::emptyArchive, &fleet::emptyHub));
