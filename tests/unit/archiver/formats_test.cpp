// The worked examples of docs/formats-archiver.md are what the event manager sends and takes.
#include "archiver/forward.h"
#include "archiver/handshake.h"
#include "archiver/message.h"
#include "archiver/relay.h"
#include "link_bench.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

/** The hex dump behind "<!-- example: name -->". */
Bytes example(const std::string& name) {
    std::ifstream file(FORMATS_FILE);
    std::string line;
    while (std::getline(file, line) && line != "<!-- example: " + name + " -->") {
    }
    std::getline(file, line); // ```
    Bytes bytes;
    while (std::getline(file, line) && line != "```") {
        std::istringstream fields(line);
        std::string field;
        fields >> field; // the offset
        EXPECT_EQ(std::stoul(field, nullptr, 16), bytes.size());
        while (fields >> field) {
            put8(bytes, static_cast<unsigned>(std::stoul(field, nullptr, 16)));
        }
    }
    return bytes;
}

class ArchiverFormats : public LinkTest {
  protected:
    ArchiverFormats() {
        memset(empControl.empEnclosureId, 0, 64);
        memset(empControl.empBladeId, 0, 64);
        memcpy(empControl.empEnclosureId, "ENC-0001", 8);
        memcpy(empControl.empBladeId, "BLADE-A", 7);
        empControl.empSlotId = 1;
        empControl.empInstanceNumber = 0;
        setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    }

    /** Stores the first entry and the example event. */
    static void storeExamples() {
        Bytes event = example("event");
        Bytes first = {0xB6, 0x8F, 1, 0, 0, 0, 0, 0};
        first = first + slice(event, 16, 16 + 136);
        put32(first, 0);
        put32(first, 0x65920080);
        put16(first, 40);
        first = first + Bytes{27, 1, 2, 1, 0, 2};
        putText(first, "ENC-0001", 40);
        Bytes file = first + Bytes{0xB6, 0x8F, 1, 0, 0, 0, 0, 0} + slice(event, 16, event.size());
        ASSERT_EQ(pwrite(empControl.eventLogFileFd, file.data(), file.size(), 0),
                  static_cast<ssize_t>(file.size()));
        eventEntryDatabase[0].evFlag = 1;
        eventEntryDatabase[1].evFlag = 1;
        eventEntryDatabase[1].evOffset = 200;
        setRange(0, 2);
    }
};

TEST_F(ArchiverFormats, StatusRequestIsTheExample) {
    storeExamples();
    ASSERT_EQ(example("status request").size(), 196U);
    empSendGetEventArchiverStatusMsg();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(example("status request")));
}

TEST_F(ArchiverFormats, ExampleResponseIsAnsweredWithTheExampleEvent) {
    storeExamples();
    ASSERT_EQ(example("status response").size(), 192U);
    ASSERT_EQ(example("event").size(), 181U);
    empProcEventArchiverMsg(receivedFromArchiver(example("status response")));
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(example("event")));
}

TEST_F(ArchiverFormats, RelayedInquiryIsTheExample) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empSendEventInquiryToEventArchiver(
        received(localMessage(2, inquiryBody(2, 41, "ENC-0002", "BLADE-B", 1, 0), 29, 0, 1234)));
    ASSERT_EQ(example("inquiry").size(), 160U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(example("inquiry")));
}

} // namespace
