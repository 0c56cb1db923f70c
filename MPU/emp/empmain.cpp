/*
 * The event manager of a blade: `emp <key>`, the key being that of the blade's shared parameter
 * block. This file holds the start-up sequence and the loop; ARCHITECTURE.md shows the rest of the
 * house.
 */
#include "diag/debug_line.h"
#include "loop/wait.h"
#include "mmsg/message.h"
#include "mpu_gbl.h"
#include "serve/batch.h"
#include "serve/pass.h"
#include "startup.h"
#include "startup/alternate_replay.h"
#include "startup/event_log_file.h"
#include "startup/init.h"
#include "state/control.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

enum EXIT_STATUS_e { NO_ARGUMENT = 1, BAD_KEY = 2, NO_PARAMETERS = 3 };

constexpr int LARGEST_BAD_KEY = 99;

/** Descriptor 0 means "no archiver socket", so no socket may ever get it: 0 to 2 are always open.
 */
void openStandardDescriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd != -1 && fd <= 2);
    if (fd > 2) {
        close(fd);
    }
}

/** A backlog is paced by waits of 100 us, which the kernel would else round up by half as much. */
void askForExactWaits() {
    constexpr unsigned long oneNanosecond = 1;
    prctl(PR_SET_TIMERSLACK, oneNanosecond);
}

const char* programName(const char* path) {
    if (path == nullptr) {
        return "";
    }
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

/** The key as a signed 32-bit number; beyond its range the nearest one, on every host. */
int parseKey(const char* text) {
    long value = strtol(text, nullptr, 0);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

/** Tells the Startup process that the event manager is ready. */
void notifyInitComplete() {
    auto* mmch = reinterpret_cast<MMCH_t*>(eventEntryWorkSpace);
    empBuildMmch(mmch, MMSG_E_PROTOCOL_STARTUP, SUS_E_MMSG_NOTIFY_INIT_COMPLETE);
    mmch->mmsg_length = MMCH_SIZE;
    mmch->recipient_loc_bm[0] = empEndpointBit(MMSG_E_EPID_STARTUPMP);
    empSendToMsm(mmch, MMCH_SIZE, EMP_HERE_IN("main"), EMP_E_SHORT_SEND_SHOWS_INTENDED);
}

/** Everything before the loop, once the parameter block is attached. */
void startUp() {
    empInit();
    empDebugLine("main(): Finish initializing the Event Manager internal data structures.\n");
    empProcessEventLogFile();
    empDebugLine("main(): Finish processing of Event Log File.\n");
    notifyInitComplete();
    empDebugLine(
        "main(): EMP finishes initialization and sends the message to the Startup process.\n");
    empProcessAlternateEventLogFiles();
    empDebugLine(
        "main(): Finish processing of Alternate Event Log Files. Wait for Event Messages.\n");
    empInitSelectSets();
    empControl.selectTimeout = {1, 0};
}

} // namespace

int main(int argc, char* argv[]) {
    // A send to a peer that is gone fails like any other call, and takes the road of its site.
    signal(SIGPIPE, SIG_IGN);
    openStandardDescriptors();
    empBufferOutput();
    askForExactWaits();

    ProgName = programName(argv[0]);
    if (argc < 2) {
        return NO_ARGUMENT;
    }
    shmKey = parseKey(argv[1]);
    if (shmKey <= LARGEST_BAD_KEY) {
        return BAD_KEY;
    }
    oMpuParams = MPU_getMpuParams(shmKey);
    if (oMpuParams == nullptr) {
        fprintf(stderr, "%s: Unable to share parameters.\n", ProgName);
        fprintf(stderr, "%s: Giving up.\n", ProgName);
        return NO_PARAMETERS;
    }
    startUp();
    for (;;) {
        if (!empServeBatch()) {
            empServePass();
        }
    }
}
