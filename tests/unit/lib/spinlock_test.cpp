#include "lib_test_support.h"
#include "osdep.h"

#include <climits>
#include <sys/mman.h>

namespace {

int yields;
MPU_SPINLOCK_t* releasedAfterThreeYields;

} // namespace

extern "C" int __real_sched_yield();
extern "C" int __wrap_sched_yield() {
    yields++;
    if (releasedAfterThreeYields != nullptr && yields == 3) {
        mpuSpinLock_Release(releasedAfterThreeYields);
    }
    return __real_sched_yield();
}

TEST(SpinLock, FreeLockIsTakenAtTheFirstAttempt) {
    MPU_SPINLOCK_t lock = {1};
    EXPECT_EQ(mpuSpinLock_Get(&lock), 0);
    EXPECT_EQ(lock.lock, 0);
    EXPECT_EQ(yields, 0);
}

TEST(SpinLock, TakenLockYieldsUntilItIsReleased) {
    MPU_SPINLOCK_t lock = {0};
    releasedAfterThreeYields = &lock;
    EXPECT_EQ(mpuSpinLock_Get(&lock), 0);
    EXPECT_EQ(yields, 3);
    EXPECT_EQ(lock.lock, 0);
}

TEST(SpinLock, ReleaseStoresOne) {
    MPU_SPINLOCK_t lock = {0};
    mpuSpinLock_Release(&lock);
    EXPECT_EQ(lock.lock, 1);
}

TEST(SpinLock, DecrementStoresOnlyWhatIsNotNegative) {
    const struct {
        int before;
        int result;
        int after;
    } cases[] = {
        {1, 0, 0},  {5, 4, 4},    {INT_MAX, INT_MAX - 1, INT_MAX - 1},
        {0, -1, 0}, {-3, -4, -3}, {INT_MIN, INT_MAX, INT_MAX}, // wraps, as two's complement does
    };
    for (const auto& line : cases) {
        int word = line.before;
        EXPECT_EQ(atomic_dec_if_positive(&word), line.result) << line.before;
        EXPECT_EQ(word, line.after) << line.before;
    }
}

TEST(SpinLock, ProcessesExcludeEachOtherThroughSharedMemory) {
    constexpr int rounds = 20000;
    struct Shared {
        MPU_SPINLOCK_t lock;
        volatile int count;
    };
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* shared = static_cast<Shared*>(memory);
    shared->lock.lock = 1;
    shared->count = 0;
    auto work = [shared] {
        for (int i = 0; i < rounds; i++) {
            mpuSpinLock_Get(&shared->lock);
            shared->count = shared->count + 1;
            mpuSpinLock_Release(&shared->lock);
        }
    };
    pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    work();
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shared->count, 2 * rounds);
    munmap(memory, sizeof(Shared));
}
