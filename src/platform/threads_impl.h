// Threads and processes, as flat functions over POSIX threads.
#pragma once

#include <pthread.h>

#include <cstdint>

using TThreadProc = std::uint32_t (*)(void*);

// What the platform keeps for each thread: nothing, on POSIX.
struct OSTHREADDATA {};

constexpr int kThreadNotCreated = -19;

// Starts proc(arg) on a detached thread of system scope and stores its id: 0, or kThreadNotCreated. Nobody
// can join the thread, and nobody learns what proc returned.
int CreateNewThread(TThreadProc proc, void* arg, pthread_t& id, OSTHREADDATA& data);

int GetCurrentThread(pthread_t& id);  // always 0
std::uint32_t GetCurrentProcessID();

// A detached POSIX thread needs no care, cannot be suspended and cannot be waited for.
inline void InitExceptionHandlers() {}
inline void InitOSThreadData(OSTHREADDATA&) {}
inline void CleanUpOSThreadData(OSTHREADDATA&) {}
inline int DisposeThread(pthread_t, OSTHREADDATA&) {
    return 0;
}
inline int SuspendThread(pthread_t, OSTHREADDATA&) {
    return 0;
}
inline int ResumeThread(pthread_t, OSTHREADDATA&) {
    return 0;
}
inline bool IsWaitForThreadSupported() {
    return false;
}
inline int WaitForThread(pthread_t, OSTHREADDATA&, std::uint32_t) {
    return 1;
}
