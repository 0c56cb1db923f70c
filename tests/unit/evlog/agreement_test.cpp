/**
 * The reader's verdict against the event manager's own scan, on sound, damaged and random files:
 * the same outcome, the same positions, the same index.
 */
#include "log_damage.h"

#include "state/control.h"
#include "store/scan.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using test::closed;
using test::damage;
using test::LogImage;
using test::unwrapped;
using test::wrapped;

namespace {

constexpr char ENCLOSURE[] = "CHASSIS-1";
constexpr U32_t SLOT = 2;

/** What the event manager has after its scan. */
struct Scanned {
    EMP_SCAN_OUTCOME_e outcome;
    U32_t write;
    U32_t start;
    U32_t startId;
    U32_t nextId;
    U32_t instance;
    U32_t inFile;
    U32_t added;
    U32_t wrapOver;
    U32_t gap;
    EmpEvDatabase_t index[EMP_INDEX_ENTRIES];
};

/** In the child: scans, and writes the outcome to @p to. Does not come back from a bug-check. */
[[noreturn]] void scan(const std::string& directory, int to) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    static MPU_PARAMS_t params;
    memcpy(params.nvramDirectory, directory.data(), directory.size());
    oMpuParams = &params;
    memcpy(empControl.empEnclosureId, ENCLOSURE, sizeof(ENCLOSURE));
    empControl.empSlotId = SLOT;
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    static Scanned scanned;
    scanned.outcome = empScanEventLogFile();
    scanned.write = empControl.empWrite;
    scanned.start = empControl.empStart;
    scanned.startId = empControl.empStartSequenceId;
    scanned.nextId = empControl.empSequenceId;
    scanned.instance = empControl.empInstanceNumber;
    scanned.inFile = empControl.empEventInLogFile;
    scanned.added = empControl.empEventAddToLogFile;
    scanned.wrapOver = empControl.empWrapOver;
    scanned.gap = empControl.foundGap;
    memcpy(scanned.index, eventEntryDatabase, sizeof(scanned.index));
    ssize_t written = write(to, &scanned, sizeof(scanned));
    _exit(written == static_cast<ssize_t>(sizeof(scanned)) ? 0 : 9);
}

/** Runs the event manager's scan on these bytes in a child. @return whether it came back from it */
bool scanInChild(const std::string& bytes, Scanned* scanned) {
    support::TempDirectory directory;
    support::writeFile(directory.file("kelta_eventlog"), bytes);
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        scan(directory.path(), ends[1]);
    }
    close(ends[1]);
    size_t total = 0;
    ssize_t count = 0;
    while ((count = read(ends[0], reinterpret_cast<char*>(scanned) + total,
                         sizeof(*scanned) - total)) > 0) {
        total += static_cast<size_t>(count);
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    EXPECT_TRUE(aborted || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
    return total == sizeof(*scanned);
}

/** The index that follows from what the reader says was taken. */
std::vector<U32_t> indexOf(const test::Walked& walked) {
    std::vector<U32_t> index(EMP_INDEX_ENTRIES, 0);
    if (walked.state.end == EVLOG_E_END_CLEARED || walked.state.verdict == EVLOG_E_VERDICT_FRESH) {
        index[0] = 1U << 24;
        return index;
    }
    for (const EvlogRecord_t& record : walked.records) {
        if (record.taken) {
            index[record.header->evSequenceId % EMP_INDEX_ENTRIES] = 1U << 24 | record.offset;
        }
    }
    return index;
}

void expectSameIndex(const test::Walked& walked, const Scanned& scanned) {
    std::vector<U32_t> expected = indexOf(walked);
    for (U32_t slot = 0; slot < EMP_INDEX_ENTRIES; slot++) {
        U32_t word = U32_t{scanned.index[slot].evFlag} << 24 | scanned.index[slot].evOffset;
        ASSERT_EQ(word, expected[slot]) << slot;
    }
}

void expectAgreement(const std::string& bytes, const std::string& what) {
    SCOPED_TRACE(what);
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = SLOT};
    memcpy(identity.enclosureId, ENCLOSURE, sizeof(ENCLOSURE));
    test::Walked walked = test::walk(bytes, &identity);
    const EvlogState_t& state = walked.state;
    static Scanned scanned;
    bool cameBack = scanInChild(bytes, &scanned);
    ASSERT_EQ(cameBack, !evlogIsFatal(state.verdict)) << evlogVerdictText(state.verdict);
    if (!cameBack) {
        return;
    }
    EXPECT_EQ(scanned.outcome == EMP_E_SCAN_REBUILT, state.verdict == EVLOG_E_VERDICT_REBUILT);
    EXPECT_EQ(scanned.write, state.empWrite);
    EXPECT_EQ(scanned.start, state.empStart);
    EXPECT_EQ(scanned.startId, state.empStartSequenceId);
    EXPECT_EQ(scanned.nextId, state.empSequenceId);
    EXPECT_EQ(scanned.instance, state.empInstanceNumber);
    EXPECT_EQ(scanned.inFile, state.empEventInLogFile);
    EXPECT_EQ(scanned.added, state.empEventAddToLogFile);
    EXPECT_EQ(scanned.wrapOver, state.wrapOver ? 2U : 1U);
    EXPECT_EQ(scanned.gap, state.foundGap ? 1U : 0U);
    expectSameIndex(walked, scanned);
}

} // namespace

TEST(Agreement, OnSoundFiles) {
    expectAgreement("", "empty");
    expectAgreement(std::string(test::RING, '\0'), "zeros");
    expectAgreement(closed({}).bytes, "only a dummy");
    LogImage whole = unwrapped();
    whole.zerosTo();
    expectAgreement(whole.bytes, "unwrapped");
    expectAgreement(wrapped(0).bytes, "wrapped without gap");
    expectAgreement(wrapped(77).bytes, "wrapped with gap");
    LogImage full;
    full.events(3, 8000);
    expectAgreement(full.bytes, "exactly full");
}

TEST(Agreement, OnFilesThatEndOddly) {
    LogImage log;
    log.events(0, 7999);
    LogImage little = log;
    little.event(7999, 0);
    little.zerosTo();
    expectAgreement(little.bytes, "40 bytes left");
    LogImage crossing = log;
    crossing.event(7999, 100);
    expectAgreement(crossing.bytes, "record across the end");
    LogImage behind = log;
    behind.event(7999, 0);
    behind.event(8000);
    expectAgreement(behind.bytes, "record behind the last header offset");
    LogImage atEnd;
    atEnd.event(0);
    atEnd.zerosTo();
    atEnd.event(5);
    expectAgreement(atEnd.bytes, "header at the nominal end");
    LogImage surplus = unwrapped();
    surplus.event(13);
    expectAgreement(surplus.bytes, "surplus");
    LogImage longBody;
    longBody.firstEntry();
    longBody.raw(test::record({.id = 1, .source = 5, .eventId = 1}, std::string(60'000, 'b')));
    expectAgreement(longBody.bytes, "length limit waived");
}

TEST(Agreement, OnAForeignFile) {
    LogImage log;
    log.raw(test::record({.slot = 3, .instance = 0xFFFFFFFF, .id = 9}, "x"));
    log.event(10);
    expectAgreement(closed(log).bytes, "other slot");
    LogImage enclosure;
    enclosure.raw(test::record({.enclosure = "CHASSIS-10", .id = 9}, "x"));
    expectAgreement(closed(enclosure).bytes, "other enclosure");
}

TEST(Agreement, OnEachRecordDamaged) {
    for (size_t damaged = 0; damaged < 13; damaged++) {
        for (size_t field : {0, 2, 20, 154, 170}) {
            LogImage log = unwrapped();
            log.damage(damaged * 200 + field);
            expectAgreement(log.bytes, "unwrapped " + std::to_string(damaged * 200 + field));
        }
        LogImage ring = wrapped(77);
        ring.damage(damaged * 200 + 100);
        expectAgreement(ring.bytes, "wrapped " + std::to_string(damaged * 200 + 100));
    }
}

TEST(Agreement, OnRandomDamage) {
    std::minstd_rand random(20061121);
    for (int round = 0; round < 150; round++) {
        std::string bytes =
            (round % 3 == 0 ? unwrapped() : wrapped(round % 3 == 1 ? 0 : 300)).bytes;
        for (unsigned acts = 1 + static_cast<unsigned>(random() % 3); acts > 0; acts--) {
            damage(bytes, random);
            if (bytes.size() < 400) {
                break;
            }
        }
        expectAgreement(bytes, "round " + std::to_string(round));
    }
}
