/**
 * @file
 * A parameter block made by a test, byte by byte.
 */
#ifndef EVCTL_TEST_PARAMETER_BLOCK_H
#define EVCTL_TEST_PARAMETER_BLOCK_H

#include "ipc_key.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace support {

/** A block of version 15, otherwise zero, that names the switch's directory. */
class ParameterBlock {
  public:
    ParameterBlock(const IpcKey& key, const std::string& mmsgDirectory) {
        int id = shmget(key.value(), 744, IPC_CREAT | IPC_EXCL | 0600);
        void* address = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            throw std::runtime_error("no shared memory for the parameter block");
        }
        bytes_ = static_cast<unsigned char*>(address);
        memset(bytes_, 0, 744);
        bytes_[3] = 15;
        bytes_[11] = 2; // slotId
        memcpy(bytes_ + 312, mmsgDirectory.data(), mmsgDirectory.size());
    }
    ~ParameterBlock() { shmdt(bytes_); }
    ParameterBlock(const ParameterBlock&) = delete;
    ParameterBlock& operator=(const ParameterBlock&) = delete;

    unsigned char* bytes() { return bytes_; }

  private:
    unsigned char* bytes_;
};

} // namespace support

#endif
