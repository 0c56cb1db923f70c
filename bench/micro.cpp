// What the steps of an event and of a start cost by themselves, in one process. Lines go to
// /dev/null, figures to standard error.
#include "altEventLog.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "requests/event_log.h"
#include "state/control.h"
#include "store/append.h"
#include "store/find.h"
#include "store/log_file.h"
#include "store/scan.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <unistd.h>

namespace {

constexpr U16_t DATA_SIZE = 100;

MPU_PARAMS_t params;

std::string logPath() {
    return std::string(params.nvramDirectory) + EMP_LOG_FILE_NAME;
}

/** A process that has just begun, on the log file that stands there. */
void scanLog() {
    if (empControl.eventLogFileFd > 2) {
        close(empControl.eventLogFileFd);
    }
    memset(static_cast<void*>(&empControl), 0, sizeof(empControl));
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    empControl.empDebug = 1;
    empScanEventLogFile();
}

void append(U16_t length) {
    alignas(8) static U8_t message[MMSG_MAX_LENGTH];
    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(message + MMCH_SIZE);
    event->evLogHdr.evStructLength = length;
    event->evLogHdr.evInstanceNumber = empControl.empInstanceNumber;
    event->evLogHdr.evSequenceId = empTakeSequenceId();
    empSaveEventLogMsgToLogFile(reinterpret_cast<MMSG_t*>(message));
}

/** A fresh log. */
void freshLog() {
    unlink(logPath().c_str());
    scanLog();
}

/** A log that has gone round, of events of this length. */
void fullLog(U16_t length) {
    freshLog();
    for (U32_t bytes = 0; bytes < 2 * EMP_LOG_FILE_SIZE; bytes += EMP_RECORD_SIZE + U32_t{length}) {
        append(length);
    }
}

void writeLog(const std::string& content) {
    std::ofstream(logPath(), std::ios::binary | std::ios::trunc) << content;
}

std::string readLog() {
    std::ifstream file(logPath(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string randomBytes() {
    std::mt19937 random(1); // the same in every run
    std::string bytes(EMP_LOG_FILE_SIZE, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

/** Every 12 bytes the header of an event of the largest legal length, none with its checksum. */
std::string plausibleHeaders() {
    std::string bytes(EMP_LOG_FILE_SIZE, '\0');
    for (size_t i = 0; i + EMP_RECORD_SIZE < bytes.size(); i += 12) {
        bytes.replace(i, 3, "\xB6\x8F\x01", 3);
        bytes.replace(i + 8, 2, "\x0F\x08", 2); // as evStructLength of the header 144 bytes earlier
    }
    return bytes;
}

void debugLine(benchmark::State& state) {
    for (auto _ : state) {
        empDebugLine("evSequenceId             = [%d]\n", 1234567);
    }
}
BENCHMARK(debugLine);

void hexDump(benchmark::State& state) {
    U8_t bytes[64] = {1, 2, 3};
    for (auto _ : state) {
        empHexDump(bytes, sizeof(bytes));
    }
}
BENCHMARK(hexDump);

void checksum(benchmark::State& state) {
    std::string bytes = randomBytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(computeCRC32(bytes.data(), static_cast<U32_t>(state.range(0))));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(checksum)->Arg(152 + DATA_SIZE)->Arg(4000)->Arg(1'600'000);

void appendInAFreshLog(benchmark::State& state) {
    freshLog();
    for (auto _ : state) {
        append(DATA_SIZE);
        if (empControl.empWrite > EMP_LOG_FILE_SIZE - 2 * EMP_WORK_SPACE_SIZE) {
            state.PauseTiming();
            freshLog();
            state.ResumeTiming();
        }
    }
}
BENCHMARK(appendInAFreshLog);

void appendInAFullLog(benchmark::State& state) {
    auto length = static_cast<U16_t>(state.range(0));
    fullLog(length);
    for (auto _ : state) {
        append(length);
    }
}
BENCHMARK(appendInAFullLog)->Arg(0)->Arg(DATA_SIZE)->Arg(EMP_MAX_STRUCT);

void appendOfChangingLength(benchmark::State& state) {
    fullLog(DATA_SIZE);
    std::minstd_rand random(1);
    for (auto _ : state) {
        append(static_cast<U16_t>(random() % 1001));
    }
}
BENCHMARK(appendOfChangingLength);

/** Only the append that does not fit before the end of the file is timed. */
void appendRoundTheEnd(benchmark::State& state) {
    fullLog(EMP_MAX_STRUCT);
    for (auto _ : state) {
        for (U32_t before = 0;; before = empControl.empWrite) {
            before = empControl.empWrite;
            auto begun = std::chrono::steady_clock::now();
            append(EMP_MAX_STRUCT);
            std::chrono::duration<double> span = std::chrono::steady_clock::now() - begun;
            if (empControl.empWrite < before) {
                state.SetIterationTime(span.count());
                break;
            }
        }
    }
}
BENCHMARK(appendRoundTheEnd)->UseManualTime()->Iterations(20);

void searchWithoutARecord(benchmark::State& state) {
    writeLog(randomBytes());
    empLogTake(open(logPath().c_str(), O_RDWR));
    for (auto _ : state) {
        U32_t gap = 0;
        benchmark::DoNotOptimize(empFindValidEventEntry(0, &gap));
    }
}
BENCHMARK(searchWithoutARecord)->Unit(benchmark::kMicrosecond);

void scan(benchmark::State& state, const std::string& content) {
    for (auto _ : state) {
        state.PauseTiming();
        writeLog(content);
        state.ResumeTiming();
        scanLog();
    }
}

void scanOfAFreshLog(benchmark::State& state) {
    freshLog();
    scan(state, readLog());
}
BENCHMARK(scanOfAFreshLog)->Unit(benchmark::kMicrosecond);

void scanOfAFullLog(benchmark::State& state) {
    fullLog(DATA_SIZE);
    scan(state, readLog());
}
BENCHMARK(scanOfAFullLog)->Unit(benchmark::kMicrosecond);

void scanOfRandomBytes(benchmark::State& state) {
    scan(state, randomBytes());
}
BENCHMARK(scanOfRandomBytes)->Unit(benchmark::kMicrosecond);

void scanOfPlausibleHeaders(benchmark::State& state) {
    scan(state, plausibleHeaders());
}
BENCHMARK(scanOfPlausibleHeaders)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) ||
        freopen("/dev/null", "w", stdout) == nullptr) {
        return 2;
    }
    empBufferOutput();
    char directory[] = "/tmp/benchXXXXXX";
    if (mkdtemp(directory) == nullptr) {
        perror("bench_micro");
        return 2;
    }
    memcpy(params.nvramDirectory, directory, sizeof(directory));
    oMpuParams = &params;
    empControl.empDebug = 1;
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::filesystem::remove_all(directory);
}
