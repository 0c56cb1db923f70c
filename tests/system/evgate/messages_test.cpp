/** The parts of a gate that know no socket. */
#include "certificate_map.h"
#include "link_messages.h"
#include "messages.h"

#include <gmock/gmock.h>

#include <sstream>

using namespace support;
using evgate::CertificateMap;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

CertificateMap mapOf(const std::string& text) {
    std::istringstream stream(text);
    return CertificateMap::read(stream);
}

std::string refusalOf(const std::string& text) {
    try {
        mapOf(text);
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(CertificateMap, GivesAllThatTheNamesOfACertificateAllow) {
    const CertificateMap map = mapOf("# name  enclosures\n"
                                     "\n"
                                     "DNS:a.example ENC-A \"ENC B\" # two\n"
                                     "CN:a RACK-*  ask:*\n");
    const auto both = map.rightsOf({"DNS:a.example", "CN:a", "URI:x"});
    for (const char* enclosure : {"ENC-A", "ENC B", "RACK-", "RACK-12"}) {
        EXPECT_TRUE(both.maySpeakFor(enclosure)) << enclosure;
    }
    for (const char* enclosure : {"", "ENC", "ENC-AA", "rack-12", "XRACK-1"}) {
        EXPECT_FALSE(both.maySpeakFor(enclosure)) << enclosure;
        EXPECT_TRUE(both.mayAskAbout(enclosure)) << enclosure;
    }
    const auto one = map.rightsOf({"DNS:a.example"});
    EXPECT_FALSE(one.maySpeakFor("RACK-12"));
    EXPECT_TRUE(one.mayAskAbout("ENC-A"));
    EXPECT_FALSE(one.mayAskAbout("RACK-12"));
    EXPECT_TRUE(map.rightsOf({"CN:DNS:a.example"}).speaks.empty());
}

TEST(CertificateMap, NamesTheLineThatIsWrong) {
    EXPECT_EQ(refusalOf("CN:a ENC\n\nENC-A\n"),
              "line 3: 'ENC-A' is no name of a certificate: DNS:, URI: or CN: and a name");
    EXPECT_THAT(refusalOf("CN: ENC\n"), HasSubstr("line 1: 'CN:' is no name"));
    EXPECT_EQ(refusalOf("CN:a ask:ENC\n"), "line 1: CN:a speaks for no enclosure");
    EXPECT_EQ(refusalOf("CN:a ENC\nCN:a ENC\n"), "line 2: CN:a stands here a second time");
}

TEST(GateMessages, AreCutOutOfAStreamHoweverItArrives) {
    const Bytes stream = statusRequest({}, 1, {1, 2}, 7) + eventMessage({.id = 1}) +
                         inquiryMessage(EXACT, {}, 1, 8) + eventMessage({.id = 2});
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{500}, stream.size()}) {
        evgate::MessageReader reader(evarchive::judgeBorder);
        std::vector<size_t> sizes;
        Bytes all;
        for (size_t at = 0; at < stream.size(); at += piece) {
            const evarchive::View bytes = evarchive::View(stream).subspan(at);
            EXPECT_TRUE(reader.receive(bytes.first(std::min(piece, bytes.size())),
                                       [&](evarchive::View message) {
                                           sizes.push_back(message.size());
                                           all.insert(all.end(), message.begin(), message.end());
                                           return true;
                                       }));
        }
        EXPECT_THAT(sizes, ElementsAre(196, 171, 160, 171));
        EXPECT_EQ(all, stream);
        EXPECT_TRUE(reader.rest().empty());
    }
}

evarchive::Border judge(const Bytes& bytes) {
    return evgate::judgeAnswer(bytes).border;
}

TEST(GateMessages, AnAnswerIsWhatAnEventManagerTakesForOne) {
    Bytes answer = eventMessage({.id = 1, .data = Bytes(3848)});
    answer[7] = 2;
    EXPECT_EQ(judge(answer), evarchive::Border::WHOLE);
    EXPECT_EQ(judge(Bytes(answer.begin(), answer.end() - 1)), evarchive::Border::MORE);
    EXPECT_EQ(judge(Bytes(answer.begin(), answer.begin() + 15)), evarchive::Border::MORE);
    Bytes other = answer;
    other[1] = 2;
    EXPECT_EQ(judge(other), evarchive::Border::LOST) << "version";
    other = answer;
    other[2] = 0x10;
    EXPECT_EQ(judge(other), evarchive::Border::LOST) << "length";
    other = answer;
    ++other[16 + 145];
    EXPECT_EQ(judge(other), evarchive::Border::LOST) << "the event's own length";
}

// What an inquiry is answered with when its event does not fit.
Bytes insteadOf(const Bytes& inquiry, const EventFields& event, U32_t handle) {
    evgate::Asked asked;
    asked.note(statusRequest({}, 0, {}, 1000));
    asked.note(inquiry);
    Bytes answer =
        requestHeader(static_cast<U32_t>(152 + event.data.size()), 1, handle) + eventBody(event);
    const evgate::Answer both = asked.answerOf(answer);
    EXPECT_EQ(both.message, answer);
    return both.instead;
}

TEST(GateMessages, WhatGoesOutInsteadEchoesTheInquiry) {
    const Bytes exact = insteadOf(inquiryMessage(EXACT, {}, 4, 7), {.id = 4}, 7);
    EXPECT_EQ(get32(exact, 8), 3U);
    EXPECT_EQ(get32(exact, 12), 7U);
    const Bytes next = insteadOf(inquiryMessage(NEXT, {}, 4, 7), {.id = 5}, 7);
    EXPECT_EQ(get32(next, 8), 2U) << "the blade has it itself";
    EXPECT_EQ(get32(next, 16 + 136), 4U);
    EXPECT_EQ(getText(next, 16 + 64), "BLADE-1");
    const LogName other{.slot = 2};
    EXPECT_EQ(get32(insteadOf(inquiryMessage(NEXT, other, 4, 7), {.log = other, .id = 5}, 7), 8),
              3U);
}

TEST(GateMessages, AnAnswerThatNobodyWaitsForNamesNoBladeWhenItIsTooLong) {
    const Bytes unasked = insteadOf(inquiryMessage(NEXT, {}, 4, 7), {.id = 5}, 8);
    EXPECT_EQ(get32(unasked, 8), 3U);
    EXPECT_EQ(getText(unasked, 16), "");
}

} // namespace
