/** The file that says which certificate speaks for which enclosures, to the letter. */
#include "certificate_map.h"

#include <gmock/gmock.h>

#include <sstream>

using evgate::CertificateMap;
using evgate::Rights;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

CertificateMap mapRead(const std::string& text) {
    std::istringstream stream(text);
    return CertificateMap::read(stream);
}

/** Of the names, those that they allow to speak. */
std::vector<std::string> spokenFor(const Rights& rights, const std::vector<std::string>& names) {
    std::vector<std::string> allowed;
    for (const std::string& name : names) {
        if (rights.maySpeakFor(name)) {
            allowed.push_back(name);
        }
    }
    return allowed;
}

/** A stream that breaks off. */
class Broken : public std::streambuf {
    int_type underflow() override { throw std::runtime_error("the disk"); }
};

} // namespace

TEST(CertificateMapFile, AStarMeansAllThatBeginSoAndNothingElse) {
    const Rights rights = mapRead("CN:a AB* C*D\n").rightsOf({"CN:a"});
    EXPECT_THAT(spokenFor(rights, {"A", "AB", "ABC", "AB*", "CD", "C*D", "CxD", "xAB", ""}),
                ElementsAre("AB", "ABC", "AB*", "C*D"));
    const Rights all = mapRead("CN:a *\n").rightsOf({"CN:a"});
    EXPECT_TRUE(all.maySpeakFor("anything"));
    EXPECT_TRUE(all.maySpeakFor(""));
}

TEST(CertificateMapFile, ANameWithoutAnyLetterIsThatOfTheEnclosureWithoutAName) {
    const Rights rights = mapRead("CN:a \"\" ask:\n").rightsOf({"CN:a"});
    EXPECT_THAT(spokenFor(rights, {"", "ENC"}), ElementsAre(""));
    EXPECT_FALSE(rights.mayAskAbout("ENC"));
}

TEST(CertificateMapFile, WhoSpeaksMayAskAndWhoAsksMayNotSpeak) {
    const Rights rights = mapRead("CN:a ENC-A ask:ENC-B\n").rightsOf({"CN:a"});
    EXPECT_THAT(spokenFor(rights, {"ENC-A", "ENC-B", "ask:ENC-B"}), ElementsAre("ENC-A"));
    EXPECT_TRUE(rights.mayAskAbout("ENC-A"));
    EXPECT_TRUE(rights.mayAskAbout("ENC-B"));
    EXPECT_FALSE(rights.mayAskAbout("ENC-C"));
}

TEST(CertificateMapFile, EachNameOfACertificateAddsWhatItAllows) {
    const CertificateMap map = mapRead("DNS:a ENC-A ask:X\n"
                                       "URI:b ENC-B ask:Y # CN:c ENC-C\n"
                                       "#CN:c ENC-C\n"
                                       "  CN:d \"ENC #D\"\n");
    EXPECT_EQ(map.size(), 3U);
    const Rights both = map.rightsOf({"DNS:a", "URI:b", "CN:c"});
    EXPECT_THAT(spokenFor(both, {"ENC-A", "ENC-B", "ENC-C", "#"}), ElementsAre("ENC-A", "ENC-B"));
    EXPECT_TRUE(both.mayAskAbout("X"));
    EXPECT_TRUE(both.mayAskAbout("Y"));
    EXPECT_TRUE(map.rightsOf({"CN:d"}).maySpeakFor("ENC #D"));
    EXPECT_THAT(spokenFor(map.rightsOf({"a", "dns:a", ""}), {"ENC-A"}), IsEmpty());
}

TEST(CertificateMapFile, ThatCannotBeReadToItsEndIsRefused) {
    Broken broken;
    std::istream stream(&broken);
    EXPECT_THROW(CertificateMap::read(stream), std::runtime_error);
}
