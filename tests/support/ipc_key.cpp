#include "ipc_key.h"

#include <random>

#include <sys/ipc.h>
#include <sys/shm.h>

namespace support {

IpcKey::IpcKey() : value_(0) {
    std::random_device source;
    // Positive, so that it reads the same in every number base and type; 0 is IPC_PRIVATE.
    std::uniform_int_distribution<int> keys(0x01000000, 0x7FFFFFFF);
    do {
        value_ = keys(source);
    } while (exists());
}

IpcKey::~IpcKey() {
    int id = shmget(value_, 0, 0);
    if (id >= 0) {
        shmctl(id, IPC_RMID, nullptr);
    }
}

bool IpcKey::exists() const {
    return shmget(value_, 0, 0) >= 0;
}

} // namespace support
