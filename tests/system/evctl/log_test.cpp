/** evctl log against a switch that the test plays. */
#include "mmsg_client.h"
#include "parameter_block.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sys/socket.h>

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

namespace {

/** What the event manager makes of an event message for the management interface. */
Bytes copyOf(const Bytes& message, U8_t sequenceId) {
    Bytes copy = message;
    copy[16] = 27;
    copy[64] = 'E';
    copy[64 + 139] = sequenceId;
    copy[64 + 144] = static_cast<U8_t>((message.size() - 216) >> 8);
    copy[64 + 145] = static_cast<U8_t>(message.size() - 216);
    copy[64 + 146] = message[16];
    return copy;
}

} // namespace

TEST_F(Log, ConfirmPrintsTheIdOfEachEvent) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::MmsgListener interface(directory_.file("smi_ind"));
    support::Process evctl =
        start({"--dir", dir(), "--id", "7", "--count", "2", "--text", "hi", "--confirm", "20"});
    support::MmsgClient copies = interface.accept();
    support::MmsgClient peer = listener.accept();
    Bytes message = peer.receive();
    copies.send(copyOf(eventMessage(28, 1, 1, 1, 8, "hi"), 40)); // somebody else's
    copies.send(copyOf(message, 41));
    copies.send(copyOf(peer.receive(), 42));
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.output(), "41\n42\n");
    EXPECT_EQ(evctl.errorOutput(), "");
}

TEST_F(Log, EventWithoutCopyIsAFinding) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::MmsgListener interface(directory_.file("smi_ind"));
    support::Process evctl = start({"--dir", dir(), "--id", "7", "--count", "2", "--confirm=0.1"});
    support::MmsgClient copies = interface.accept();
    support::MmsgClient peer = listener.accept();
    copies.send(copyOf(peer.receive(), 9));
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_EQ(evctl.output(), "9\n");
    EXPECT_EQ(evctl.errorOutput(), "evctl: 1 of 2 events were not seen to be taken in\n");
}

TEST_F(Log, ConfirmDoesNotRunAheadOfTheCopies) {
    support::MmsgListener listener(directory_.file("snmp"));
    support::MmsgListener interface(directory_.file("smi_ind"));
    support::Process evctl = start({"--dir", dir(), "--id", "7", "--count", "200", "--confirm=20"});
    support::MmsgClient copies = interface.accept();
    support::MmsgClient peer = listener.accept();
    for (int count = 0; count < 64; count++) {
        peer.receive();
    }
    char byte = 0;
    EXPECT_EQ(recv(peer.descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT), -1);
    for (int count = 0; count < 200; count++) {
        copies.send(copyOf(eventMessage(28, 1, 1, 1, 7, ""), static_cast<U8_t>(count)));
        if (count < 200 - 64) {
            peer.receive();
        }
    }
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
}

TEST_F(Log, EventThatDoesNotGetThroughIsLeftAsAFile) {
    support::IpcKey key;
    support::ParameterBlock block(key, dir());
    memcpy(block.bytes() + 440, dir().data(), dir().size()); // nvramDirectory
    support::Process evctl =
        start({"--key", key.text(), "--id", "7", "--count", "2", "--text", "hi", "--or-ael"});
    EXPECT_EQ(evctl.wait(), support::exitedWith(1));
    EXPECT_NE(evctl.errorOutput().find("smi_ind: No such file"), std::string::npos)
        << evctl.errorOutput();
    EXPECT_NE(evctl.errorOutput().find("2 left as alternate event log files\n"), std::string::npos);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir() + "/aelfiles")) {
        std::string bytes = support::readFile(entry.path());
        EXPECT_EQ(bytes.size(), 162U);
        EXPECT_EQ(bytes.substr(160), "hi");
        files++;
    }
    EXPECT_EQ(files, 2);
}

TEST_F(Log, OrAelNeedsTheKeyAndData) {
    support::Process evctl = start({"--dir", dir(), "--id", "7", "--text", "x", "--or-ael"});
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_NE(evctl.errorOutput().find("--or-ael: needs --key"), std::string::npos);
    support::Process empty = start({"--key", "0x7ffffff1", "--id", "7", "--or-ael"});
    EXPECT_EQ(empty.wait(), support::exitedWith(2));
    EXPECT_NE(empty.errorOutput().find("at least 1 byte"), std::string::npos);
}
