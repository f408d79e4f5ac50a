// TEvent: a flag that threads wait for.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "platform/thread_annotations.h"

// Two-step life: usable after CreateEvent(), released by DestroyEvent(); the destructor releases nothing.
// Without CreateEvent() every operation fails. For the threads of one process; a constant-initialised event
// may be process-wide.
//
// A manual-reset event stays signalled until ResetEvent() and lets every waiter go; an automatic-reset event
// lets one waiter go, whose wait takes the signal.
class VELARTO_CAPABILITY("event") TEvent {
  public:
    static constexpr int kSignalled = 0;
    static constexpr int kFailed = 1;
    static constexpr int kTimedOut = 2;

    static constexpr std::uint32_t kNoLimit = 0xFFFFFFFFu;  // the longest wait: about 49.7 days

    constexpr TEvent(bool manualReset, bool initialState)
        : signalled_(initialState), manualReset_(manualReset), initialState_(initialState) {}
    TEvent(const TEvent&) = delete;
    TEvent& operator=(const TEvent&) = delete;
    ~TEvent() = default;

    // False when the event cannot be made, or is there already (it stays). Made again after DestroyEvent() it
    // begins in its initial state. Unchecked: nobody else has the event yet.
    bool CreateEvent() VELARTO_NO_THREAD_SAFETY_ANALYSIS;
    bool DestroyEvent();  // REQUIRES: nobody waits; always true

    // False when the system refuses.
    bool SetEvent();
    bool ResetEvent();

    // Waits for the signal: kSignalled, kFailed, or kTimedOut when timeoutMs milliseconds passed without it.
    // The deadline is one of the time of day: a clock that is set forward ends the wait early.
    int WaitForEvent(std::uint32_t timeoutMs);

  private:
    // Its own lock, which every operation holds for a moment.
    bool lock() VELARTO_TRY_ACQUIRE(true);
    bool unlock() VELARTO_RELEASE();

    pthread_cond_t condition_{};
    pthread_mutex_t mutex_{};
    bool signalled_ VELARTO_GUARDED_BY(this);
    const bool manualReset_;
    const bool initialState_;
    bool created_ = false;
};
