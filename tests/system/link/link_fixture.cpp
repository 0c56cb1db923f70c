#include "link_fixture.h"

#include "wait.h"

#include <fstream>
#include <iterator>
#include <ostream>

using namespace support;

namespace {

constexpr size_t LARGEST = 3848;       ///< event data
constexpr size_t LARGEST_EVENT = 4016; ///< as a message on the link

/** What a file has grown by since the call before. */
std::string grownBy(const std::string& path, std::streamoff& from) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(from);
    std::string piece{std::istreambuf_iterator<char>(file), {}};
    from += static_cast<std::streamoff>(piece.size());
    return piece;
}

} // namespace

void PrintTo(const LinkCounts& counts, std::ostream* stream) {
    *stream << "flag " << counts.flag << ", timeouts " << counts.timeouts << ", failed "
            << counts.failed << ", attempts " << counts.attempts;
}

LinkProcessTest::LinkProcessTest(bool narrow) : emp_(blade_), archiver_(narrow) {
    emp_.startQuietly();
}

Bytes LinkProcessTest::setRequest() const {
    Bytes body = {127, 0, 0, 1};
    put16(body, archiver_.port());
    put16(body, 0);
    return makeMmsg({.type = 3, .local = {27}}, body);
}

void LinkProcessTest::setArchiver() {
    archiver_.listen();
    emp_.msm.send(setRequest());
    const Bytes reply = emp_.msm.receive();
    EXPECT_EQ(reply.size(), 72U);
    EXPECT_EQ(headerOf(reply).opcode.request.type, 3U);
    EXPECT_EQ(headerOf(reply).return_code, 1U);
}

ArchiverEnd LinkProcessTest::connect(U32_t handle) {
    setArchiver();
    ArchiverEnd end = archiver_.accept();
    EXPECT_EQ(end.receive(196), firstStatusRequest(handle));
    return end;
}

ArchiverEnd LinkProcessTest::open(U32_t last, U32_t flag) {
    ArchiverEnd end = connect();
    end.send(statusAnswer(last, flag));
    end.waitUntilDelivered();
    // The pass that answers this request takes the status answer in, too, before the next request.
    counts();
    return end;
}

Bytes LinkProcessTest::firstStatusRequest(U32_t handle) {
    Bytes bytes = {0, 1, 0, 176, 0, 6, 0, 1, 0, 0, 0, 0};
    put32(bytes, handle);
    putText(bytes, "CHASSIS-7");
    putText(bytes, "BLADE-42");
    put32(bytes, 3);  // slot
    put32(bytes, 0);  // instance
    put32(bytes, 0);  // first id
    put16(bytes, 40); // length of the first entry's data
    put16(bytes, 0);
    const std::string random = "CHASSIS-7";
    bytes.insert(bytes.end(), random.begin(), random.end());
    bytes.resize(196);
    return bytes;
}

Bytes LinkProcessTest::answerHeader(U32_t bodyLength, U32_t type, U32_t returnCode, U32_t handle) {
    Bytes bytes;
    put16(bytes, 1);
    put16(bytes, bodyLength);
    put16(bytes, type);
    put16(bytes, 2); // response
    put32(bytes, returnCode);
    put32(bytes, handle);
    return bytes;
}

Bytes LinkProcessTest::statusAnswer(U32_t last, U32_t flag, U32_t handle) {
    Bytes bytes = answerHeader(176, 6, 1, handle);
    bytes.resize(184);
    put32(bytes, last);
    put32(bytes, flag);
    return bytes;
}

Bytes LinkProcessTest::inquiryAnswer(const LogName& log, U32_t id, U32_t returnCode, U32_t handle) {
    return answerHeader(152, 1, returnCode, handle) + eventBody({.log = log, .id = id, .data = {}});
}

Bytes LinkProcessTest::log(const Bytes& data, bool amongReplies) {
    emp_.msm.send(eventMessage(18, data));
    Bytes copy = emp_.msm.receive();
    while (amongReplies && copy.size() == 216) {
        copy = emp_.msm.receive();
    }
    EXPECT_EQ(copy.size(), 216 + data.size());
    const Bytes body(copy.begin() + 64, copy.end());
    return requestHeader(static_cast<U32_t>(body.size()), 1, 0) + body;
}

void LinkProcessTest::expectForwarding(ArchiverEnd& end, const Bytes& data) {
    const Bytes message = log(data);
    EXPECT_EQ(end.receive(message.size()), message);
}

Bytes LinkProcessTest::firstEntry() const {
    return requestHeader(192, 1, 0) + blade_.logged(8, 192);
}

Bytes LinkProcessTest::passes(size_t count) {
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) {
        bytes = std::move(bytes) + bareMessage(4);
    }
    return bytes;
}

LinkCounts LinkProcessTest::counts() {
    emp_.msm.send(bareMessage(5));
    const Bytes reply = emp_.msm.receive();
    EXPECT_EQ(reply.size(), 84U);
    return {get16(reply, 70), get32(reply, 72), get32(reply, 76), get32(reply, 80)};
}

Bytes LinkProcessTest::inquiry(U32_t type, const LogName& log, U32_t id, U32_t handle) {
    return makeMmsg({.type = 2, .local = {27}, .handle = handle}, inquiryBody(type, log, id));
}

Bytes LinkProcessTest::reply(U32_t returnCode, U32_t handle, U32_t endpoint) {
    Bytes message = emp_.msm.receive();
    const MMCH_t& header = headerOf(message);
    EXPECT_EQ(header.opcode.request.type, 2U);
    EXPECT_EQ(header.mmsg_cont, 0x40);
    EXPECT_EQ(header.dest_ep, endpoint);
    EXPECT_EQ(header.recipient_loc_bm[0], 1U << endpoint);
    EXPECT_EQ(header.return_code, returnCode);
    EXPECT_EQ(header.handle, handle);
    return Bytes(message.begin() + 64, message.end());
}

std::pair<Bytes, size_t> LinkProcessTest::fill(const std::function<void()>& between) {
    const std::string part = "Only send out partial [";
    std::streamoff read = 0;
    counts(); // whose reply comes behind the lines of all before it
    grownBy(blade_.file("emp.out"), read);
    Bytes all;
    for (size_t events = 0; events < 5000 && !HasFailure(); ++events) {
        if (between && events % 8 == 0) {
            between();
        }
        const Bytes message = log(Bytes(LARGEST, static_cast<U8_t>(events)), bool(between));
        all.insert(all.end(), message.begin(), message.end());
        // Nothing but the event is sent, so that this takes as few passes as can be.
        std::string lines;
        requireSoon(
            [&] {
                lines += grownBy(blade_.file("emp.out"), read);
                return lines.find("to send the new Event to SMI.") != std::string::npos;
            },
            "the lines of an event");
        const size_t found = lines.find(part);
        if (found != std::string::npos) {
            const int sent = std::stoi(lines.substr(found + part.size()));
            return {all, events * LARGEST_EVENT + static_cast<size_t>(std::max(sent, 0))};
        }
    }
    throw std::runtime_error("the connection takes everything");
}
