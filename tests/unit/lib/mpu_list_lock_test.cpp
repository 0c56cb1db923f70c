#include "mpu_gbl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <thread>

// One thread is stopped in the middle of a locked operation: it touches a link in memory that it
// may not access, and its signal handler waits there. Another thread must then wait for the lock.

extern "C" int __real_sched_yield();

namespace {

std::atomic<bool> isInside;
std::atomic<bool> mayProceed;
std::atomic<int> yields;
MPU_LIST_LINK_t* guarded;

void waitInside(int /*signal*/) {
    isInside = true;
    while (!mayProceed) {
        __real_sched_yield();
    }
    mprotect(guarded, 4096, PROT_READ | PROT_WRITE);
}

struct Operation {
    const char* name;
    void (*run)(MPU_LIST_LINK_t* link);
};

/** Each locked operation, done to one link that is an orphan, or to an empty list's head. */
const Operation operations[] = {
    {"init", [](MPU_LIST_LINK_t* link) { MPU_init_listhead_safe(link); }},
    {"insertHead",
     [](MPU_LIST_LINK_t* link) {
         MPU_LIST_LINK_t head;
         MPU_init_listhead(&head);
         MPU_insert_on_list_head_safe(&head, link);
         MPU_remove_from_list(link);
     }},
    {"insertTail",
     [](MPU_LIST_LINK_t* link) {
         MPU_LIST_LINK_t head;
         MPU_init_listhead(&head);
         MPU_insert_on_list_tail_safe(&head, link);
         MPU_remove_from_list(link);
     }},
    {"remove", [](MPU_LIST_LINK_t* link) { MPU_remove_from_list_safe(link); }},
    {"removeHead", [](MPU_LIST_LINK_t* link) { MPU_remove_from_list_head_safe(link); }},
    {"removeTail", [](MPU_LIST_LINK_t* link) { MPU_remove_from_list_tail_safe(link); }},
    {"isEmpty", [](MPU_LIST_LINK_t* link) { MPU_list_mt_safe(link); }},
};

} // namespace

extern "C" int __wrap_sched_yield() {
    if (++yields == 3) {
        mayProceed = true;
    }
    return __real_sched_yield();
}

extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "handle_segv=0";
}

TEST(ListLock, EveryLockedOperationHoldsTheLockAndWaitsForIt) {
    struct sigaction action = {};
    action.sa_handler = waitInside;
    ASSERT_EQ(sigaction(SIGSEGV, &action, nullptr), 0);
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    guarded = static_cast<MPU_LIST_LINK_t*>(page);
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        MPU_init_listhead(guarded);
        mprotect(guarded, 4096, PROT_NONE);
        isInside = mayProceed = false;
        std::thread holder([&operation] { operation.run(guarded); });
        while (!isInside) {
            __real_sched_yield();
        }
        yields = 0;
        MPU_LIST_LINK_t own;
        MPU_init_listhead(&own);
        operation.run(&own);
        EXPECT_GE(yields, 3) << "the second thread did not wait";
        mayProceed = true;
        holder.join();
    }
    munmap(page, 4096);
}
