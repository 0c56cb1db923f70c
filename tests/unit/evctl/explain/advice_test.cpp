#include "catalog/advice.h"

#include "../run.h"
#include "evlog/evlog.h"

#include <gmock/gmock.h>

using catalog::adviceFor;
using catalog::wholeMessage;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char ARCHIVER[] =
    "Linux recv function fails, Event Archiver Msg length readSize = [%d] is wrong";

std::string nameFor(const std::string& message) {
    const catalog::Advice* advice = adviceFor(message);
    return advice == nullptr ? "none" : advice->name;
}

} // namespace

TEST(Advice, EveryRowOfThePageIsThere) {
    size_t verdicts = 0;
    for (const catalog::Advice& advice : catalog::allAdvice()) {
        EXPECT_FALSE(advice.name.empty() || advice.meaning.empty() || advice.whatToDo.empty());
        verdicts += advice.isVerdict() ? 1 : 0;
    }
    EXPECT_EQ(verdicts, size_t{EVLOG_E_VERDICTS});
    EXPECT_GE(catalog::allAdvice().size() - verdicts, 23U);
}

TEST(Advice, EveryVerdictHasItsRow) {
    for (int verdict = 0; verdict < EVLOG_E_VERDICTS; verdict++) {
        std::string name = evlogVerdictName(static_cast<EVLOG_VERDICT_e>(verdict));
        EXPECT_EQ(nameFor(name), name);
    }
}

TEST(Advice, NumbersOfAMessageStandForThemselves) {
    EXPECT_EQ(nameFor("Linux send function fails, sendSize = [-1] is wrong"),
              "Linux send function fails, sendSize = [%d] is wrong");
    EXPECT_EQ(nameFor("Linux send function fails, sendSize = [x] is wrong"), "none");
    EXPECT_EQ(nameFor("Linux select function fails"), "Linux select function fails");
    EXPECT_EQ(nameFor("Linux select function fails!"), "none");
    EXPECT_EQ(nameFor("Linux"), "none") << "too short a beginning";
}

TEST(Advice, CutMessagesGetTheirEnd) {
    std::string archiver = std::string(ARCHIVER).substr(0, 64);
    EXPECT_EQ(nameFor(archiver), ARCHIVER);
    EXPECT_EQ(wholeMessage(archiver),
              "Linux recv function fails, Event Archiver Msg length readSize = [?] is wrong");
    EXPECT_EQ(wholeMessage("Bad Event Source [40] in the Corrupted Event Log File! Please Del"),
              "Bad Event Source [40] in the Corrupted Event Log File! Please Delete the File.");
    EXPECT_EQ(wholeMessage("Never heard of"), "Never heard of");
}

TEST(Advice, ExplainPrintsTheRow) {
    test::Said said = test::run({"explain", "Invalid", "Sequence", "ID?", "Bug", "somewhere!"});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.output, "bug-check     Invalid Sequence ID? Bug somewhere!\n"
                           "functions     empProcessEventLogFile\n"
                           "meaning       the ids in the log contradict each other\n"
                           "what to do    mend or delete the log\n");
    said = test::run({"explain", "unwrapped"});
    EXPECT_EQ(said.output, "verdict       unwrapped\n"
                           "meaning       a log that has not gone round its end\n"
                           "what to do    nothing, unless evctl file predict names a bug-check: "
                           "then evctl file guard\n");
    said = test::run({"explain", "unwrapped", "--json"});
    EXPECT_EQ(said.output, R"({"kind":"verdict","name":"unwrapped","functions":null,)"
                           R"("meaning":"a log that has not gone round its end",)"
                           R"("whatToDo":"nothing, unless evctl file predict names a bug-check: )"
                           R"(then evctl file guard"})"
                           "\n");
}

TEST(Advice, ExplainTakesAPartOfAText) {
    test::Said said = test::run({"explain", "GAP?"});
    EXPECT_EQ(said.status, 0);
    EXPECT_THAT(said.output, HasSubstr("Continuous SequenceId with Gap? Bug somewhere!"));
    said = test::run({"explain", "--json", "lseek"});
    EXPECT_EQ(std::ranges::count(said.output, '\n'), 3);
    EXPECT_THAT(said.output, HasSubstr(R"({"kind":"bug-check","name":"Linux lseek)"));
}

TEST(Advice, ExplainTakesTheLineOfAListing) {
    for (
        const char* line :
        {"bug-check: Linux read function fails for Event Log File! (empRcvEventInquiryMsg, line 6675)",
         "  12  2006-11-21T14:00:00Z  bug-check: Linux read function fails for Event Log File! (f, line 1)",
         "Linux read function fails for Event Log File! (f, line 1)"}) {
        EXPECT_THAT(test::run({"explain", line}).output,
                    StartsWith("bug-check     Linux read function fails for Event Log File!\n"));
    }
    EXPECT_EQ(test::run({"explain", "(f, line 1)"}).status, 1);
}

TEST(Advice, ExplainTakesAPartWithNumbers) {
    for (const char* part : {"Bad Event Source [77]", "bad event source [77] in the Corrupted",
                             "Source [7", "source [%d]"}) {
        EXPECT_THAT(test::run({"explain", part}).output,
                    StartsWith("bug-check     Bad Event Source [%d] in the Corrupted"))
            << part;
    }
    EXPECT_THAT(test::run({"explain", "MSG_PEEK readSize = [-1] is wrong"}).output,
                StartsWith("bug-check     Linux recv function fails, MSG_PEEK readSize = [%d]"));
    EXPECT_EQ(test::run({"explain", "77"}).status, 1) << "a number alone is none of the text";
}

TEST(Advice, ExplainNamesTheNearestOfAMistypedText) {
    test::Said said = test::run({"explain", "bad-sorce"});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "evctl: nothing is known of 'bad-sorce'; did you mean 'bad-source'?\n");
    said = test::run({"explain", "Incorect Signature in Event Enty!"});
    EXPECT_THAT(said.errors, HasSubstr("did you mean 'Incorrect Signature in Event Entry!'?"));
    said = test::run({"explain", "something\x1b[2J else"});
    EXPECT_EQ(said.errors, "evctl: nothing is known of 'something\\x1B[2J else'\n");
}
