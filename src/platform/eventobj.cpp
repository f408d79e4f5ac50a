#include "platform/eventobj.h"

#include <cerrno>
#include <ctime>

#include "platform/eventobj_impl.h"

bool TEvent::CreateEvent() {
    if (created_) return false;
    created_ = makeEventObjects(condition_, mutex_);
    signalled_ = initialState_;
    return created_;
}

bool TEvent::DestroyEvent() {
    if (created_) releaseEventObjects(condition_, mutex_);
    created_ = false;
    return true;
}

// Wakes while it holds the mutex: a waiter that runs then knows that the setter is done with the condition,
// and may destroy the event.
bool TEvent::SetEvent() {
    if (!lock()) return false;
    signalled_ = true;
    const int error = manualReset_ ? pthread_cond_broadcast(&condition_) : pthread_cond_signal(&condition_);
    return unlock() && error == 0;
}

bool TEvent::ResetEvent() {
    if (!lock()) return false;
    signalled_ = false;
    return unlock();
}

int TEvent::WaitForEvent(std::uint32_t timeoutMs) {
    if (!lock()) return kFailed;
    int error = 0;
    if (!signalled_) {
        timespec deadline;
        GetAbsoluteTime(timeoutMs, deadline);
        while (!signalled_ && error == 0)
            error = pthread_cond_timedwait(&condition_, &mutex_, &deadline);
    }
    const bool signalled = signalled_;
    if (!manualReset_) signalled_ = false;
    if (!unlock()) return kFailed;
    if (signalled) return kSignalled;
    return error == ETIMEDOUT ? kTimedOut : kFailed;
}

bool TEvent::lock() {
    return created_ && pthread_mutex_lock(&mutex_) == 0;
}

bool TEvent::unlock() {
    return pthread_mutex_unlock(&mutex_) == 0;
}
