/** Logs that the server refuses for what they are, in a lane with others. */
#include "lane.h"
#include "pg_store_fixture.h"

using namespace evarchive;
using fleet::server;
using support::eventBody;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/** How the server comes to refuse BLADE-2. */
struct Refusal {
    const char* name;
    const char* sql;
    bool isKnown; ///< its log was there before
};

constexpr char CHECK[] =
    "ALTER TABLE logs ADD CONSTRAINT test CHECK (blade <> 'BLADE-2') NOT VALID";
constexpr char TRIGGER[] =
    "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
    "RAISE EXCEPTION 'not this one'; END $$; CREATE TRIGGER test BEFORE INSERT OR UPDATE ON logs "
    "FOR EACH ROW WHEN (NEW.blade = 'BLADE-2') EXECUTE FUNCTION refuse()";

class PgRefusedTest : public fleet::PgStoreTest, public testing::WithParamInterface<Refusal> {
  protected:
    ~PgRefusedTest() override {
        lane_.reset();
        allow();
    }

    void start() {
        LaneSettings settings;
        settings.refusalPause = std::chrono::seconds(2);
        lane_ = std::make_unique<Lane>(
            openPgArchive(place_), settings,
            Lane::Callbacks{[this](const std::vector<Reply>& more) {
                                const std::lock_guard guard(mutex_);
                                replies_.insert(replies_.end(), more.begin(), more.end());
                            },
                            [this](Level, const std::string& line) {
                                const std::lock_guard guard(mutex_);
                                said_.push_back(line);
                            },
                            [this](const std::string& why) {
                                const std::lock_guard guard(mutex_);
                                failed_ = why;
                            }});
    }

    static void allow() {
        server().sql("ALTER TABLE logs DROP CONSTRAINT IF EXISTS test; "
                     "DROP TRIGGER IF EXISTS test ON logs; DROP FUNCTION IF EXISTS refuse()",
                     "contract");
    }

    static support::LogName logOf(U32_t blade) {
        return {.blade = "BLADE-" + std::to_string(blade)};
    }

    void addStatus(LinkNumber link, U32_t blade) {
        batch_.add(link, Batch::Kind::STATUS, support::statusBody(logOf(blade), 0, {1, 2, 3}));
    }
    void addEvent(LinkNumber link, U32_t blade, U32_t id) {
        batch_.add(link, Batch::Kind::EVENT, eventBody({.log = logOf(blade), .id = id}));
    }

    std::vector<Reply> submit(std::size_t replies) {
        lane_->submit(batch_);
        EXPECT_TRUE(support::waitUntil([&] {
            const std::lock_guard guard(mutex_);
            return replies_.size() >= replies && lane_->spooled() == 0;
        }));
        const std::lock_guard guard(mutex_);
        return std::exchange(replies_, {});
    }

    static std::vector<LinkNumber> links(const std::vector<Reply>& replies, Reply::Kind kind) {
        std::vector<LinkNumber> found;
        for (const Reply& reply : replies) {
            if (reply.kind == kind) {
                found.push_back(reply.link);
            }
        }
        return found;
    }

    /** What is said of refusals. */
    std::vector<std::string> refusals() {
        const std::lock_guard guard(mutex_);
        std::vector<std::string> found;
        std::ranges::copy_if(said_, std::back_inserter(found), [](const std::string& line) {
            return line.find("refuse") != std::string::npos;
        });
        return found;
    }

    static std::string idsOf(U32_t blade) {
        return server().sql("SELECT string_agg(e.id::text, ' ' ORDER BY e.id) FROM events e "
                            "JOIN logs l ON l.log = e.log WHERE blade = 'BLADE-" +
                                std::to_string(blade) + "'",
                            "contract");
    }

    Batch batch_;
    std::mutex mutex_;
    std::vector<Reply> replies_;
    std::vector<std::string> said_;
    std::string failed_;
    std::unique_ptr<Lane> lane_;
};

class PgRefusedNameTest : public PgRefusedTest {};

} // namespace

TEST_P(PgRefusedTest, HandshakesAndEventsOfOtherLogsGoOn) {
    if (GetParam().isKnown) {
        store_->claim({{"ENC-A", "BLADE-2", 1}, 1}, 0);
    }
    server().sql(GetParam().sql, "contract");
    start();
    for (U32_t blade = 1; blade <= 4; ++blade) {
        addStatus(blade, blade);
    }
    for (U32_t blade = 1; blade <= 4; ++blade) {
        addEvent(blade, blade, 0);
    }
    auto replies = submit(4);
    EXPECT_THAT(links(replies, Reply::Kind::STATUS), ElementsAre(1U, 3U, 4U));
    EXPECT_THAT(links(replies, Reply::Kind::REFUSED), ElementsAre(2U));
    EXPECT_THAT(refusals(), ElementsAre(AllOf(HasSubstr("blade BLADE-2 slot 1 instance 1: the "
                                                        "archive's server refuses its log: "),
                                              HasSubstr(GetParam().name))));
    EXPECT_FALSE(lane_->state().isAway);
    // It comes again at once, on another link, and one of those that were closed goes on to bring.
    addStatus(7, 2);
    addEvent(7, 2, 0);
    addEvent(2, 2, 1);
    addEvent(1, 1, 1);
    addStatus(3, 3);
    replies = submit(2);
    EXPECT_THAT(links(replies, Reply::Kind::STATUS), ElementsAre(3U));
    EXPECT_THAT(links(replies, Reply::Kind::REFUSED), ElementsAre(7U));
    EXPECT_THAT(refusals(), SizeIs(1));
    // When it is allowed, it is filed: on a link of a number that was closed, too.
    allow();
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    batch_.add(7, Batch::Kind::END_OF_LINK, {});
    addStatus(7, 2);
    addEvent(7, 2, 0);
    addEvent(7, 2, 1);
    EXPECT_THAT(links(submit(1), Reply::Kind::STATUS), ElementsAre(7U));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(30)));
    EXPECT_EQ(failed_, "");
    EXPECT_EQ(idsOf(1), "0 1\n");
    EXPECT_EQ(idsOf(2), "0 1\n");
    EXPECT_EQ(idsOf(3), "0\n");
    EXPECT_EQ(idsOf(4), "0\n");
    EXPECT_EQ(count("set_aside"), 0U);
}

// Its name is written when the first event comes: what is there need not be named.
TEST_P(PgRefusedNameTest, EventsOfALinkWithoutAHandshakeEndThatLinkOnly) {
    server().sql(GetParam().sql, "contract");
    start();
    for (U32_t id = 0; id < 3; ++id) {
        for (U32_t blade = 1; blade <= 3; ++blade) {
            addEvent(blade, blade, id);
        }
    }
    addStatus(4, 4);
    const auto replies = submit(2);
    EXPECT_THAT(links(replies, Reply::Kind::STATUS), ElementsAre(4U));
    EXPECT_THAT(links(replies, Reply::Kind::REFUSED), ElementsAre(2U));
    EXPECT_THAT(refusals(), SizeIs(1));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(30)));
    EXPECT_EQ(failed_, "");
    EXPECT_EQ(idsOf(1), "0 1 2\n");
    EXPECT_EQ(idsOf(3), "0 1 2\n");
    EXPECT_EQ(count("events"), 6U);
}

INSTANTIATE_TEST_SUITE_P(Ways, PgRefusedTest,
                         testing::Values(Refusal{"violates check constraint", CHECK, false},
                                         Refusal{"violates check constraint", CHECK, true},
                                         Refusal{"not this one", TRIGGER, true}));
INSTANTIATE_TEST_SUITE_P(Ways, PgRefusedNameTest,
                         testing::Values(Refusal{"violates check constraint", CHECK, false}));
