#include "platform/rwlockobj.h"

bool TReadWriteLock::CreateRWLock() {
    if (created_) return false;
    created_ = guard_.CreateMutex(Mutex::kPrivate) && freeForWriter_.CreateEvent() && noWriter_.CreateEvent();
    if (!created_) DestroyRWLock();
    return created_;
}

bool TReadWriteLock::DestroyRWLock() {
    created_ = false;
    guard_.DestroyMutex();
    freeForWriter_.DestroyEvent();
    readers_ = 0;
    writers_ = 0;
    return noWriter_.DestroyEvent();
}

bool TReadWriteLock::WaitForRead() {
    if (!created_) return false;
    while (!enterAsReader()) {
        if (noWriter_.WaitForEvent(TEvent::kNoLimit) != TEvent::kSignalled) return false;
    }
    return true;
}

bool TReadWriteLock::enterAsReader() {
    MutexLock hold(guard_);
    if (writers_ != 0) return false;
    if (++readers_ == 1) freeForWriter_.ResetEvent();
    return true;
}

bool TReadWriteLock::WaitForWrite() {
    if (!created_) return false;
    announceWriter();
    if (freeForWriter_.WaitForEvent(TEvent::kNoLimit) == TEvent::kSignalled) return true;
    withdrawWriter();
    return false;
}

void TReadWriteLock::announceWriter() {
    MutexLock hold(guard_);
    if (++writers_ == 1) noWriter_.ResetEvent();
}

void TReadWriteLock::withdrawWriter() {
    MutexLock hold(guard_);
    if (--writers_ == 0) noWriter_.SetEvent();
}

bool TReadWriteLock::ReleaseReadLock() {
    MutexLock hold(guard_);
    if (readers_ == 0) return false;
    if (--readers_ == 0) freeForWriter_.SetEvent();
    return true;
}

bool TReadWriteLock::ReleaseWriteLock() {
    MutexLock hold(guard_);
    if (writers_ == 0) return false;
    if (--writers_ == 0) noWriter_.SetEvent();
    freeForWriter_.SetEvent();
    return true;
}
