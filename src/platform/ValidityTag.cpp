#include "platform/ValidityTag.h"

#include <pthread.h>

#include <cstddef>

#include "platform/thread_annotations.h"

namespace {

#ifdef VELARTO_ONE_THREAD
constexpr bool kManyThreads = false;
#else
constexpr bool kManyThreads = true;
#endif

// The register is divided by addresses, so that threads with objects of their own seldom meet at a lock. Nothing of it
// is made at run time: it never lacks memory, and is there before any object.
constexpr std::size_t kShelves = kManyThreads ? 64 : 1;

class alignas(64) VELARTO_CAPABILITY("mutex") Shelf {  // on cache lines of its own
  public:
    void lock() VELARTO_ACQUIRE() {
        if (kManyThreads) pthread_mutex_lock(&mutex_);
    }
    void unlock() VELARTO_RELEASE() {
        if (kManyThreads) pthread_mutex_unlock(&mutex_);
    }

    LiveObject* first VELARTO_GUARDED_BY(this) = nullptr;

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

Shelf shelves[kShelves];

Shelf& shelfOf(const void* object) {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object));
    return shelves[(address * 0x9E3779B97F4A7C15 >> 32) % kShelves];  // spreads addresses of any stride
}

}  // namespace

LiveObject::LiveObject(const void* object, std::uint32_t tag) : tag_(tag), object_(object) {
    Shelf& shelf = shelfOf(object);
    shelf.lock();
    next_ = shelf.first;
    shelf.first = this;
    shelf.unlock();
}

void LiveObject::revoke() {
    if (tag_ == 0) return;
    Shelf& shelf = shelfOf(object_);
    shelf.lock();
    LiveObject** link = &shelf.first;
    while (*link != this)
        link = &(*link)->next_;
    *link = next_;
    tag_ = 0;
    shelf.unlock();
}

bool LiveObject::isLive(const void* object, std::uint32_t tag) {
    if (object == nullptr) return false;
    Shelf& shelf = shelfOf(object);
    shelf.lock();
    const LiveObject* found = shelf.first;
    while (found != nullptr && (found->object_ != object || found->tag_ != tag))
        found = found->next_;
    shelf.unlock();
    return found != nullptr;
}
