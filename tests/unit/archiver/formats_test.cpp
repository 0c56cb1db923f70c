// The worked examples of docs/formats.md are what the event manager sends and takes.
#include "archiver/forward.h"
#include "archiver/handshake.h"
#include "archiver/message.h"
#include "archiver/relay.h"
#include "link_bench.h"
#include "worked_example.h"

#include <cstring>
#include <unistd.h>

namespace {

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
        Bytes event = workedExample("event");
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
    ASSERT_EQ(workedExample("status request").size(), 196U);
    empSendGetEventArchiverStatusMsg();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(workedExample("status request")));
}

TEST_F(ArchiverFormats, ExampleResponseIsAnsweredWithTheExampleEvent) {
    storeExamples();
    ASSERT_EQ(workedExample("status response").size(), 192U);
    ASSERT_EQ(workedExample("event").size(), 181U);
    empProcEventArchiverMsg(receivedFromArchiver(workedExample("status response")));
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(workedExample("event")));
}

TEST_F(ArchiverFormats, RelayedInquiryIsTheExample) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empSendEventInquiryToEventArchiver(
        received(localMessage(2, inquiryBody(2, 41, "ENC-0002", "BLADE-B", 1, 0), 29, 0, 1234)));
    ASSERT_EQ(workedExample("inquiry").size(), 160U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(workedExample("inquiry")));
}

} // namespace
