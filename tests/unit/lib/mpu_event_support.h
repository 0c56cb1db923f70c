/**
 * @file
 * A process that logs events; the test plays the message switch and the event manager behind it.
 */
#ifndef MPU_EVENT_SUPPORT_H
#define MPU_EVENT_SUPPORT_H

#include "mpu/event.h"

#include "failing_send.h"
#include "lib_test_support.h"
#include "mmsg_client.h"
#include "mpu_params.h"
#include "worked_example.h"

#include "emp_mesgs.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <sys/shm.h>

using mpu::pMpuParams;
using support::Bytes;
using support::MmsgClient;
using support::MmsgListener;

inline constexpr int PATIENT = 30'000; ///< for answers that come
inline constexpr int SHORT = 30;       ///< for answers that do not

inline const char FAN[] = "fan 3 stopped";

inline MPU_Event_t eventOf(const void* data, size_t length) {
    return {MPU_E_EVENT_WARNING, MPU_E_EVENT_ENVIRONMENTAL, 1, 7, data, length};
}
inline const MPU_Event_t fanEvent = eventOf(FAN, 13);

class MpuEvent : public testing::Test {
  protected:
    MpuEvent() {
        failingSend = {};
        sendLimit = 0;
        pMpuParams = nullptr;
        int id = shmget(key, MPU_PARAMS_SIZE, IPC_CREAT | IPC_EXCL | 0600);
        params = static_cast<MPU_PARAMS_t*>(shmat(id, nullptr, 0));
        params->version = MPU_PARAMS_VERSION;
        params->slotId = 1;
        strcpy(reinterpret_cast<char*>(params->chassisSN), "ENC-0001");
        strcpy(reinterpret_cast<char*>(params->serialStr), "BLADE-A");
        strcpy(params->mmsgDirectory, directory.path().c_str());
        strcpy(params->nvramDirectory, directory.path().c_str());
    }
    ~MpuEvent() override {
        MPU_closeEventLog(log);
        shmdt(params);
    }

    void listen() { listener.emplace(directory / "environ"); }
    void open(int waitMs = PATIENT) {
        log = MPU_openEventLog(key, 26, waitMs);
        ASSERT_NE(log, nullptr);
    }
    void listenAndOpen(int waitMs = PATIENT) {
        listen();
        open(waitMs);
        switchEnd.emplace(listener->accept());
    }
    int logFan() { return MPU_logEvent(log, &fanEvent); }
    int closeLog() {
        int status = MPU_closeEventLog(log);
        log = nullptr;
        return status;
    }

    /** The answer to a status request. */
    static Bytes answerTo(const Bytes& request) {
        support::MmsgFields fields{
            .type = 5, .requestor = 27, .cont = 0x40, .local = {26}, .returnCode = 1};
        fields.handle = support::headerOf(request).handle;
        return support::makeMmsg(fields, Bytes(20));
    }

    /** Reads up to the next status request and answers it. @return the messages in front of it */
    std::vector<Bytes> answerStatus() {
        std::vector<Bytes> before;
        for (;;) {
            Bytes message = switchEnd->receive();
            if (U32_t{support::headerOf(message).opcode.request.type} == 5) {
                switchEnd->send(answerTo(message));
                return before;
            }
            before.push_back(message);
        }
    }

    /** Alternate event log files in the order of their data. */
    std::vector<std::string> files() const {
        std::vector<std::string> contents;
        if (std::filesystem::exists(directory / "aelfiles")) {
            for (const auto& entry : std::filesystem::directory_iterator(directory / "aelfiles")) {
                contents.push_back(readFile(entry.path().string()));
            }
        }
        std::ranges::sort(contents, {}, [](const std::string& file) { return file.substr(160); });
        return contents;
    }

    TempDirectory directory;
    PrivateKey key;
    MPU_PARAMS_t* params;
    std::optional<MmsgListener> listener;
    std::optional<MmsgClient> switchEnd;
    MPU_EventLog_t* log = nullptr;
};

#endif
