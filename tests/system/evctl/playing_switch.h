/**
 * @file
 * The message switch and the event manager behind it, as a test plays them for evctl.
 */
#ifndef EVCTL_TEST_PLAYING_SWITCH_H
#define EVCTL_TEST_PLAYING_SWITCH_H

#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

namespace support {

/** Starts evctl and answers what it asks, byte by byte. */
class PlayingSwitch : public testing::Test {
  protected:
    Process start(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--dir", directory_.path()});
        return Process(commandOf("evctl", arguments), directory_.file("evctl"));
    }

    /** An event's 152 bytes without data: enclosure E, blade B, slot 2, instance 7. */
    static Bytes event(U8_t sequenceId) {
        Bytes body(152);
        body[0] = 'E';
        body[64] = 'B';
        body[131] = 2;
        body[135] = 7;
        body[139] = sequenceId;
        body[146] = 18;
        body[147] = 2;
        body[148] = 4;
        return body;
    }

    /** The 208 bytes of an inquiry but for its handle. */
    static Bytes inquiry(U8_t type, U8_t sequenceId, bool named = true) {
        Bytes bytes(208);
        bytes[8] = 14;
        bytes[9] = 1;
        bytes[11] = 208;
        bytes[12] = 8;
        bytes[15] = 2;
        bytes[16] = 28;
        bytes[20] = 0x08;
        bytes[67] = type;
        bytes[207] = sequenceId;
        if (named) {
            bytes[68] = 'E';
            bytes[132] = 'B';
            bytes[199] = 2;
            bytes[203] = 7;
        }
        return bytes;
    }

    /** Receives a request, checks it but for its handle, and answers it. */
    static void answer(MmsgClient& peer, const Bytes& request, U32_t returnCode,
                       const Bytes& body) {
        Bytes received = peer.receive();
        U32_t handle = headerOf(received).handle;
        headerOf(received).handle = 0;
        EXPECT_EQ(received, request);
        peer.send(makeMmsg({.type = request[15],
                            .requestor = 27,
                            .cont = 0x40,
                            .dest = 28,
                            .local = {28},
                            .returnCode = returnCode,
                            .handle = handle},
                           body));
    }

    static constexpr U8_t FIRST = 1, NEXT = 2, EXACT = 3, PREVIOUS = 4, LAST = 5;

    TempDirectory directory_;
    MmsgListener listener_{directory_.file("snmp")};
};

} // namespace support

#endif
