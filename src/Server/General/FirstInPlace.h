// Objects of which most processes have just one.
#pragma once

#include <atomic>
#include <new>

// Makes objects of T, of which one at a time lives in a place of its own, the others on the heap: a process
// that serves one request is spared a mapping and its page faults. Threads: any.
template <class T>
class FirstInPlace {
  public:
    // Null when there is no memory.
    static T* create() {
        const bool isFirst = !taken_.test_and_set(std::memory_order_acquire);
        return isFirst ? new (place_) T : new (std::nothrow) T;
    }

    // Base is T, or a base of it with a virtual destructor that lies at its beginning. Null is ignored.
    template <class Base>
    static void destroy(Base* object) {
        if (static_cast<void*>(object) != place_) {
            delete object;
        } else {
            object->~Base();
            taken_.clear(std::memory_order_release);
        }
    }

  private:
    // Hidden: modules of one process that each hold this library must not share a place.
    alignas(T) [[gnu::visibility("hidden")]] inline static unsigned char place_[sizeof(T)];
    [[gnu::visibility("hidden")]] inline static std::atomic_flag taken_ = ATOMIC_FLAG_INIT;
};
