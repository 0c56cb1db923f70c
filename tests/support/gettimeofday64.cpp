// On a 32-bit host the product asks the C library's 64-bit clock: a test that wraps gettimeofday is
// asked instead. Its seconds are taken as unsigned, so that its clock may stand behind 2038.
#include <cstdint>
#include <sys/time.h>

namespace {

/** What a 32-bit host calls struct __timeval64. */
struct Timeval64 {
    int64_t tv_sec;
    int64_t tv_usec;
};

} // namespace

extern "C" int __wrap_gettimeofday(struct timeval* now, void* zone);

extern "C" int __wrap___gettimeofday64(Timeval64* now, void* zone) {
    struct timeval narrow;
    int result = __wrap_gettimeofday(&narrow, zone);
    now->tv_sec = static_cast<uint32_t>(narrow.tv_sec);
    now->tv_usec = narrow.tv_usec;
    return result;
}
