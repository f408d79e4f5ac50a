// TThread: a detached thread that its owner can wait for and ask to stop; TPeriodicThread: one that calls
// back at an interval.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/eventobj.h"
#include "platform/threads_impl.h"

// Runs a procedure, or its own Process(). Threads are detached: their end is learnt through WaitForThread().
//
// The owner's thread starts, stops, waits and destroys. The started thread uses IsStopRequested(), Sleep()
// and YieldTo(). The destructor does not wait: REQUIRES that no thread runs any more (RequestStop(), then
// WaitForThread()).
class TThread {
  public:
    static constexpr int kAlreadyStarted = -7;

    TThread();
    TThread(const TThread&) = delete;
    TThread& operator=(const TThread&) = delete;

    virtual std::uint32_t Process();  // what the thread runs when it has no procedure; does nothing, 0

    virtual void DoYield(pthread_t other);  // what YieldTo() calls; does nothing

    virtual ~TThread();

    // Forgets the thread, so that another can be started. Once the thread has ended, a stop request is
    // forgotten too; a thread that still runs keeps its request.
    virtual void DestroyThread();

    // Calls DoYield() with the other thread's id (0 when other is null or not started), but at most once in
    // the yield interval.
    virtual void YieldTo(TThread* other);

    // Sleeps for ms milliseconds in slices of 100. A stop request ends it with the slice.
    virtual void Sleep(std::uint32_t ms);

    // 0; kAlreadyStarted while a thread is recorded or still runs; kThreadNotCreated. A null proc makes the
    // thread run Process().
    int StartNewThread(TThreadProc proc, void* arg);

    // The result of a wait for an event: TEvent::kSignalled when the thread has ended or none was ever
    // started.
    int WaitForThread(std::uint32_t timeoutMs);

    // A request stays until DestroyThread(). A stop event, when given, is a request while it is signalled; it
    // is a manual-reset event of the caller's that outlives the thread, REQUIRES: given before the start.
    void RequestStop() { stopRequested_ = true; }
    void SetStopEvent(TEvent* event) { stopEvent_ = event; }
    bool IsStopRequested();

    void SetYieldInterval(std::uint32_t ms) { yieldInterval_ = ms; }

    int SuspendThread();  // both without effect on this platform; 0
    int ResumeThread();

  private:
    static std::uint32_t ThreadEntryProc(void* self);

    TThreadProc proc_ = nullptr;
    void* arg_ = nullptr;
    std::atomic<bool> stopRequested_{false};
    TEvent* stopEvent_ = nullptr;
    TEvent finished_{true, true};
    OSTHREADDATA threadData_;
    pthread_t threadId_{};         // 0: none recorded (no POSIX thread of this platform has that id)
    std::uint32_t lastYield_ = 0;  // tick
    std::uint32_t yieldInterval_ = 0;
};

// Calls back every interval milliseconds, from the start of one call to the start of the next, or at once
// when a call took longer. Ends when the callback returns true or a stop is requested, which is noticed
// within about 100 ms. Started with StartNewThread(nullptr, nullptr).
class TPeriodicThread : public TThread {
  public:
    using Callback = bool (*)(void*);

    TPeriodicThread() = default;
    TPeriodicThread(std::uint32_t intervalMs, Callback callback, void* arg);
    ~TPeriodicThread() override = default;

    void SetCallback(std::uint32_t intervalMs, Callback callback, void* arg);  // REQUIRES: not started

    std::uint32_t Process() override;  // 0; 0xFFFFFFFF without a callback

  private:
    Callback callback_ = nullptr;
    void* callbackArg_ = nullptr;
    std::uint32_t interval_ = 0;
};
