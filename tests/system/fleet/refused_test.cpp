/** A server that refuses what a running archiver asks, until that is set right. */
#include "blade_link.h"
#include "fleet_fixture.h"

#include <csignal>
#include <thread>

using namespace support;
using namespace fleet;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char REFUSED[] = "; refused until that is set right, events wait";

class RefusedTest : public FleetProcessTest {
  protected:
    RefusedTest() {
        runDb({"create", "--db", server_.place(), "--retention-days", "4"});
        server_.sql("CREATE ROLE one LOGIN; GRANT ev_writer TO one");
        std::string place = server_.place();
        place.replace(place.find("postgres@"), 8, "one");
        startArchiver(place, {"--lanes", "1", "--metrics", std::to_string(figures_)});
        link_ = std::make_unique<BladeLink>(archivers_.front().port);
        link_->ask(statusRequest({}, 0, {1, 2, 3}, 1));
        send();
    }

    void send() { link_->send(eventMessage({.id = sent_++})); }

    bool isAllFiled() {
        return waitForServer([this] {
            return server_.sql("SELECT count(DISTINCT id), count(*) FROM events") ==
                   std::to_string(sent_) + "|" + std::to_string(sent_) + "\n";
        });
    }

    Process& archiver() { return *archivers_.front().process; }

    bool isReady() { return scrape(figures_, "/ready").ends_with("\nready\n"); }

    /** Takes what it says, gives it back, and all is there. */
    void expectToHeal(const std::string& take, const std::string& give, const std::string& why) {
        SCOPED_TRACE(take);
        ASSERT_TRUE(isAllFiled());
        requireSoon([this] { return isReady(); }, "the archiver to be ready");
        server_.sql(take);
        send();
        EXPECT_THAT(archiver().waitForOutput(why), HasSubstr(REFUSED));
        requireSoon([this] { return !isReady(); }, "the second to pass");
        EXPECT_THAT(
            scrape(figures_, "/ready"),
            AllOf(StartsWith("HTTP/1.1 503 "), EndsWith("\nthe archive refuses what is filed\n")));
        EXPECT_THAT(scrape(figures_), HasSubstr("\nevarchiver_archive_refused 1\n"));
        send();
        std::this_thread::sleep_for(std::chrono::seconds(1)); // some tries
        const std::string output = archiver().output();
        EXPECT_EQ(output.find(why), output.rfind(why)) << "said once: " << output;
        server_.sql(give);
        EXPECT_TRUE(isAllFiled());
        requireSoon([this] { return isReady(); }, "the archiver to be ready again");
        EXPECT_THAT(scrape(figures_), HasSubstr("\nevarchiver_archive_refused 0\n"));
        EXPECT_TRUE(link_->isQuiet()) << "its link stands";
    }

    PgServer server_;
    U16_t figures_ = freePort();
    std::unique_ptr<BladeLink> link_;
    U32_t sent_ = 0;
};

} // namespace

TEST_F(RefusedTest, RightThatIsTakenAndGivenBackLosesNothing) {
    // The fence, an insertion, and the database itself.
    expectToHeal("REVOKE UPDATE ON logs FROM ev_writer", "GRANT UPDATE ON logs TO ev_writer",
                 "permission denied for table logs");
    expectToHeal("REVOKE INSERT ON events FROM ev_writer", "GRANT INSERT ON events TO ev_writer",
                 "permission denied for table events");
    expectToHeal("ALTER ROLE one NOLOGIN; SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                 "WHERE usename = 'one'",
                 "ALTER ROLE one LOGIN", "role \"one\" is not permitted to log in");
    stopArchivers();
}

TEST_F(RefusedTest, LogThatIsRefusedEndsItsLinkWithALine) {
    server_.sql("ALTER TABLE logs ADD CONSTRAINT test CHECK (blade <> 'OTHER') NOT VALID");
    BladeLink other(archivers_.front().port);
    other.send(statusRequest({.blade = "OTHER"}, 0, {1, 2, 3}, 1));
    EXPECT_TRUE(other.isClosed());
    archiver().waitForOutput("the archive's server refuses its log: ");
    EXPECT_THAT(archiver().waitForOutput("its log is refused by the archive, closed"),
                HasSubstr(" warning: 127.0.0.1:" + std::to_string(other.port()) + ": "));
    send();
    EXPECT_TRUE(isAllFiled()) << "others go on";
    requireSoon([this] { return isReady(); }, "the archiver to be ready");
    stopArchivers();
}

// A rule that is asked only at the end of a transaction: the server does not say of which log.
TEST_F(RefusedTest, RuleThatIsAskedAtTheCommitIsSaidAndLosesNothing) {
    ASSERT_TRUE(isAllFiled());
    server_.sql("CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
                "RAISE EXCEPTION 'not in the end'; END $$; CREATE CONSTRAINT TRIGGER test AFTER "
                "UPDATE ON logs DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION "
                "refuse()");
    send();
    EXPECT_THAT(archiver().waitForOutput("not in the end"), HasSubstr(REFUSED));
    requireSoon(
        [this] {
            return scrape(figures_, "/ready").ends_with("\nthe archive refuses what is filed\n");
        },
        "the second to pass");
    server_.sql("DROP TRIGGER test ON logs");
    EXPECT_TRUE(isAllFiled());
    stopArchivers();
}

// As one that is about to give way to its standby.
TEST_F(RefusedTest, ServerThatMayOnlyBeReadFromLosesNothing) {
    ASSERT_TRUE(isAllFiled());
    server_.sql("ALTER ROLE one SET default_transaction_read_only = on; SELECT "
                "pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = 'one'");
    send();
    archiver().waitForOutput("; events wait, tried again");
    requireSoon([this] { return !isReady(); }, "the second to pass");
    send();
    std::this_thread::sleep_for(std::chrono::seconds(1)); // some tries
    EXPECT_FALSE(isReady());
    server_.sql("ALTER ROLE one RESET ALL");
    EXPECT_TRUE(isAllFiled());
    requireSoon([this] { return isReady(); }, "the archiver to be ready again");
    EXPECT_TRUE(link_->isQuiet()) << "its link stands";
    stopArchivers();
}

TEST_F(RefusedTest, NewLogThatMayNotBeGivenAGenerationLosesNothing) {
    ASSERT_TRUE(isAllFiled());
    server_.sql("REVOKE INSERT ON generations FROM ev_writer");
    BladeLink other(archivers_.front().port);
    other.ask(statusRequest({.blade = "OTHER"}, 0, {1, 2, 3}, 1));
    other.send(eventMessage({.log = {.blade = "OTHER"}}));
    EXPECT_THAT(archiver().waitForOutput("permission denied for table generations"),
                HasSubstr(REFUSED));
    send();
    server_.sql("GRANT INSERT ON generations TO ev_writer");
    EXPECT_TRUE(waitForServer([this] {
        return server_.sql("SELECT count(DISTINCT (log, id)), count(*) FROM events") ==
               std::to_string(sent_ + 1) + "|" + std::to_string(sent_ + 1) + "\n";
    }));
    EXPECT_TRUE(link_->isQuiet() && other.isQuiet()) << "their links stand";
    stopArchivers();
}
