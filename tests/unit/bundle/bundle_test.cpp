/** Bundles: what comes back, and what hostile ones can do: nothing. */
#include "bundle/bundle.h"

#include <gmock/gmock.h>

#include <archive.h>
#include <archive_entry.h>
#include <array>
#include <map>
#include <random>

using bundle::Member;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::vector<U8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string octal(U64_t value, int digits) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%0*llo", digits, static_cast<unsigned long long>(value));
    return text.data();
}

/** A tar header, byte by byte. */
std::string header(const std::string& name, U64_t size, char type = '0',
                   const std::string& link = "") {
    std::string block(512, '\0');
    auto put = [&block](size_t at, const std::string& text) {
        block.replace(at, text.size(), text);
    };
    put(0, name);
    put(100, "0000644");
    put(108, "0000000");
    put(116, "0000000");
    put(124, octal(size, 11));
    put(136, octal(0, 11));
    put(148, "        ");
    block[156] = type;
    put(157, link);
    put(257, std::string("ustar\0"
                         "00",
                         8));
    unsigned sum = 0;
    for (unsigned char byte : block) {
        sum += byte;
    }
    put(148, octal(sum, 6) + std::string("\0 ", 2));
    return block;
}

std::string padded(std::string content) {
    content.resize((content.size() + 511) / 512 * 512, '\0');
    return content;
}

std::string file(const std::string& name, const std::string& content) {
    return header(name, content.size()) + padded(content);
}

const std::string END(1024, '\0');

struct Unpacked {
    std::vector<Member> members;
    std::vector<std::string> problems;
};

Unpacked unpack(const std::string& packed) {
    Unpacked unpacked;
    unpacked.members = bundle::unpack(bytesOf(packed), &unpacked.problems);
    return unpacked;
}

std::vector<std::string> namesOf(const Unpacked& unpacked) {
    std::vector<std::string> names;
    for (const Member& member : unpacked.members) {
        names.push_back(member.name);
    }
    return names;
}

} // namespace

TEST(Bundle, ComesBackAsItWas) {
    std::vector<Member> members = {{"a/log", bytesOf(std::string(100'000, 'x'))},
                                   {"a/empty", {}},
                                   {"a/" + std::string(200, 'n'), bytesOf("long name")}};
    std::vector<U8_t> packed = bundle::pack(members, 1'164'117'600);
    EXPECT_LT(packed.size(), 5'000U) << "compressed";
    std::vector<std::string> problems;
    std::vector<Member> unpacked = bundle::unpack(packed, &problems);
    EXPECT_TRUE(problems.empty());
    ASSERT_EQ(unpacked.size(), 3U);
    for (size_t place = 0; place < 3; place++) {
        EXPECT_EQ(unpacked[place].name, members[place].name);
        EXPECT_EQ(unpacked[place].bytes, members[place].bytes);
    }
    EXPECT_EQ(bundle::pack(members, 1'164'117'600), packed) << "the same each time";
    EXPECT_EQ(std::vector<U8_t>(packed.begin() + 4, packed.begin() + 8), std::vector<U8_t>(4))
        << "no time of the packing";
}

TEST(Bundle, PlainTarIsThisHeaderTheContentAndTwoEmptyBlocks) {
    std::vector<U8_t> packed = bundle::tar({{"a/log", bytesOf("content")}}, 0);
    EXPECT_EQ(std::string(packed.begin(), packed.end()), file("a/log", "content") + END);
}

TEST(Bundle, PlainTarComesBackAsItWas) {
    std::vector<Member> members = {{"whole", bytesOf(std::string(1024, 'x')), 077777777777},
                                   {"empty", {}, 5'000},
                                   {std::string(100, 'n'), bytesOf("longest name of a header")},
                                   {std::string(101, 'n'), bytesOf("too long for it")},
                                   {"a/" + std::string(990, 'n'), bytesOf("a length of 4 digits")},
                                   {"old", bytesOf("of 1969"), -1},
                                   {"new", bytesOf("of 2242"), 0100000000000}};
    std::vector<std::string> problems;
    std::vector<Member> unpacked = bundle::unpack(bundle::tar(members, 1'164'117'600), &problems);
    EXPECT_THAT(problems, testing::IsEmpty());
    ASSERT_EQ(unpacked.size(), members.size());
    for (size_t place = 0; place < members.size(); place++) {
        EXPECT_EQ(unpacked[place].name, members[place].name);
        EXPECT_EQ(unpacked[place].bytes, members[place].bytes);
        EXPECT_EQ(unpacked[place].time, members[place].time.value_or(1'164'117'600)) << place;
    }
    EXPECT_TRUE(bundle::unpack(bundle::tar({}, 0), &problems).empty());
}

TEST(Bundle, ChecksumsOfLengthsAroundABlock) {
    const std::map<size_t, std::string> sums = {
        {55, "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {56, "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
        {63, "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
        {64, "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {119, "31eba51c313a5c08226adf18d4a359cfdfd8d2e816b13f4af952f7ea6584dcfb"},
        {120, "2f3d335432c70b580af0e8e1b3674a7c020d683aa5f73aaaedfdc55af904c21c"},
        {1'000'000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
    for (const auto& [length, sum] : sums) {
        EXPECT_EQ(bundle::sha256(bytesOf(std::string(length, 'a'))), sum) << length;
    }
}

TEST(Bundle, ChecksumIsThatOfTheStandard) {
    EXPECT_EQ(bundle::sha256(bytesOf("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(bundle::sha256({}),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Bundle, NamesMayBeAnything) {
    Unpacked unpacked = unpack(file("../../etc/passwd", "x") + file("/root/.profile", "y") + END);
    EXPECT_THAT(namesOf(unpacked), ElementsAre("../../etc/passwd", "/root/.profile"));
}

TEST(Bundle, LinksAndDevicesArePassedOver) {
    Unpacked unpacked =
        unpack(header("soft\x1b", 0, '2', "/etc/passwd") + header("hard", 0, '1', "/etc/passwd") +
               header("device", 0, '3') + header("fifo", 0, '6') + header("folder/", 0, '5') +
               file("good", "x") + END);
    EXPECT_THAT(namesOf(unpacked), ElementsAre("good"));
    EXPECT_THAT(unpacked.problems, ElementsAre("soft\\x1B: no regular file, passed over",
                                               "hard: no regular file, passed over",
                                               "device: no regular file, passed over",
                                               "fifo: no regular file, passed over"));
}

TEST(Bundle, LongMembersAreCut) {
    std::string content(bundle::LONGEST_MEMBER + 1000, 'x');
    Unpacked unpacked = unpack(file("long", content) + file("next", "y") + END);
    ASSERT_EQ(unpacked.members.size(), 2U);
    EXPECT_EQ(unpacked.members[0].bytes.size(), bundle::LONGEST_MEMBER);
    EXPECT_EQ(unpacked.members[1].bytes, bytesOf("y"));
    EXPECT_THAT(unpacked.problems, ElementsAre("long: only its first 4194304 bytes are read"));
}

TEST(Bundle, SizesThatAreNotThereAreNoHarm) {
    Unpacked unpacked = unpack(header("huge", 077777777777ULL) + "only this");
    ASSERT_EQ(unpacked.members.size(), 1U);
    EXPECT_LE(unpacked.members[0].bytes.size(), 512U);
    EXPECT_EQ(unpacked.problems.size(), 1U);
}

TEST(Bundle, EndlessContentEnds) {
    // Zeros pack a thousandfold: each of these stands for 32 MB.
    struct archive* packed = archive_write_new();
    archive_write_set_format_ustar(packed);
    archive_write_add_filter_gzip(packed);
    std::vector<char> bytes(8U << 20U);
    size_t used = 0;
    ASSERT_EQ(archive_write_open_memory(packed, bytes.data(), bytes.size(), &used), ARCHIVE_OK);
    std::vector<char> zeros(1U << 20U);
    for (int number = 0; number < 3; number++) {
        struct archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, "zeros");
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_size(entry, 32U << 20U);
        ASSERT_EQ(archive_write_header(packed, entry), ARCHIVE_OK);
        for (int piece = 0; piece < 32; piece++) {
            archive_write_data(packed, zeros.data(), zeros.size());
        }
        archive_entry_free(entry);
    }
    archive_write_close(packed);
    archive_write_free(packed);
    Unpacked unpacked = unpack(std::string(bytes.data(), used));
    EXPECT_THAT(unpacked.problems.back(), HasSubstr("the rest is not read"));
    for (const Member& member : unpacked.members) {
        EXPECT_LE(member.bytes.size(), bundle::LONGEST_MEMBER);
    }
}

TEST(Bundle, WhatIsNoneGivesAProblem) {
    EXPECT_EQ(unpack("no bundle, but long enough to be looked at").problems.size(), 1U);
    EXPECT_TRUE(unpack("").members.empty());
}

TEST(Bundle, AnyBytesMayCome) {
    std::string sound = file("kelta_eventlog", std::string(3000, 'e')) + file("b", "y") + END;
    std::vector<U8_t> packed = bundle::pack({{"a", bytesOf(std::string(3000, 'e'))}}, 1);
    std::string compressed(packed.begin(), packed.end());
    std::minstd_rand random(20061122);
    for (int round = 0; round < 400; round++) {
        std::string bytes = round % 2 == 0 ? sound : compressed;
        for (int acts = 0; acts < 4; acts++) {
            bytes[random() % std::min<size_t>(bytes.size(), 600)] = static_cast<char>(random());
        }
        bytes.resize(random() % 4 == 0 ? random() % bytes.size() : bytes.size());
        for (const Member& member : unpack(bytes).members) {
            EXPECT_LE(member.bytes.size(), bundle::LONGEST_MEMBER);
        }
    }
}
