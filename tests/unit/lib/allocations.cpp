#include "allocations.h"

#include <cstddef>

namespace {

volatile int allocations;

} // namespace

#if defined(__SANITIZE_ADDRESS__)

// Part of the sanitizer's library; its header does not come with every compiler.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*allocated)(const volatile void* block, size_t size),
    void (*released)(const volatile void* block));

namespace {

void countAllocation(const volatile void*, size_t) {
    allocations = allocations + 1;
}

void ignoreRelease(const volatile void*) {}

const int installed = __sanitizer_install_malloc_and_free_hooks(countAllocation, ignoreRelease);

} // namespace

#else

// The program's own definitions go before those of libc, for libc itself too.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
    allocations = allocations + 1;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    allocations = allocations + 1;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    allocations = allocations + 1;
    return __libc_realloc(block, size);
}
}

#endif

int allocationsOf(const std::function<void()>& body) {
    int before = allocations;
    body();
    return allocations - before;
}
