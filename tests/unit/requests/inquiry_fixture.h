/**
 * @file
 * Questions to a log of ten events, and what is printed and sent for them.
 */
#ifndef INQUIRY_FIXTURE_H
#define INQUIRY_FIXTURE_H

#include "link_bench.h"
#include "requests/inquiry.h"

#include <unistd.h>

constexpr U32_t FIRST = 1;
constexpr U32_t NEXT = 2;
constexpr U32_t EXACT = 3;
constexpr U32_t PREVIOUS = 4;
constexpr U32_t LAST = 5;

constexpr char CASES[][9] = {"", "First", "Next", "Exact", "Previous", "Last"};

/** Ids 100 to 109 are in the log, from offset 0 on; no archiver. */
class Inquiry : public LinkTest {
  protected:
    Inquiry() {
        storeRange(100, 110);
        empLogFilePosition = 555;
    }

    static std::string ask(const Bytes& message) {
        return linesOf([&] { empRcvEventInquiryMsg(received(message)); });
    }
    static std::string ask(U32_t type, U32_t id) {
        return ask(localMessage(2, inquiryBody(type, id)));
    }
    static std::vector<Bytes> replies() { return sentTo(MSM_SOCKET); }
    static std::vector<Bytes> relayed() { return sentTo(ARCHIVER_SOCKET); }

    /** The reply that carries an event. */
    static Bytes answer(U32_t id) {
        return replyHeader(2, 256, 1) + eventHeader(id, 40) + dataOf(id);
    }
    /** The reply that says no. */
    static Bytes failure(U32_t id, const std::string& enclosure = ENCLOSURE,
                         const std::string& blade = BLADE, U32_t slot = SLOT,
                         U32_t instance = INSTANCE) {
        Bytes bytes = replyHeader(2, 216, 2);
        putText(bytes, enclosure, 64);
        putText(bytes, blade, 64);
        put32(bytes, slot);
        put32(bytes, instance);
        put32(bytes, id);
        putZeros(bytes, 12);
        return bytes;
    }
    /** The one reply to a question. */
    static Bytes replyTo(U32_t type, U32_t id) {
        bench.sends.clear();
        ask(type, id);
        return replies().size() == 1 ? replies()[0] : Bytes{};
    }
    static std::string beginning(U32_t type, U32_t id) {
        return "empRcvEventInquiryMsg(): Current File Position is at [555]\n"
               "empRcvEventInquiryMsg(): This Inquiry Message is from Local Blade.\n"
               "empRcvEventInquiryMsg(): Inquiry " +
               std::string(CASES[type]) + " Case wit Sequence Id [" +
               std::to_string(static_cast<int>(id)) + "]\n";
    }
    static std::string readLines() {
        return "empRcvEventInquiryMsg(): Read [160] bytes of Event Record to Temp place.\n"
               "empRcvEventInquiryMsg(): Read [40] bytes of Event Structure to Temp place.\n";
    }
    static std::string ending() {
        return "empRcvEventInquiryMsg(): Send out a MMSG from the Event Manager to Requestor.\n"
               "<MMSG>\n"
               "empRcvEventInquiryMsg(): Switch back to the original File Position [555]\n";
    }
    static std::string failureLines() {
        return "empSendEventInquiryMsgFailureToRequestor(): This Inquiry Message is from Local Blade.\n"
               "empSendEventInquiryMsgFailureToRequestor(): Send out a MMSG from the Event Manager to Requestor.\n"
               "<MMSG>\n";
    }
};

#endif
