#include "common/text.h"

#include <gtest/gtest.h>

using tools::columnsOf;
using tools::cutToColumns;

TEST(TextColumns, EastAsianCharactersTakeTwo) {
    EXPECT_EQ(columnsOf("ab"), 2U);
    EXPECT_EQ(columnsOf("\u6e29\u5ea6"), 4U);       // han
    EXPECT_EQ(columnsOf("\uac00\uff21\u3042"), 6U); // hangul, full-width latin, kana
    EXPECT_EQ(columnsOf("\U0001F525"), 2U);         // a picture
    EXPECT_EQ(columnsOf("\u00e4\u20ac\uff71"), 3U); // half-width kana too is one
}

TEST(TextColumns, MarksOnTheCharacterBeforeTakeNone) {
    EXPECT_EQ(columnsOf("a\u0308o\u0301"), 2U);
    EXPECT_EQ(columnsOf("\u304b\u3099"), 2U);       // a wide mark on a wide character
    EXPECT_EQ(columnsOf("\u1112\u1161\u11ab"), 2U); // a syllable of three letters
    EXPECT_EQ(columnsOf("\u0e01\u0e34\u2601\ufe0f"), 2U);
}

TEST(TextColumns, BytesThatAreNoCharacterTakeOneEach) {
    EXPECT_EQ(columnsOf("\xff\xe6\xb8"), 3U);
}

TEST(TextColumns, WhatFitsIsNotCut) {
    EXPECT_EQ(cutToColumns("\u6e29\u5ea6", 4), "\u6e29\u5ea6");
    EXPECT_EQ(cutToColumns("a\u0308b", 2), "a\u0308b");
    EXPECT_EQ(cutToColumns("", 3), "");
}

TEST(TextColumns, AWideCharacterIsNotCutInTwo) {
    EXPECT_EQ(cutToColumns("a\u6e29\u5ea6", 4), "a\u6e29\u2026");
    EXPECT_EQ(cutToColumns("a\u6e29\u5ea6", 3), "a\u2026");
    EXPECT_EQ(cutToColumns("\u6e29\u5ea6", 2), "\u2026");
    EXPECT_EQ(cutToColumns("\u6e29\u5ea6", 0), "");
}

TEST(TextColumns, MarksStayWithTheirCharacter) {
    EXPECT_EQ(cutToColumns("a\u0308b\u0308c\u0308", 2), "a\u0308\u2026");
}

TEST(Escapes, MarksThatCannotBeSeenAreShown) {
    for (const char* mark : {"\u00ad", "\u061c", "\u180e", "\u200b", "\u202e", "\u2066", "\ufeff",
                             "\ufff9", "\ufffb", "\U000E0001", "\U000E007F"}) {
        EXPECT_EQ(tools::escapedUtf8(mark).substr(0, 2), "\\x") << tools::escapedUtf8(mark);
    }
    EXPECT_EQ(tools::escapedUtf8("\u00ae\u061b\u180f\u2070\ufffc\U000E0100"),
              "\u00ae\u061b\u180f\u2070\ufffc\U000E0100");
}

TEST(Escapes, ALineKeepsWhatIsEscapedInIt) {
    EXPECT_EQ(tools::shownLine("a\x1B[31m\n\xFF \\x1B \u00e4"),
              "a\\x1B[31m\\x0A\\xFF \\x1B \u00e4");
    EXPECT_EQ(tools::escapedUtf8("\\x1B"), "\\x5Cx1B");
}
