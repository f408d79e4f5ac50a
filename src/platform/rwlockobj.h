// TReadWriteLock: many readers or one writer; ReadLock, WriteLock: its scoped holders.
#pragma once

#include <cstdint>

#include "platform/eventobj.h"
#include "platform/mutexobj.h"

// Writers come first: one that waits holds back new readers and goes when the readers inside have left;
// writers follow one another. Not recursive: a reader that asks again while a writer waits blocks for good.
//
// Two-step life: usable after CreateRWLock(), released by DestroyRWLock(), after which it may be created
// again; the destructor releases nothing. While it is not created, the waits fail. Constant-initialised, so a
// process-wide lock needs no start-up code.
class TReadWriteLock {
  public:
    constexpr TReadWriteLock() = default;
    TReadWriteLock(const TReadWriteLock&) = delete;
    TReadWriteLock& operator=(const TReadWriteLock&) = delete;
    ~TReadWriteLock() = default;

    bool CreateRWLock();   // false when it cannot be made, or is there already (it stays)
    bool DestroyRWLock();  // REQUIRES: nobody holds it or waits; always true

    // True when acquired. False when the lock is not created or a wait failed or passed TEvent::kNoLimit; the
    // lock is then as though nobody had asked.
    bool WaitForRead();
    bool WaitForWrite();

    // False when there was nothing to release.
    bool ReleaseReadLock();
    bool ReleaseWriteLock();

  private:
    bool enterAsReader();
    void announceWriter();
    void withdrawWriter();

    Mutex guard_;                        // of the two counts; never held while waiting
    std::uint32_t readers_ = 0;          // inside
    std::uint32_t writers_ = 0;          // waiting or inside
    TEvent noWriter_{true, true};        // set while no writer waits or writes
    TEvent freeForWriter_{false, true};  // set while nobody is inside; each signal lets one writer in
    bool created_ = false;
};

// Holds the lock for a scope, when it could be had: REQUIRES a look at the holder before the data.
template <bool (TReadWriteLock::*Wait)(), bool (TReadWriteLock::*Release)()>
class RWLockHolder {
  public:
    explicit RWLockHolder(TReadWriteLock& lock) : lock_(lock), held_((lock.*Wait)()) {}
    RWLockHolder(const RWLockHolder&) = delete;
    RWLockHolder& operator=(const RWLockHolder&) = delete;
    ~RWLockHolder() {
        if (held_) (lock_.*Release)();
    }

    explicit operator bool() const { return held_; }

  private:
    TReadWriteLock& lock_;
    const bool held_;
};

using ReadLock = RWLockHolder<&TReadWriteLock::WaitForRead, &TReadWriteLock::ReleaseReadLock>;
using WriteLock = RWLockHolder<&TReadWriteLock::WaitForWrite, &TReadWriteLock::ReleaseWriteLock>;
