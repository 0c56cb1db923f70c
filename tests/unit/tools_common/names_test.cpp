#include "common/names.h"

#include "emp_evl.h"
#include "mmsg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using namespace tools;

static const NameTable* const ALL_TABLES[] = {
    &endpointNames,    &protocolNames, &messageTypeNames,       &startupMessageTypeNames,
    &eventTypeNames,   &categoryNames, &eventManagerEventNames, &startupEventNames,
    &inquiryTypeNames, &responseNames,
};

TEST(Names, NumberGivesShortFormAndEnumerator) {
    EXPECT_EQ(endpointNames.brief(18), "startup");
    EXPECT_EQ(endpointNames.full(18), "MMSG_E_EPID_STARTUPMP");
    EXPECT_EQ(eventTypeNames.brief(2), "warning");
    EXPECT_EQ(categoryNames.brief(4), "disk");
    EXPECT_EQ(protocolNames.full(8), "MMSG_E_PROTOCOL_EVENTMGR");
    EXPECT_EQ(messageTypeNames.brief(7), "alternate_log");
    EXPECT_EQ(startupMessageTypeNames.brief(1), "notify_init_complete");
    EXPECT_EQ(inquiryTypeNames.brief(4), "previous");
    EXPECT_EQ(responseNames.full(3), "EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE");
}

TEST(Names, NumberWithoutNamePrintsAsNumber) {
    EXPECT_EQ(endpointNames.brief(34), "34");
    EXPECT_EQ(eventTypeNames.full(0), "0");
    EXPECT_EQ(protocolNames.find(20), nullptr);
}

TEST(Names, ShortFormAndEnumeratorGiveTheNumberInAnyCase) {
    EXPECT_EQ(endpointNames.value("startup"), 18U);
    EXPECT_EQ(endpointNames.value("Startup"), 18U);
    EXPECT_EQ(endpointNames.value("MMSG_E_EPID_STARTUPMP"), 18U);
    EXPECT_EQ(endpointNames.value("mmsg_e_epid_startupmp"), 18U);
    EXPECT_EQ(endpointNames.value("start"), std::nullopt);
    EXPECT_EQ(endpointNames.value("startups"), std::nullopt);
    EXPECT_EQ(endpointNames.value(""), std::nullopt);
}

TEST(Names, AliasesOfEndpointsAreNoNames) {
    EXPECT_EQ(endpointNames.value("MMSG_E_R7Q_EPID_START"), std::nullopt);
    EXPECT_EQ(endpointNames.value("MMSG_E_MAX_DEFINED_EPIDS"), std::nullopt);
}

TEST(Names, EveryNameFindsItsValueBack) {
    for (const NameTable* table : ALL_TABLES) {
        for (const EnumName& row : table->rows()) {
            EXPECT_EQ(table->value(row.brief), row.first) << row.brief;
            EXPECT_EQ(table->value(row.full), row.first) << row.full;
            EXPECT_EQ(table->find(row.last), &row) << row.full;
        }
    }
}

TEST(Names, ValuesAscendWithoutOverlap) {
    for (const NameTable* table : ALL_TABLES) {
        const EnumName* before = nullptr;
        for (const EnumName& row : table->rows()) {
            EXPECT_LE(row.first, row.last) << row.full;
            EXPECT_TRUE(!before || before->last < row.first) << row.full;
            before = &row;
        }
    }
}

TEST(Names, PiecesOfTheIndexShareOneName) {
    EXPECT_EQ(eventManagerEventNames.brief(15), "bugcheck_entry_database");
    EXPECT_EQ(eventManagerEventNames.brief(34), "bugcheck_entry_database");
    EXPECT_EQ(eventManagerEventNames.brief(35), "35");
    EXPECT_EQ(eventManagerEventNames.value("bugcheck_entry_database"), 15U);
}

TEST(Names, EventIdsBelongToTheirSource) {
    EXPECT_EQ(eventNamesOf(27).brief(4), "corrupted_event_log_file");
    EXPECT_EQ(eventNamesOf(18).brief(4), "signal");
    EXPECT_EQ(eventNamesOf(19).brief(4), "4");
}

TEST(Names, MessageTypesBelongToTheirProtocol) {
    EXPECT_EQ(messageTypeNamesOf(8).brief(1), "log");
    EXPECT_EQ(messageTypeNamesOf(12).brief(1), "notify_init_complete");
    EXPECT_EQ(messageTypeNamesOf(13).brief(1), "1");
}

TEST(Names, NumbersAreTakenWhereNamesAre) {
    EXPECT_EQ(categoryNames.valueOrNumber("disk", 255), 4U);
    EXPECT_EQ(categoryNames.valueOrNumber("4", 255), 4U);
    EXPECT_EQ(categoryNames.valueOrNumber("0xfF", 255), 255U);
    EXPECT_EQ(categoryNames.valueOrNumber("256", 255), std::nullopt);
    EXPECT_EQ(categoryNames.valueOrNumber("4294967296", 0xFFFFFFFFU), std::nullopt);
}

TEST(Names, HalfANumberIsNone) {
    for (const char* text : {"", "0x", "4x", " 4", "4 ", "-1", "+1", "disk4"}) {
        EXPECT_EQ(parseNumber(text, 0xFFFFFFFFU), std::nullopt) << '"' << text << '"';
    }
    EXPECT_EQ(parseNumber("4294967295", 0xFFFFFFFFU), 0xFFFFFFFFU);
}
