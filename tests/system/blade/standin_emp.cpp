// Stands in for the event manager: standin_emp <key>. What it does comes from the environment
// variable STANDIN: "serve" (default) sends the notice and answers every message to the Startup
// process with its own header; "mute" connects and says nothing; "exit" ends with status 3 before
// the notice; "abort" dies of SIGABRT at the first message after it; "stubborn" ignores SIGTERM;
// "idle" does nothing, whatever its arguments; "chatty" prints 1000 numbered lines first.

#include "mmsg_client.h"
#include "mpu_gbl.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

using namespace support;

static void describe(int key, const MPU_PARAMS_t& block) {
    printf("key %d slot %u serial %.64s chassis %.64s flags 0x%x\n", key, U32_t{block.slotId},
           reinterpret_cast<const char*>(block.serialStr),
           reinterpret_cast<const char*>(block.chassisSN), U32_t{block.flags});
    char byte = 0;
    printf("stdin %s\n", read(STDIN_FILENO, &byte, 1) == 0 ? "empty" : "not empty");
    fflush(stdout);
}

[[noreturn]] static void waitForEver() {
    for (;;) {
        pause();
    }
}

[[noreturn]] static void serve(MmsgClient& msm, const std::string& mode) {
    msm.send(
        makeMmsg({.protocol = 12, .type = 1, .requestor = 27, .local = {MMSG_E_EPID_STARTUPMP}}));
    for (;;) {
        Bytes message = msm.receive();
        if (mode == "abort") {
            abort();
        }
        msm.send(makeMmsg({.requestor = 27,
                           .cont = 0x40,
                           .local = {MMSG_E_EPID_SNMPMP},
                           .other = {MMSG_E_EPID_SNMPMP},
                           .handle = headerOf(message).handle}));
    }
}

int main(int argc, char** argv) {
    const char* environment = getenv("STANDIN");
    std::string mode = environment != nullptr ? environment : "serve";
    if (mode == "stubborn" || mode == "idle") {
        signal(SIGTERM, mode == "idle" ? SIG_DFL : SIG_IGN);
        puts("up");
        fflush(stdout);
        waitForEver();
    }
    int key = argc == 2 ? atoi(argv[1]) : 0;
    const MPU_PARAMS_t* block = MPU_getMpuParams(key);
    if (block == nullptr) {
        return 2;
    }
    if (mode == "chatty") {
        for (int i = 0; i < 1000; ++i) {
            printf("line %d\n", i);
        }
        fflush(stdout);
    } else {
        describe(key, *block);
    }
    if (mode == "exit") {
        return 3;
    }
    MmsgClient msm(std::string(block->mmsgDirectory) + "/eventlog");
    if (mode == "mute") {
        waitForEver();
    }
    serve(msm, mode);
}
