/** All orders in which a blade, several archivers and a shared archive can act, and what each of
 * the fleet's rules is for. FLEET_MODEL=large goes further, see scripts/prove.
 */
#include "fleet_model.h"

#include <gtest/gtest.h>

using namespace fleet;

namespace {

bool isLarge() {
    const char* size = getenv("FLEET_MODEL");
    return size != nullptr && std::string(size) == "large";
}

void expectNoFault(const Bounds& bounds, std::size_t leastStates) {
    const Finding finding = search({}, bounds);
    EXPECT_EQ(finding.faults, 0U) << finding.history;
    EXPECT_GE(finding.states, leastStates);
    testing::Test::RecordProperty("states", static_cast<int>(finding.states));
}

/** The first fault that a search without one of the rules finds. */
void expectFault(const Rules& rules, const Bounds& bounds, unsigned fault) {
    const Finding finding = search(rules, bounds);
    EXPECT_NE(finding.faults & fault, 0U) << "found: " << nameOf(finding.faults);
}

} // namespace

TEST(FleetModelTest, BladeThatGoesFromArchiverToArchiverLosesNothing) {
    expectNoFault({.links = 2, .ids = 3}, 15'000);
}

TEST(FleetModelTest, ThreeArchiversAreNoWorseThanTwo) {
    expectNoFault({.links = 3, .ids = isLarge() ? 3U : 2U}, 70'000);
}

TEST(FleetModelTest, CommitOfUnknownOutcomeIsRepeatedWithoutHarm) {
    expectNoFault({.links = 2, .ids = 3, .unknownCommits = isLarge() ? 2U : 1U}, 40'000);
}

TEST(FleetModelTest, ShedLinkComesBackWithAllThatItHad) {
    expectNoFault({.links = isLarge() ? 3U : 2U, .ids = isLarge() ? 2U : 3U, .sheddings = 2},
                  20'000);
}

TEST(FleetModelTest, LinksWithoutAStatusRequestSpoilNothing) {
    expectNoFault({.links = isLarge() ? 3U : 2U, .ids = isLarge() ? 2U : 3U, .silentLinks = 2},
                  30'000);
}

TEST(FleetModelTest, ServerThatForgetsClaimsLosesNothing) {
    expectNoFault({.links = isLarge() ? 3U : 2U, .ids = isLarge() ? 2U : 3U, .crashes = 1}, 15'000);
}

TEST(FleetModelTest, EverythingTogetherHolds) {
    expectNoFault({.links = isLarge() ? 3U : 2U,
                   .ids = 2,
                   .silentLinks = 1,
                   .unknownCommits = 1,
                   .sheddings = 1,
                   .crashes = 1},
                  10'000);
}

TEST(FleetModelTest, WithoutTheFenceALateArchiverSpoilsTheBladesNewLog) {
    const Rules rules{.late = Late::FILE_AND_OPEN};
    expectFault(rules, {.links = 2}, NOT_THE_BLADES_LOG);
    expectFault(rules, {.links = 2}, TOO_MANY_GENERATIONS);
}

TEST(FleetModelTest, LateFilingWithoutOpeningLosesAnEvent) {
    expectFault({.late = Late::FILE}, {.links = 2}, LOST);
}

TEST(FleetModelTest, DroppingWhatIsLateLosesAnEvent) {
    expectFault({.late = Late::DROP}, {.links = 2}, LOST);
}

TEST(FleetModelTest, OwnerThatIsNotToldFilesTwoEventsUnderOneId) {
    expectFault({.tellsOwner = false}, {.links = 2, .silentLinks = 1}, TWO_UNDER_ONE_ID);
}

TEST(FleetModelTest, SilentLinkThatIsTrustedMixesTwoLogs) {
    expectFault({.doubtsSilentLinks = false}, {.links = 2, .silentLinks = 1}, NOT_THE_BLADES_LOG);
}

TEST(FleetModelTest, SilentLinkThatDoesNotLookAgainFilesTwoEventsUnderOneId) {
    expectFault({.looksAgain = false}, {.links = 2, .silentLinks = 1}, TWO_UNDER_ONE_ID);
}

TEST(FleetModelTest, SheddingOneEventLeavesAHoleOnTheOpenLink) {
    expectFault({.shedsWholeLinks = false}, {.links = 2, .sheddings = 1}, NOT_THE_BLADES_LOG);
}

TEST(FleetModelTest, UnknownCommitThatIsTakenForDoneLosesAnEvent) {
    expectFault({.repeatsUnknown = false}, {.links = 2, .unknownCommits = 1}, LOST);
}

TEST(FleetModelTest, ResendThatIsForgottenWithAnUnknownCommitLeavesTheNewLogWithoutItsBeginning) {
    expectFault({.remembersResend = false}, {.links = 2, .unknownCommits = 1}, NOT_THE_BLADES_LOG);
}

TEST(FleetModelTest, ClaimThatIsForgottenWithoutTheCommitsBehindItSpoilsTheBladesNewLog) {
    expectFault({.keepsOrder = false}, {.links = 2, .ids = 2, .crashes = 1}, TOO_MANY_GENERATIONS);
}

TEST(FleetModelTest, PromisingWhatIsNotCommittedLeavesItOut) {
    expectFault({.claimsCommitted = false}, {.links = 2}, NOT_THE_BLADES_LOG);
}
