#include "link_fixture.h"

#include <csignal>

using namespace support;

namespace {

/** An archiver that is soon full. */
class Stall : public LinkProcessTest {
  protected:
    Stall() : LinkProcessTest(true) {}
};

TEST_F(Stall, EveryByteArrivesOnceAndInOrderWhenTheArchiverReadsOn) {
    ArchiverEnd end = open(0, 0);
    const auto [all, taken] = fill();
    EXPECT_EQ(end.receive(taken), Bytes(all.begin(), all.begin() + static_cast<long>(taken)));
    emp_.msm.send(passes(6));
    EXPECT_EQ(end.receive(all.size() - taken),
              Bytes(all.begin() + static_cast<long>(taken), all.end()));
    EXPECT_EQ(reply(3, 0, 0), Bytes(152)) << "the drained event's record";
    emp_.msm.send(passes(3));
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1})) << "one reply, and no inquiry timed out";
    EXPECT_TRUE(end.isQuiet());
    expectForwarding(end, {1});
}

TEST_F(Stall, AnswerWithHandleZeroMeetsTheDrainedEventsRecord) {
    ArchiverEnd end = open(0, 0);
    const size_t taken = fill().second;
    emp_.process.signal(SIGSTOP); // no pass of its own
    end.receive(taken);
    // Each answer is a pass; the sixth drains the event, whose record the next one finds.
    Bytes answers;
    for (int i = 0; i < 20; ++i) {
        answers = std::move(answers) + inquiryAnswer(own_, 0, 1, 0);
    }
    end.send(answers);
    end.waitUntilDelivered();
    emp_.process.signal(SIGCONT);
    emp_.expectBugCheck("empRcvEventLogMsgFromEventArchiver",
                        "Receive unsupported MSG type from Event Archiver?");
}

TEST_F(Stall, RestOfTheMessageFollowsTheNextHandshakeAndAgainTheWholeEvent) {
    size_t taken = 0;
    Bytes all;
    {
        ArchiverEnd end = open(0, 0);
        std::tie(all, taken) = fill();
        emp_.process.signal(SIGSTOP); // no pass of its own, so that the rest stays behind
        end.receive(taken);
    }
    emp_.process.signal(SIGCONT);
    emp_.process.waitForOutput("Close the Event Archiver connection.");
    emp_.msm.send(setRequest());
    EXPECT_EQ(emp_.msm.receive().size(), 72U);
    ArchiverEnd end = archiver_.accept();
    EXPECT_EQ(get16(end.receive(196), 4), 6U);
    const auto rest = all.begin() + static_cast<long>(taken);
    // The archiver has all but the last event.
    end.send(statusAnswer(static_cast<U32_t>(all.size() / 4016 - 1), 0, 1001));
    const Bytes whole(all.end() - 4016, all.end());
    EXPECT_EQ(end.receive(4016), whole);
    emp_.msm.send(passes(6));
    EXPECT_EQ(end.receive(all.size() - taken), Bytes(rest, all.end()));
}

TEST_F(Stall, DrainedWithAnInquiryOutItEndsTheEventManager) {
    ArchiverEnd end = open(0, 0);
    // How much the connection takes is the kernel's choice, and more on a busy machine. An inquiry
    // has 15 passes until it expires, so that there is always a younger one.
    size_t inquiries = 0;
    const size_t taken = fill([&] {
                             emp_.msm.send(inquiry(EXACT, other_, 5, 5));
                             ++inquiries;
                         }).second;
    emp_.process.signal(SIGSTOP); // no pass of its own
    end.receive(inquiries * 160 + taken);
    emp_.process.signal(SIGCONT);
    emp_.msm.send(eventMessage(18, {1}));
    emp_.expectBugCheck("empSendForwardListToEventArchiver",
                        "Item on Forward Pending List isn't FORWARD or PARTIAL FORWARD?");
}

} // namespace
