#include "failing_segments.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/shm.h>
#include <unistd.h>

FailingCall failingShmget;
FailingCall failingShmat;
FailingCall failingOpen;
FailingCall failingSemInit;
FailingCall failingSemDestroy;
FailingCall failingMutexInit;
FailingCall failingMutexDestroy;
int shmdtCalls;
int readLimit = -2;

extern "C" {

int __real_shmget(key_t key, size_t size, int flags);
int __wrap_shmget(key_t key, size_t size, int flags) {
    return failingShmget.fails() ? -1 : __real_shmget(key, size, flags);
}

void* __real_shmat(int id, const void* address, int flags);
void* __wrap_shmat(int id, const void* address, int flags) {
    if (failingShmat.fails()) {
        void* failed;
        memset(&failed, 0xFF, sizeof(failed));
        return failed;
    }
    return __real_shmat(id, address, flags);
}

int __real_shmdt(const void* block);
int __wrap_shmdt(const void* block) {
    shmdtCalls++;
    return __real_shmdt(block);
}

int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    return failingOpen.fails() ? -1 : __real_open64(path, flags, mode);
}

ssize_t __real_read(int fd, void* to, size_t length);
ssize_t __wrap_read(int fd, void* to, size_t length) {
    if (readLimit == -1) {
        errno = EIO;
        return -1;
    }
    return __real_read(fd, to,
                       readLimit >= 0 ? std::min(length, static_cast<size_t>(readLimit)) : length);
}

int __real_sem_init(sem_t* semaphore, int shared, unsigned value);
int __wrap_sem_init(sem_t* semaphore, int shared, unsigned value) {
    return failingSemInit.fails() ? -1 : __real_sem_init(semaphore, shared, value);
}

int __real_sem_destroy(sem_t* semaphore);
int __wrap_sem_destroy(sem_t* semaphore) {
    return failingSemDestroy.fails() ? -1 : __real_sem_destroy(semaphore);
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return failingMutexInit.fails() ? failingMutexInit.error
                                    : __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    return failingMutexDestroy.fails() ? failingMutexDestroy.error
                                       : __real_pthread_mutex_destroy(mutex);
}
}
