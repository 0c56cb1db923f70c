/**
 * @file
 * The event manager's state for a test of its parts: a parameter block, a message switch at the
 * other end of a socket pair, a directory for its files. Include in one file of the test.
 */
#ifndef TEST_EMP_FIXTURE_H
#define TEST_EMP_FIXTURE_H

#include "mmsg_client.h"
#include "mpu_gbl.h"
#include "state/control.h"
#include "temp_directory.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <sys/socket.h>

namespace support {

/** Sets a text field of the parameter block; a text as long as the field has no NUL. */
template <typename Field>
void setText(Field& field, const std::string& text) {
    memset(field, 0, sizeof(field));
    memcpy(field, text.data(), std::min(text.size(), sizeof(field)));
}

/** @p count bytes of one value. */
inline Bytes repeated(size_t count, U8_t value) {
    return Bytes(count, value);
}

/** All pieces one behind the other. */
inline Bytes joined(std::initializer_list<Bytes> pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

/** A text in a field of @p size bytes, zeros behind it. */
inline Bytes textField(const std::string& text, size_t size = EMP_ID_TEXT_SIZE) {
    Bytes field(size);
    std::copy(text.begin(), text.end(), field.begin());
    return field;
}

/** What @p call prints on standard output. */
inline std::string outputOf(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

/** The bytes from @p from on, @p count of them, as a vector that prints in failures. */
inline Bytes bytesAt(const void* from, size_t count) {
    const auto* bytes = static_cast<const U8_t*>(from);
    return Bytes(bytes, bytes + count);
}

class EmpTest : public testing::Test {
  protected:
    EmpTest() : msm_(connectPair()) {
        setText(params_.chassisSN, "CHASSIS-7");
        setText(params_.serialStr, "BLADE-42");
        setText(params_.mmsgDirectory, directory_.path());
        setText(params_.nvramDirectory, directory_.path());
        params_.version = MPU_PARAMS_VERSION;
        params_.slotId = 3;
        oMpuParams = &params_;
        empControl.empDebug = 1;
        empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
        setText(empControl.empEnclosureId, "CHASSIS-7");
        setText(empControl.empBladeId, "BLADE-42");
        empControl.empSlotId = 3;
    }

    /** Puts a message into the receive buffer, zeros behind it. */
    static MMSG_t* place(const Bytes& message) {
        memset(empControl.empInMsg, 0, sizeof(empControl.empInMsg));
        memcpy(empControl.empInMsg, message.data(), message.size());
        return reinterpret_cast<MMSG_t*>(empControl.empInMsg);
    }

    /** Whether the message switch has got anything that it has not read yet. */
    bool msmHasData() const {
        U8_t byte = 0;
        return recv(msm_.descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }

    TempDirectory directory_;
    MPU_PARAMS_t params_ = {};
    MmsgClient msm_; ///< the message switch's end

  private:
    static MmsgClient connectPair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
            abort();
        }
        empControl.socketFdMSM = ends[0];
        return MmsgClient(ends[1]);
    }
};

} // namespace support

#endif
