/** What is let in, what is asked of an archive, and what comes back, without sockets. */
#include "server.h"
#include "site.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace {

using namespace evweb;
using testing::HasSubstr;

/** An archive that keeps what it was asked. */
class AskedView final : public View {
  public:
    ViewStatus status() override {
        if (isAway) {
            throw evarchive::StoreError("locked", evarchive::StoreError::Kind::PASSING);
        }
        return {.engine = "none"};
    }
    Overview logs(const LogSearch& search) override {
        asked = search.find + "|" + std::to_string(search.behind.value_or(0)) + "|" +
                std::to_string(search.limit) + (search.isWorstFirst ? "|worst" : "");
        return {};
    }
    LogDetail log(S64_t log) override { throw Refusal(404, std::to_string(log)); }
    Page search(const Search& search) override {
        last = search;
        pages += 1;
        Page page;
        page.events.resize(pages > emptyPages ? search.limit : 0, eventOf(1));
        page.next = Position{'a', {1, pages}};
        return page;
    }
    Page around(S64_t, std::optional<U32_t>, U32_t, U32_t) override { return {}; }
    std::optional<FoundEvent> event(S64_t, U32_t, U32_t) override { return std::nullopt; }
    Tail tail(const Search& search, const std::optional<Position>&) override {
        last = search;
        return {};
    }
    void count(const Search& search, Timeline& timeline) override {
        last = search;
        timeline.count(timeline.since, 3, 7);
    }

    static FoundEvent eventOf(U32_t id) {
        evarchive::Bytes image(EMP_EVENT_HEADER_SIZE);
        image[139] = static_cast<U8_t>(id);
        return {1, 1, {id, true, std::move(image), false, 0}};
    }

    bool isAway = false;
    std::string asked;
    Search last;
    int pages = 0;
    int emptyPages = 0; // that are given first
};

class SiteTest : public testing::Test {
  protected:
    static Request get(const std::string& path, Parameters parameters = {}) {
        return {"GET", path, std::move(parameters), {{"host", "localhost:8480"}}, true};
    }
    Response ask(const std::string& question, Parameters parameters = {}) {
        return site().answer(get("/api/v1/" + question, std::move(parameters)));
    }
    int statusOf(const Request& request) { return site().answer(request).status; }
    Site& site() {
        site_.emplace(view, settings);
        return *site_;
    }
    static std::string headerOf(const Response& response, const std::string& name) {
        std::string all;
        for (const auto& [key, value] : response.headers) {
            all += key == name ? value : "";
        }
        return all;
    }

    AskedView view;
    SiteSettings settings{.access = {.hosts = {"localhost"}}};
    std::optional<Site> site_;
};

// --- Who may ask ---------------------------------------------------------------------------------

TEST_F(SiteTest, MethodsThatCouldChangeSomethingAreRefused) {
    Request request = get("/");
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "get", ""}) {
        request.method = method;
        EXPECT_EQ(statusOf(request), 405) << method;
    }
    EXPECT_EQ(headerOf(site().answer(request), "Allow"), "GET, HEAD");
}

TEST_F(SiteTest, BodiesAreRefusedButNotTheMentionOfNone) {
    Request request = get("/");
    request.headers["content-length"] = "0";
    EXPECT_EQ(statusOf(request), 200);
    request.headers["content-length"] = "0, 5";
    EXPECT_EQ(statusOf(request), 400);
    request.headers.erase("content-length");
    request.headers["transfer-encoding"] = "chunked";
    EXPECT_EQ(statusOf(request), 400);
}

TEST_F(SiteTest, NamesOfAnotherHostAreRefused) {
    Request request = get("/");
    for (const char* host :
         {"evil.example", "", "localhost.evil.example", "[::1]:80", "localhost, evil"}) {
        request.headers["host"] = host;
        EXPECT_EQ(statusOf(request), 421) << host;
    }
    settings.access.hosts.insert("[::1]");
    request.headers["host"] = "[::1]:80";
    EXPECT_EQ(statusOf(request), 200);
}

TEST_F(SiteTest, TokensLetInAsBearerTokenAndAsPassword) {
    settings.access.tokens = {"first-token-of-two", "second-token-of-two"};
    Request request = get("/");
    EXPECT_EQ(statusOf(request), 401);
    // The last two: "x:second-token-of-two" and the same without a colon.
    for (const auto& [given, status] :
         std::map<std::string, int>{{"Bearer first-token-of-two", 200},
                                    {"Bearer second-token-of-two", 200},
                                    {"Bearer first-token-of-tw", 401},
                                    {"Bearer first-token-of-two ", 401},
                                    {"bearer first-token-of-two", 200},
                                    {"Bearer2 first-token-of-two", 401},
                                    {"Bearer", 401},
                                    {"Basic", 401},
                                    {"Basic eDpzZWNvbmQtdG9rZW4tb2YtdHdv", 200},
                                    {"Basic c2Vjb25kLXRva2VuLW9mLXR3bw==", 401}}) {
        request.headers["authorization"] = given;
        EXPECT_EQ(statusOf(request), status) << given;
    }
}

TEST_F(SiteTest, ProxysUserCountsOnlyFromThisHost) {
    settings.access.userHeader = "x-user";
    Request request = get("/");
    EXPECT_EQ(statusOf(request), 403);
    request.headers["x-user"] = "ada";
    EXPECT_EQ(statusOf(request), 200);
    request.isLocal = false;
    EXPECT_EQ(statusOf(request), 403);
    settings.access.tokens = {"first-token-of-two"};
    EXPECT_EQ(statusOf(request), 401);
}

TEST(Tokens, FileThatOthersReadOrThatHoldsNoneIsRefused) {
    const support::TempDirectory directory;
    const std::string path = directory.file("tokens");
    EXPECT_THROW(readTokens(path), std::runtime_error);
    for (const auto& [content, mode] : std::map<std::string, mode_t>{
             {"# none\n\n", 0600}, {"short\n", 0600}, {"long-enough-token\n", 0644}}) {
        support::writeFile(path, content);
        chmod(path.c_str(), mode);
        EXPECT_THROW(readTokens(path), std::runtime_error) << content;
    }
    support::writeFile(path, "long-enough-token\n");
    chmod(path.c_str(), 0640);
    EXPECT_EQ(readTokens(path), std::vector<std::string>{"long-enough-token"});
}

// --- What is asked -------------------------------------------------------------------------------

TEST_F(SiteTest, FiltersReachTheArchiveAsOfTheCommandLine) {
    EXPECT_EQ(ask("events", {{"type", "error,2"},
                             {"source", "eventlog"},
                             {"id", "11"},
                             {"seq", "5:"},
                             {"since", "2006-11-21"},
                             {"until", "@1164153599"},
                             {"slot", "3"},
                             {"text", "Fan"},
                             {"limit", "7"},
                             {"before", "a3.99"},
                             {"category", ""}})
                  .status,
              200);
    EXPECT_THAT(view.last.filter.types, testing::ElementsAre(3, 2));
    EXPECT_THAT(view.last.filter.sources, testing::ElementsAre(27));
    EXPECT_THAT(view.last.filter.ids, testing::ElementsAre(11));
    EXPECT_EQ(view.last.filter.firstSequenceId, 5U);
    EXPECT_EQ(view.last.filter.since, 1164067200U);
    EXPECT_EQ(view.last.filter.until, 1164153599U);
    EXPECT_EQ(view.last.filter.logs.slot, 3U);
    EXPECT_EQ(view.last.text, "fan");
    EXPECT_EQ(view.last.limit, 7U);
    EXPECT_EQ(view.last.before, (Position{'a', {3, 99}}));
    EXPECT_TRUE(view.last.filter.categories.empty());
}

TEST_F(SiteTest, OptionsOfTheCommandLineThatAreNoFiltersAreUnknown) {
    for (const char* name : {"grep", "help", "local", "-g", "--type", "config", ""}) {
        const Response response = ask("events", {{name, "x"}});
        EXPECT_EQ(response.status, 400) << name;
        EXPECT_THAT(response.body, HasSubstr("no such parameter")) << name;
    }
}

TEST_F(SiteTest, ValueCannotBecomeAnOptionOfItsOwn) {
    EXPECT_EQ(ask("events", {{"blade", "--type=error"}}).status, 200);
    EXPECT_EQ(view.last.filter.logs.blade, "--type=error");
    EXPECT_TRUE(view.last.filter.types.empty());
    EXPECT_EQ(ask("events", {{"enclosure", "a b\n\"'\\ c"}}).status, 200);
    EXPECT_EQ(view.last.filter.logs.enclosure, "a b\\x0A\"'\\ c"); // as it is shown
}

TEST_F(SiteTest, PageIsNeverLongerThanItsBound) {
    EXPECT_EQ(ask("events", {{"limit", "500"}}).status, 200);
    for (const char* limit : {"501", "0", "-1", "1e2", "99999999999999999999", " 5"}) {
        EXPECT_EQ(ask("events", {{"limit", limit}}).status, 400) << limit;
    }
}

TEST_F(SiteTest, SearchOfLogsIsPassedOnInSmallLetters) {
    ask("logs", {{"find", "BLADE-Ä"}, {"behind", "-9"}, {"limit", "3"}});
    EXPECT_EQ(view.asked, "blade-Ä|-9|3");
}

TEST_F(SiteTest, WorstLogsAreListedFromTheFirstOnOnly) {
    ask("logs", {{"order", "worst"}});
    EXPECT_EQ(view.asked, "|0|100|worst");
    ask("logs", {{"order", "name"}});
    EXPECT_EQ(view.asked, "|0|100");
    EXPECT_EQ(ask("logs", {{"order", "worst"}, {"behind", "5"}}).status, 400);
    EXPECT_EQ(ask("logs", {{"order", "slot"}}).status, 400);
}

TEST_F(SiteTest, SearchSaysWhichTimeItsWordsMeant) {
    const auto json =
        nlohmann::json::parse(ask("events", {{"since", "2006-11-21"}, {"limit", "1"}}).body);
    EXPECT_EQ(json["since"], "2006-11-21T00:00:00Z");
    EXPECT_TRUE(json["until"].is_null());
}

TEST_F(SiteTest, WrongAddressShowsThePageThatSaysSo) {
    const Response response = site().answer(get("/nothing"));
    EXPECT_EQ(response.status, 404);
    EXPECT_THAT(response.type, testing::StartsWith("text/html"));
    EXPECT_EQ(response.body, site().answer(get("/")).body);
    EXPECT_EQ(ask("nothing").type, "application/json");
}

TEST_F(SiteTest, ErrorsSayInJsonWhatIsWrongAndQuoteItSafely) {
    const Response response = ask("events", {{"<b>\"\xFF", ""}});
    const auto json = nlohmann::json::parse(response.body);
    EXPECT_EQ(json["status"], 400);
    EXPECT_THAT(json["error"].get<std::string>(), HasSubstr("<b>\""));
    EXPECT_EQ(response.type, "application/json");
}

TEST_F(SiteTest, ArchiveThatIsAwayIsNoErrorOfTheServer) {
    view.isAway = true;
    const Response response = ask("status");
    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(headerOf(response, "Retry-After"), "2");
    view.isAway = false;
    EXPECT_EQ(ask("status").status, 200);
}

TEST_F(SiteTest, EveryAnswerForbidsWhatABrowserNeedNotDo) {
    for (const Response& response :
         {ask("status"), ask("nothing"), site().answer(get("/")), site().answer(get("/../x"))}) {
        const std::string policy = headerOf(response, "Content-Security-Policy");
        EXPECT_THAT(policy, testing::StartsWith("default-src 'none'; script-src 'self'"));
        EXPECT_THAT(policy, HasSubstr("frame-ancestors 'none'"));
        EXPECT_EQ(headerOf(response, "X-Content-Type-Options"), "nosniff");
        EXPECT_EQ(headerOf(response, "Cache-Control"), "no-store");
    }
}

TEST_F(SiteTest, ExportEndsAtItsBoundAndSaysWhereToGoOn) {
    settings.exportRows = 1200;
    Response response = ask("export", {{"form", "jsonl"}});
    std::string all = response.body;
    for (std::string piece = response.more(); !piece.empty(); piece = response.more()) {
        all += piece;
    }
    EXPECT_EQ(std::ranges::count(all, '\n'), 1201);
    EXPECT_EQ(view.pages, 3);
    EXPECT_THAT(all, HasSubstr("before=a1.3"));
}

TEST_F(SiteTest, ExportsLeaveRoomForOthers) {
    Site site(view, settings);
    const Request request = get("/api/v1/export", {{"form", "csv"}});
    const Response first = site.answer(request);
    {
        const Response second = site.answer(request);
        EXPECT_EQ(second.status, 200);
        const Response third = site.answer(request);
        EXPECT_EQ(third.status, 503);
        EXPECT_THAT(third.body, HasSubstr("others export"));
        EXPECT_EQ(site.answer(get("/api/v1/status")).status, 200);
    }
    EXPECT_EQ(site.answer(request).status, 200);
}

TEST_F(SiteTest, ExportGoesOnBehindPagesThatFoundNothing) {
    view.emptyPages = 3;
    settings.exportRows = 500;
    Response response = ask("export", {{"form", "jsonl"}});
    EXPECT_EQ(response.body, ""); // the answer begins before anything is found
    EXPECT_EQ(std::ranges::count(response.more(), '\n'), 501);
    EXPECT_EQ(response.more(), "");
}

TEST_F(SiteTest, ExportEndsAfterItsTimeAlsoWhenNothingIsFound) {
    view.emptyPages = INT32_MAX;
    settings.exportTime = std::chrono::seconds(0);
    EXPECT_THAT(ask("export", {{"form", "csv"}}).body, HasSubstr("# not all"));
}

TEST_F(SiteTest, CsvQuotesWhatNeedsIt) {
    settings.exportRows = 1;
    const Response response = ask("export", {{"form", "csv"}});
    EXPECT_THAT(response.body, testing::StartsWith("sequenceId,"));
    EXPECT_THAT(response.body, HasSubstr(",1/1\n# not all"));
}

TEST_F(SiteTest, TimelineCoversItsTimeInWholeBuckets) {
    const auto json = nlohmann::json::parse(
        ask("timeline", {{"since", "@1000"}, {"until", "@4599"}, {"buckets", "60"}}).body);
    EXPECT_EQ(json["width"], 60);
    EXPECT_EQ(json["since"], 960);
    EXPECT_EQ(json["buckets"].size(), 61U);
    EXPECT_EQ(json["buckets"][0], (nlohmann::json{7, 0, 0, 0}));
}

TEST(Buckets, AllTimeThereIsFits) {
    const Timeline timeline = bucketsOf(0, UINT32_MAX, 400);
    EXPECT_LE(timeline.buckets.size(), 401U);
    EXPECT_GT(timeline.since + U64_t{timeline.width} * timeline.buckets.size(), UINT32_MAX);
    EXPECT_EQ(bucketsOf(7, 7, 400).buckets.size(), 1U);
}

TEST(Positions, AreReadAsTheyAreWrittenAndNothingElseIs) {
    const Position position{'p', {1'700'000'000, INT64_MIN, 0, INT64_MAX}};
    EXPECT_EQ(Position::parse(position.text()), position);
    for (const char* text : {"", "a", "a.", "a1.", "a1..2", "A1", "1", "a1.2.3.4.5", "a1 ", "a 1",
                             "a1x", "a99999999999999999999", "a0x1", "ä1"}) {
        EXPECT_EQ(Position::parse(text), std::nullopt) << text;
    }
}

TEST(ListenPlaces, AreReadAndToldApart) {
    EXPECT_TRUE(listenPlaceOf("8480").isLoopback());
    EXPECT_TRUE(listenPlaceOf("[::1]:8480").isLoopback());
    EXPECT_TRUE(listenPlaceOf("unix:/run/x").isLoopback());
    for (const char* text : {"0.0.0.0:80", "[::]:80", "192.0.2.1:80", "1.127.0.0:80"}) {
        EXPECT_FALSE(listenPlaceOf(text).isLoopback()) << text;
    }
    for (const char* text : {"", "host:80", "127.0.0.1:", "127.0.0.1:65536", "::1:80", "[::1]",
                             "unix:", ":80", "127.0.0.1:8x"}) {
        EXPECT_THROW(listenPlaceOf(text), std::invalid_argument) << text;
    }
}

} // namespace
