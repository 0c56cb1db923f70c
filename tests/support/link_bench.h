/**
 * @file
 * A bench for one part of the event manager at a time: its sockets and its clock are scripted, its
 * log file holds records that the test wrote byte by byte, and a bug-check is an exception that
 * tells what was reported. Build with link_bench.cpp and LINK_BENCH_WRAP.
 */
#ifndef LINK_BENCH_H
#define LINK_BENCH_H

#include "archiver/pending.h"
#include "emp_mesgs.h"
#include "mmsg.h"
#include "state/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<U8_t>;

constexpr int MSM_SOCKET = 700;      ///< nothing real: every call that names it is scripted
constexpr int ARCHIVER_SOCKET = 701; ///< the like
constexpr int NEW_SOCKET = 702;      ///< what socket() gives first

/** What a bug-check reported. */
struct BugCheck {
    std::string file;
    int line;
    std::string function;
    std::string message;
};

/** A call of send(). */
struct SendCall {
    int descriptor;
    int flags;
    Bytes bytes;    ///< all that was to be sent
    ssize_t result; ///< what the call took
};

/** A call of recv(), scripted: data, or a result without data. */
struct RecvStep {
    Bytes data;
    ssize_t result = 0; ///< counts when data is empty
    int error = 0;      ///< errno afterwards, unless 0
};

/** A call of recv(). */
struct RecvCall {
    int descriptor;
    size_t length;
    int flags;
};

/** A call of select(): what it was asked about. */
struct SelectCall {
    int count;
    std::vector<int> read;
    std::vector<int> write;
    struct timeval timeout;
};

/** The scripts and the record of one test; there is one bench. */
struct Bench {
    std::deque<ssize_t> archiverTakes; ///< results of sends to the archiver; then all is taken
    std::deque<ssize_t> msmTakes;      ///< results of sends to the message switch
    std::vector<SendCall> sends;
    std::deque<RecvStep> receives; ///< in order, whatever the descriptor
    std::vector<RecvCall> recvCalls;
    std::vector<int> readable; ///< what select finds
    std::vector<int> writable;
    int selectResult = 1;
    std::vector<SelectCall> selects;
    int yields = 0;
    S64_t yieldTakes = 0;     ///< nanoseconds of the monotonic clock
    S64_t monotonicClock = 0; ///< nanoseconds; stands still but for that
    std::deque<int> sockets;  ///< results of socket(); then nextSocket and up
    int nextSocket = NEW_SOCKET;
    int connectResult = -1;
    int connectError = EINPROGRESS; ///< errno after connect(), whatever its result
    std::vector<Bytes> connects;    ///< addresses, 16 bytes each
    int socketError = 0;            ///< SO_ERROR
    std::vector<int> closed;
    int nonBlocking = -1;  ///< descriptor that was made non-blocking
    int failSeek = 0;      ///< the n-th read from the log file cannot be sought
    int failRead = 0;      ///< cut the n-th read from the log file
    ssize_t shortRead = 0; ///< to this result
    int reads = 0;
    bool failMalloc = false;
    std::vector<Bytes> printedMmsgs;    ///< messages given to empMmsgPrint
    std::vector<Bytes> printedMessages; ///< messages given to empEvArchiverMsgPrint
};
extern Bench bench;

// --- Literal bytes -------------------------------------------------------------------------------

void put8(Bytes& to, unsigned value);
void put16(Bytes& to, unsigned value);
void put32(Bytes& to, U32_t value);
void putText(Bytes& to, const std::string& text, size_t size); ///< padded with zeros
void putZeros(Bytes& to, size_t count);
Bytes operator+(Bytes left, const Bytes& right);

/** The bytes from offset @p from to before @p to. */
Bytes slice(const Bytes& bytes, size_t from, size_t to);

/** @p count bytes that count up from @p first. */
Bytes counting(size_t count, unsigned first = 1);

/** What stands in every test record, beside its id and its data. */
constexpr char ENCLOSURE[] = "ENC-1";
constexpr char BLADE[] = "BLADE-1";
constexpr U32_t SLOT = 3;
constexpr U32_t INSTANCE = 5;

/** The 152-byte event header of event @p id with @p length data bytes. */
Bytes eventHeader(U32_t id, size_t length);

/** A stored record: 8 bytes, event header, data. */
Bytes record(U32_t id, const Bytes& data);

/** An event message to the archiver: 16 bytes, event header, data. */
Bytes archiverEvent(U32_t id, const Bytes& data);

/** Header and body of a message from the archiver. */
Bytes archiverMessage(unsigned type, const Bytes& body, U32_t returnCode = 1, U32_t handle = 0,
                      unsigned flag = 2, unsigned version = 1);

/** Body of a status response: 176 bytes. */
Bytes statusBody(U32_t last, U32_t controlFlag);

/** Body of an inquiry: 144 bytes. */
Bytes inquiryBody(U32_t type, U32_t id, const std::string& enclosure = ENCLOSURE,
                  const std::string& blade = BLADE, U32_t slot = SLOT, U32_t instance = INSTANCE);

/** A local message of protocol 8 to the event manager. */
Bytes localMessage(unsigned type, const Bytes& body, unsigned requestor = 29, unsigned mmsgCont = 0,
                   U32_t handle = 0x12345678);

/** Header of the reply to it: 64 bytes. @param word word of the eight bitmap words to set @p bit
 * in, counted over both bitmaps; -1: none */
Bytes replyHeader(unsigned type, unsigned length, U32_t returnCode, unsigned requestor = 29,
                  U32_t handle = 0x12345678, int word = 0, U32_t bit = 0x20000000);

/** Hex dump of bytes, as empHexDump prints it. */
std::string hexDumpOf(const Bytes& bytes);

// --- The bench -----------------------------------------------------------------------------------

/** Empty log, no archiver; the identity is that of the records above. */
class LinkTest : public testing::Test {
  protected:
    LinkTest();
    ~LinkTest() override;

    /** Writes a record into the log file and the index. */
    void store(U32_t id, U32_t offset, const Bytes& data = {});

    /** Fills the log with records @p first to @p next - 1, 200 bytes each from offset 0, whose data
     * is dataOf(id). */
    void storeRange(U32_t first, U32_t next);
    static Bytes dataOf(U32_t id);

    /** Sets oldest and next id without records. */
    static void setRange(U32_t first, U32_t next);

    /** A link in a state, flag set. */
    static void setLink(EMP_ARCHIVER_SOCKET_STATE_e state);

    /** Where the log file stands. */
    static S64_t filePosition();

    /** What @p step prints, without time stamps. */
    static std::string linesOf(const std::function<void()>& step);

    /** The bug-check that @p step ends in; what it printed is in output. */
    BugCheck bugCheckOf(const std::function<void()>& step);

    /** The message that a handler takes, in memory that ends where 4064 bytes end. */
    static MMSG_t* received(const Bytes& bytes);
    static const EmpEvArchiverMsg_t* receivedFromArchiver(const Bytes& bytes);

    /** Bytes that went to a socket, in order. */
    static std::vector<Bytes> sentTo(int descriptor);

    std::string output;
};

/** Records of a list from its head; checks every back link on the way. */
std::vector<EvMsgRecordEntry_t*> listed(EvMsgRecordList_t* list);

#endif
