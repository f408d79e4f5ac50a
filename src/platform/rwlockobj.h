// TReadWriteLock: many readers or one writer; ReadLock, WriteLock: its scoped holders.
#pragma once

#include <cstdint>

#include "platform/eventobj.h"
#include "platform/mutexobj.h"
#include "platform/thread_annotations.h"

// Writers come first: one that waits holds back new readers and goes when the readers inside have left;
// writers follow one another. Not recursive: a reader that asks again while a writer waits blocks for good.
//
// Two-step life: usable after CreateRWLock(), released by DestroyRWLock(), after which it may be created
// again; the destructor releases nothing. While it is not created, the waits fail. Constant-initialised, so a
// process-wide lock needs no start-up code.
class VELARTO_CAPABILITY("read-write lock") TReadWriteLock {
  public:
    constexpr TReadWriteLock() = default;
    TReadWriteLock(const TReadWriteLock&) = delete;
    TReadWriteLock& operator=(const TReadWriteLock&) = delete;
    ~TReadWriteLock() = default;

    bool CreateRWLock();  // false when it cannot be made, or is there already (it stays)
    // REQUIRES: nobody holds it or waits; always true. Unchecked: nobody is left to guard the counts from.
    bool DestroyRWLock() VELARTO_NO_THREAD_SAFETY_ANALYSIS;

    // True when acquired. False when the lock is not created or a wait failed or passed TEvent::kNoLimit; the
    // lock is then as though nobody had asked.
    bool WaitForRead() VELARTO_TRY_ACQUIRE_SHARED(true);
    bool WaitForWrite() VELARTO_TRY_ACQUIRE(true);

    // False when there was nothing to release.
    bool ReleaseReadLock() VELARTO_RELEASE_SHARED();
    bool ReleaseWriteLock() VELARTO_RELEASE();

  private:
    bool enterAsReader();
    void announceWriter();
    void withdrawWriter();

    Mutex guard_;                                           // never held while waiting
    std::uint32_t readers_ VELARTO_GUARDED_BY(guard_) = 0;  // inside
    std::uint32_t writers_ VELARTO_GUARDED_BY(guard_) = 0;  // waiting or inside
    TEvent noWriter_{true, true};                           // set while no writer waits or writes
    TEvent freeForWriter_{false, true};  // set while nobody is inside; each signal lets one writer in
    bool created_ = false;
};

// Holds the lock for a scope, when it could be had. REQUIRES: the caller tests the holder, as a bool, before it touches
// the data; clang does not check that, and takes every holder for one that holds.
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

// The two holders, with the annotations that clang checks: a template cannot carry them.
class VELARTO_SCOPED_CAPABILITY ReadLock
    : public RWLockHolder<&TReadWriteLock::WaitForRead, &TReadWriteLock::ReleaseReadLock> {
  public:
    explicit ReadLock(TReadWriteLock& lock) VELARTO_ACQUIRE_SHARED(lock) : RWLockHolder(lock) {}
    ~ReadLock() VELARTO_RELEASE() = default;
};

class VELARTO_SCOPED_CAPABILITY WriteLock
    : public RWLockHolder<&TReadWriteLock::WaitForWrite, &TReadWriteLock::ReleaseWriteLock> {
  public:
    explicit WriteLock(TReadWriteLock& lock) VELARTO_ACQUIRE(lock) : RWLockHolder(lock) {}
    ~WriteLock() VELARTO_RELEASE() = default;
};
