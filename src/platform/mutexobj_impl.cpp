#include "platform/mutexobj_impl.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <new>

namespace {

// Initialises the mutex with the one attribute in which it differs from the default.
bool initMutex(pthread_mutex_t* mutex, int (*setAttribute)(pthread_mutexattr_t*, int), int value) {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    const bool done = setAttribute(&attributes, value) == 0 && pthread_mutex_init(mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return done;
}

}  // namespace

pthread_mutex_t* makePrivateMutex() {
    std::unique_ptr<pthread_mutex_t> mutex(new (std::nothrow) pthread_mutex_t{});
    const bool done =
        mutex != nullptr && initMutex(mutex.get(), pthread_mutexattr_settype, PTHREAD_MUTEX_RECURSIVE);
    return done ? mutex.release() : nullptr;
}

void releasePrivateMutex(pthread_mutex_t* mutex) {
    delete mutex;
}

pthread_mutex_t* makeSharedMutex() {
    const int fd = open("/dev/zero", O_RDWR | O_CLOEXEC);
    if (fd == -1) throw 1;
    void* mapping = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED) return nullptr;

    auto* mutex = static_cast<pthread_mutex_t*>(mapping);
    if (initMutex(mutex, pthread_mutexattr_setpshared, PTHREAD_PROCESS_SHARED)) return mutex;
    releaseSharedMutex(mutex);
    return nullptr;
}

void releaseSharedMutex(pthread_mutex_t* mutex) {
    if (mutex != nullptr) munmap(mutex, sizeof *mutex);
}
