/** evctl log against a switch that the test plays. */
#include "mmsg_client.h"
#include "parameter_block.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>

using support::Bytes;

namespace {

class Log : public testing::Test {
  protected:
    support::Process start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "log");
        return support::Process(support::commandOf("evctl", arguments), directory_.file("evctl"));
    }
    std::string dir() const { return directory_.path(); }

    support::TempDirectory directory_;
};

/** The 216 bytes of an event message, then its data. */
Bytes eventMessage(U8_t requestor, U8_t type, U8_t category, U8_t idVersion, U16_t id,
                   const std::string& data) {
    size_t length = 216 + data.size();
    Bytes bytes(length);
    bytes[8] = 14;
    bytes[9] = 1;
    bytes[10] = static_cast<U8_t>(length >> 8);
    bytes[11] = static_cast<U8_t>(length);
    bytes[12] = 8;
    bytes[15] = 1;
    bytes[16] = requestor;
    bytes[20] = 0x08;
    bytes[211] = type;
    bytes[212] = category;
    bytes[213] = idVersion;
    bytes[214] = static_cast<U8_t>(id >> 8);
    bytes[215] = static_cast<U8_t>(id);
    std::copy(data.begin(), data.end(), bytes.begin() + 216);
    return bytes;
}

} // namespace

TEST_F(Log, SendsTheseBytes) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::Process evctl = start({"--dir", dir(), "--id", "0x1234", "--type", "warning",
                                    "--category", "disk", "--text", "slow"});
    support::MmsgClient peer = listener.accept();
    EXPECT_EQ(peer.receive(), eventMessage(28, 2, 4, 1, 0x1234, "slow"));
    peer.waitForEnd();
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.output() + evctl.errorOutput(), "");
}

TEST_F(Log, SourceIsTheEndpointThatItConnectsAs) {
    support::MmsgListener listener(directory_.file("startup"));
    support::Process evctl = start({"--dir", dir(), "--source", "startup", "--id", "signal",
                                    "--id-version", "0", "--hex", "00 ff 0a"});
    EXPECT_EQ(listener.accept().receive(),
              eventMessage(18, 1, 1, 0, 4, std::string("\0\xFF\n", 3)));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, LargestEventIsAWholeMessage) {
    std::string data(3848, 'd');
    support::writeFile(directory_.file("data"), data);
    support::MmsgListener listener(directory_.file("snmp"));
    support::Process evctl =
        start({"--dir", dir(), "--id", "7", "--file", directory_.file("data")});
    EXPECT_EQ(listener.accept().receive(), eventMessage(28, 1, 1, 1, 7, data));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, OneByteMoreCannot) {
    support::writeFile(directory_.file("data"), std::string(3849, 'd'));
    support::Process evctl =
        start({"--dir", dir(), "--id", "7", "--file", directory_.file("data")});
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(), "evctl: more than 3848 bytes of event data\n");
}

TEST_F(Log, CountSendsAsManyAndNoMore) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::Process evctl =
        start({"--dir", dir(), "--id", "7", "--count", "500", "--text", "again"});
    support::MmsgClient peer = listener.accept();
    for (int count = 0; count < 500; count++) {
        ASSERT_EQ(peer.receive(), eventMessage(28, 1, 1, 1, 7, "again")) << count;
    }
    peer.waitForEnd();
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, RateSpreadsTheEvents) {
    support::MmsgListener listener(directory_.file("snmp"));
    auto before = std::chrono::steady_clock::now();
    support::Process evctl = start({"--dir", dir(), "--id", "7", "--count", "6", "--rate", "20"});
    support::MmsgClient peer = listener.accept();
    for (int count = 0; count < 6; count++) {
        peer.receive();
    }
    // The sixth is due five periods of 50 ms after the first.
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, KeyNamesTheDirectory) {
    support::IpcKey key;
    support::ParameterBlock block(key, dir());
    support::MmsgListener listener(directory_.file("snmp"));
    support::Process evctl = start({"--key", key.text(), "--id", "9"});
    EXPECT_EQ(listener.accept().receive(), eventMessage(28, 1, 1, 1, 9, ""));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, SwitchThatGoesAwayCannot) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::Process evctl = start({"--dir", dir(), "--id", "7", "--count", "1000000"});
    listener.accept().close();
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_NE(evctl.errorOutput().find("the message switch"), std::string::npos);
}
