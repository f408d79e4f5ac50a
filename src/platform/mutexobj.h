// Mutex: a lock between threads (recursive) or between processes; MutexLock: its scoped holder.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "platform/thread_annotations.h"

// Two-step life: a Mutex is usable after CreateMutex() (or the constructor that calls it) and is released by
// DestroyMutex(). The destructor releases nothing.
//
// A private mutex is recursive: the owning thread may lock it again, each lock needs its unlock. A shared
// mutex lies in a shared mapping, so that it works across fork(); it is not recursive.
class VELARTO_CAPABILITY("mutex") Mutex {
  public:
    using MutexMode = std::uint32_t;
    static constexpr MutexMode kPrivate = 0;  // any other value: shared between processes
    static constexpr MutexMode kShared = 1;

    constexpr Mutex() = default;
    // Throws the integer 1 for a shared mode when "/dev/zero" cannot be opened.
    explicit Mutex(MutexMode mode);
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex() = default;

    // False when the mutex cannot be made, or is there already (it stays). Throws as the constructor does.
    bool CreateMutex(MutexMode mode);
    bool DestroyMutex();  // Destroy(), then Release(); always true

    // 0 when done, 1 when no mutex was created. What the system says of a misuse (an unlock by a thread that
    // does not hold the mutex) is not reported.
    int Lock() VELARTO_ACQUIRE();
    int UnLock() VELARTO_RELEASE();
    int TryLock() VELARTO_TRY_ACQUIRE(0);  // also 1 when the lock is held elsewhere
    int Destroy();  // ends the mutex, REQUIRES: nobody holds it; only Release() may follow
    int Release();  // gives its memory back; always 0

  private:
    MutexMode mode_ = kPrivate;
    pthread_mutex_t* data_ = nullptr;
};

// Holds a mutex for a scope.
class VELARTO_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) VELARTO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() VELARTO_RELEASE() { mutex_.UnLock(); }

  private:
    Mutex& mutex_;
};
