#include "platform/mutexobj.h"

#include "platform/mutexobj_impl.h"

namespace {

int apply(int (*operation)(pthread_mutex_t*), pthread_mutex_t* mutex) {
    if (mutex == nullptr) return 1;
    operation(mutex);
    return 0;
}

}  // namespace

Mutex::Mutex(MutexMode mode) {
    CreateMutex(mode);
}

bool Mutex::CreateMutex(MutexMode mode) {
    if (data_ != nullptr) return false;
    mode_ = mode;
    data_ = mode == kPrivate ? makePrivateMutex() : makeSharedMutex();
    return data_ != nullptr;
}

bool Mutex::DestroyMutex() {
    Destroy();
    Release();
    return true;
}

int Mutex::Lock() {
    return apply(pthread_mutex_lock, data_);
}

int Mutex::UnLock() {
    return apply(pthread_mutex_unlock, data_);
}

int Mutex::TryLock() {
    return data_ != nullptr && pthread_mutex_trylock(data_) == 0 ? 0 : 1;
}

int Mutex::Destroy() {
    return apply(pthread_mutex_destroy, data_);
}

int Mutex::Release() {
    if (mode_ == kPrivate) {
        releasePrivateMutex(data_);
    } else {
        releaseSharedMutex(data_);
    }
    data_ = nullptr;
    return 0;
}
