#include "failing_send.h"

#include <algorithm>

FailingCall failingSend;
size_t sendLimit;

extern "C" ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    if (failingSend.fails()) {
        return -1;
    }
    return __real_send(fd, data, sendLimit > 0 ? std::min(size, sendLimit) : size, flags);
}
