/**
 * What an archiver receives on a link: any bytes in any pieces, and silences between them. However
 * they are cut, the same requests must come of them; and the archive behind must take them all.
 */
#include "messages.h"

#include "archive.h"
#include "session.h"
#include "sqlite_store.h"

#include <cstring>

namespace {

using evarchive::Archive;
using evarchive::Certainty;
using evarchive::LinkNumber;
using evarchive::Requests;
using evarchive::Session;
using evarchive::Verdict;
using evarchive::View;
using fuzz::Bytes;
using fuzz::Input;

/** Writes down what it is given. */
class Protocol : public Requests {
  public:
    void takeEvent(View body, Certainty certainty) override {
        if (certainty == Certainty::CERTAIN) {
            note("event", body);
        }
    }
    void takeBackEvent(View /*body*/) override {}
    void takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) override {
        note("inquiry " + std::to_string(handle), evarchive::viewOf(inquiry));
    }
    void takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) override {
        note("status " + std::to_string(handle), evarchive::viewOf(request));
    }

    std::string text{};

  private:
    void note(const std::string& what, View bytes) {
        text += what + " ";
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
};

/** Files them, and answers. */
class Filing : public Requests {
  public:
    void takeEvent(View body, Certainty certainty) override {
        archive_.fileEvent(LINK, body, certainty);
    }
    void takeBackEvent(View body) override { archive_.takeBack(LINK, body); }
    void takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) override {
        const auto event = archive_.answerInquiry(inquiry);
        checkAnswer(event ? evarchive::makeEventAnswer(handle, event->image)
                          : evarchive::makeEmptyAnswer(handle, inquiry, EMP_E_RESPONSE_FAILURE));
    }
    void takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) override {
        const auto verdict = archive_.answerStatus(LINK, request);
        checkAnswer(evarchive::makeStatusAnswer(handle, request, verdict.sequenceIdLast,
                                                verdict.controlFlag));
    }
    void finish() {
        archive_.commit();
        archive_.countGaps();
    }

  private:
    static constexpr LinkNumber LINK = 1;

    /** A response goes out with the length that it states, and never more than a blade takes. */
    static void checkAnswer(const Bytes& answer) {
        fuzz::expect(answer.size() >= evarchive::HEADER_SIZE, "an answer without a header");
        auto header = evarchive::imageOf<EmpEvArchiverMsgHeader_t>(answer);
        std::size_t body = header.evArchiverMsgBodyLength;
        fuzz::expect(answer.size() == evarchive::HEADER_SIZE + body && body <= 4064,
                     "an answer of another length than it states, or too long");
    }

    std::unique_ptr<evarchive::Store> store_ = evarchive::openArchiveInMemory();
    Archive archive_{*store_, {}, [](auto, const std::string&) {}};
};

/** How a stream is made; the first byte of each step, modulo their number. */
enum Step { RAW, EVENT, INQUIRY, STATUS, AGAIN, DAMAGE, STEPS };

Bytes request(std::uint8_t type, const Bytes& body, std::uint32_t handle) {
    Bytes message = fuzz::archiverMessage(type, body, handle, 0);
    message[7] = EMP_E_EVENT_ARCHIVER_MSG_REQUEST;
    return message;
}

Bytes event(Input& input) {
    fuzz::EventFields fields;
    fields.sequenceId = input.byte();
    fields.instance = input.byte() % 2;
    fields.length = input.half() % 4096;
    fields.source = input.byte();
    fields.fill = static_cast<char>(input.byte());
    return request(EMP_E_MSGS_LOG, fuzz::eventBody(fields), 0);
}

Bytes status(Input& input) {
    EmpGetEvArchiverStatusMsg_t body = {};
    Bytes oldest = fuzz::eventBody({.length = 0});
    std::memcpy(&body, oldest.data(), offsetof(EmpGetEvArchiverStatusMsg_t, evInstanceNumber));
    body.evInstanceNumber = input.byte() % 2U;
    body.evSequenceIdFirst = U32_t{input.byte()};
    body.evStructLength = input.half();
    std::memset(body.evRandom, input.byte(), sizeof(body.evRandom));
    View bytes = evarchive::viewOf(body);
    Bytes message =
        request(EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS, Bytes(bytes.begin(), bytes.end()), 1000);
    message.resize(evarchive::STATUS_REQUEST_SIZE);
    return message;
}

Bytes streamOf(Input& input) {
    Bytes stream;
    Bytes last;
    while (!input.over() && stream.size() < 100'000) {
        switch (input.byte() % STEPS) {
        case RAW: {
            auto raw = input.take(input.half());
            last.assign(raw.begin(), raw.end());
            break;
        }
        case EVENT:
            last = event(input);
            break;
        case INQUIRY: {
            std::uint32_t type = input.byte();
            std::uint32_t id = input.byte();
            last = request(EMP_E_MSGS_INQUIRY, fuzz::inquiryBody(type, id, 0, 1), id);
            break;
        }
        case STATUS:
            last = status(input);
            break;
        case DAMAGE:
            if (!stream.empty()) {
                stream[stream.size() - 1 - input.half() % stream.size()] = input.byte();
            }
            continue;
        default:
            break;
        }
        fuzz::append(stream, last);
    }
    return stream;
}

/** Gives a session the stream in pieces of one size (0: whole), with silences when asked for. */
evarchive::SessionCounts feed(Requests& requests, View stream, std::size_t piece, bool silences) {
    evarchive::SessionCounts counts;
    Session session(requests, counts, [](auto, const std::string&) {});
    Verdict verdict = Verdict::GO_ON;
    piece = piece == 0 ? stream.size() : piece;
    while (!stream.empty() && verdict == Verdict::GO_ON) {
        View front = stream.first(std::min(piece, stream.size()));
        stream = stream.subspan(front.size());
        verdict = session.receive(front);
        if (silences && verdict == Verdict::GO_ON) {
            session.idle();
            if (session.messages() % 3 == 0) {
                session.idleForLong();
            }
        }
    }
    session.end();
    return counts;
}

/** What leads to a lost border is taken as far as it had come by then. */
void compare(const std::string& whole, const std::string& cut, bool lost) {
    bool same = lost ? whole.starts_with(cut) || cut.starts_with(whole) : whole == cut;
    fuzz::expect(same, "other requests come of other pieces");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::size_t piece = input.byte();
    Bytes stream = streamOf(input);
    Protocol whole;
    Protocol cut;
    U64_t lost = feed(whole, stream, 0, false).bordersLost;
    fuzz::expect(feed(cut, stream, piece * 8 + 1, false).bordersLost == lost,
                 "other pieces have other borders");
    compare(whole.text, cut.text, lost != 0);
    Filing filing;
    feed(filing, stream, piece * 8 + 1, true);
    feed(filing, stream, 0, false);
    filing.finish();
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    auto event = [](Seed& seed, unsigned id) -> Seed& {
        return seed.byte(EVENT).byte(id).byte(0).half(20).byte(18).byte('d');
    };
    Seed sound = Seed().byte(3).byte(STATUS).byte(0).byte(0).half(40).byte('d');
    event(event(sound, 0), 1).byte(INQUIRY).byte(3).byte(1).byte(INQUIRY).byte(5).byte(0);
    Seed again = Seed().byte(0);
    event(event(again, 5), 6).byte(AGAIN).byte(STATUS).byte(0).byte(5).half(20).byte('d');
    Seed lost = Seed().byte(200);
    event(lost, 1).byte(RAW).half(1).byte('x');
    event(lost, 2).byte(DAMAGE).half(30).byte(7);
    Seed large = Seed().byte(9);
    large.byte(EVENT).byte(1).byte(1).half(3848).byte(34).byte(0);
    return {sound.bytes, again.bytes, lost.bytes, event(large, 0).bytes, Seed().byte(1).bytes};
}

} // namespace fuzz
