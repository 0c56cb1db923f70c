// The same input gives the same bytes on every host: messages and log file against literal bytes,
// in which only times, and the checksums that cover them, are masked.

#include "altEventLog.h"
#include "blade.h"

#include <gtest/gtest.h>

using namespace support;

namespace {

/** Bytes of a text of hexadecimal digits; blanks are skipped. */
Bytes fromHex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (char digit : text) {
        if (digit == ' ') {
            continue;
        }
        digits += digit;
        if (digits.size() == 2) {
            bytes.push_back(static_cast<U8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

void mask(Bytes& bytes, size_t offset) {
    std::fill_n(bytes.begin() + static_cast<long>(offset), 4, U8_t{0xFF});
}

/** "CHASSIS-7" and "BLADE-42" in their fields, slot 3, instance 0. */
std::string identity() {
    return "434841535349532D37" + std::string(110, '0') + "424C4144452D3432" +
           std::string(112, '0') + "00000003 00000000";
}

const char* const NOTICE = "0000000000000000 0E 01 0040 0C000001 1B 00 00 00 00040000 00000000"
                           "0000000000000000 00000000 00000000 00000000 00000000 00000000"
                           "0000000000000000";

/** Header of a copy of an event of this length and handle. */
std::string copyHeader(const std::string& length, const std::string& handle) {
    return "0000000000000000 0E 01" + length +
           "08000001 1B 00 00 00 40000000 00000000 40000000 00000000 00000000" + handle +
           "000000000000000000000000 0000000000000000";
}

const char* const EVENT_A = "00000001 FFFFFFFF 0005 12 02 04 07 1234 68656C6C6F";
const char* const EVENT_B = "00000002 FFFFFFFF 0000 22 02 04 07 1234";

class Golden : public testing::Test {
  protected:
    Golden() : emp_(blade_) {}

    /** The next message, the time of its event masked. */
    Bytes nextEvent() {
        Bytes message = emp_.msm.receive();
        mask(message, 204);
        return message;
    }

    /** A record of the log, checked against its checksum and then masked. */
    Bytes recordAt(size_t offset, size_t length, size_t covered) const {
        Bytes record = blade_.logged(offset, length);
        EXPECT_EQ(number32(record, 4), computeCRC32(&record[8], static_cast<U32_t>(covered)));
        mask(record, 4);
        mask(record, 148);
        return record;
    }

    static Bytes withHandle(Bytes message, U32_t handle) {
        headerOf(message).handle = handle;
        return message;
    }

    Blade blade_;
    RunningEmp emp_;
};

TEST_F(Golden, MessagesAndLogFile) {
    EXPECT_EQ(emp_.msm.receive(), fromHex(NOTICE));
    emp_.msm.send(withHandle(eventMessage(18, {'h', 'e', 'l', 'l', 'o'}), 0xCAFEF00D));
    EXPECT_EQ(nextEvent(), fromHex(copyHeader("00DD", "CAFEF00D") + identity() + EVENT_A));
    emp_.msm.send(eventMessage(34, {}));
    EXPECT_EQ(nextEvent(), fromHex(copyHeader("00D8", "00000000") + identity() + EVENT_B));

    // The event with id 1, asked for by endpoint 29.
    emp_.msm.send(
        makeMmsg({.type = 2, .requestor = 29, .local = {27}, .handle = 0x80000001},
                 joined({fromHex("00000003"), fromHex(identity()), fromHex("00000001")})));
    EXPECT_EQ(nextEvent(),
              fromHex("0000000000000000 0E 01 00DD 08000002 1B 40 1D 00 20000000 00000000 00000000"
                      "00000000 00000001 80000001 000000000000000000000000 0000000000000000" +
                      identity() + EVENT_A));

    // The manager's status.
    emp_.msm.send(makeMmsg({.type = 5, .requestor = 32, .other = {27}, .handle = 7}));
    EXPECT_EQ(emp_.msm.receive(),
              fromHex("0000000000000000 0E 01 0054 08000005 1B 40 20 00 00000000 00000001 00000000"
                      "00000000 00000001 00000007 000000000000000000000000 0000000000000000"
                      "00000000 0000 0000 00000000 00000000 00000000"));

    EXPECT_EQ(recordAt(0, 200, 192),
              fromHex("B68F 01 00 FFFFFFFF" + identity() +
                      "00000000 FFFFFFFF 0028 1B 01 02 01 0002 434841535349532D37" +
                      std::string(62, '0')));
    EXPECT_EQ(recordAt(200, 165, 157), fromHex("B68F 01 00 FFFFFFFF" + identity() + EVENT_A));
    EXPECT_EQ(recordAt(365, 160, 152), fromHex("B68F 01 00 FFFFFFFF" + identity() + EVENT_B));
    EXPECT_EQ(recordAt(525, 160, 152), fromHex("B68F 01 00 FFFFFFFF" + identity() +
                                               "00000000 FFFFFFFF FFFF 1B 01 02 01 0001"));
    std::string log = blade_.log();
    EXPECT_EQ(log.size(), 1'600'000U);
    EXPECT_EQ(log.find_first_not_of('\0', 685), std::string::npos);
}

} // namespace
