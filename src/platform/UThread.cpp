#include "platform/UThread.h"

#include "platform/systimer_impl.h"

namespace {

constexpr std::uint32_t kSleepSlice = 100;
constexpr std::uint32_t kNothingToRun = 0xFFFFFFFFu;

}  // namespace

TThread::TThread() {
    InitOSThreadData(threadData_);
    finished_.CreateEvent();
}

TThread::~TThread() {
    TThread::DestroyThread();
    finished_.DestroyEvent();
    CleanUpOSThreadData(threadData_);
}

std::uint32_t TThread::Process() {
    return 0;
}

void TThread::DoYield(pthread_t) {}

// The finished event tells a forgotten thread that still runs from none: two must never share the object.
int TThread::StartNewThread(TThreadProc proc, void* arg) {
    if (threadId_ != 0 || finished_.WaitForEvent(0) == TEvent::kTimedOut) return kAlreadyStarted;
    proc_ = proc;
    arg_ = arg;
    finished_.ResetEvent();
    const int result = CreateNewThread(ThreadEntryProc, this, threadId_, threadData_);
    if (result != 0) {
        threadId_ = 0;
        finished_.SetEvent();
    }
    return result;
}

// Once the finished event is set the owner may destroy the object.
std::uint32_t TThread::ThreadEntryProc(void* self) {
    if (self == nullptr) return kNothingToRun;
    InitExceptionHandlers();
    auto& thread = *static_cast<TThread*>(self);
    const std::uint32_t result = thread.proc_ != nullptr ? thread.proc_(thread.arg_) : thread.Process();
    thread.finished_.SetEvent();
    return result;
}

bool TThread::IsStopRequested() {
    return stopRequested_ || (stopEvent_ != nullptr && stopEvent_->WaitForEvent(0) != TEvent::kTimedOut);
}

int TThread::WaitForThread(std::uint32_t timeoutMs) {
    const int result = finished_.WaitForEvent(timeoutMs);
    if (result != TEvent::kSignalled || !IsWaitForThreadSupported()) return result;
    return ::WaitForThread(threadId_, threadData_, timeoutMs);
}

void TThread::Sleep(std::uint32_t ms) {
    const std::uint32_t start = GetTickCountEx();
    while (!IsStopRequested() && GetTickCountEx() - start < ms)
        MilliSleep(kSleepSlice);
}

void TThread::YieldTo(TThread* other) {
    if (lastYield_ != 0 && GetTickCountEx() - lastYield_ < yieldInterval_) return;
    DoYield(other != nullptr ? other->threadId_ : pthread_t{});
    lastYield_ = GetTickCountEx();
}

int TThread::SuspendThread() {
    return ::SuspendThread(threadId_, threadData_);
}

int TThread::ResumeThread() {
    return ::ResumeThread(threadId_, threadData_);
}

void TThread::DestroyThread() {
    if (threadId_ != 0) DisposeThread(threadId_, threadData_);
    threadId_ = 0;
    if (finished_.WaitForEvent(0) == TEvent::kSignalled) stopRequested_ = false;
}

TPeriodicThread::TPeriodicThread(std::uint32_t intervalMs, Callback callback, void* arg) {
    SetCallback(intervalMs, callback, arg);
}

void TPeriodicThread::SetCallback(std::uint32_t intervalMs, Callback callback, void* arg) {
    callback_ = callback;
    callbackArg_ = arg;
    interval_ = intervalMs;
}

std::uint32_t TPeriodicThread::Process() {
    if (callback_ == nullptr) return kNothingToRun;
    while (!IsStopRequested()) {
        const std::uint32_t start = GetTickCountEx();
        if (callback_(callbackArg_)) break;
        const std::uint32_t elapsed = GetTickCountEx() - start;
        if (elapsed < interval_) Sleep(interval_ - elapsed);
    }
    return 0;
}
