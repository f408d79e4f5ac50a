#include "platform/threads_impl.h"

#include <unistd.h>

#include <memory>
#include <new>

namespace {

struct ThreadStart {
    TThreadProc proc;
    void* arg;
};

// The new thread owns its start record.
void* runThread(void* record) {
    const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(record));
    start->proc(start->arg);
    return nullptr;
}

}  // namespace

int CreateNewThread(TThreadProc proc, void* arg, pthread_t& id, OSTHREADDATA&) {
    std::unique_ptr<ThreadStart> start(new (std::nothrow) ThreadStart{proc, arg});
    pthread_attr_t attributes;
    if (start == nullptr || pthread_attr_init(&attributes) != 0) return kThreadNotCreated;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
    const int error = pthread_create(&id, &attributes, runThread, start.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) return kThreadNotCreated;
    static_cast<void>(start.release());
    return 0;
}

int GetCurrentThread(pthread_t& id) {
    id = pthread_self();
    return 0;
}

std::uint32_t GetCurrentProcessID() {
    return static_cast<std::uint32_t>(getpid());
}
