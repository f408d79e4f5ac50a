#include "platform/eventobj_impl.h"

#include <sys/time.h>

#include <algorithm>

bool makeEventObjects(pthread_cond_t& condition, pthread_mutex_t& mutex) {
    if (pthread_cond_init(&condition, nullptr) != 0) return false;
    if (pthread_mutex_init(&mutex, nullptr) == 0) return true;
    pthread_cond_destroy(&condition);
    return false;
}

void releaseEventObjects(pthread_cond_t& condition, pthread_mutex_t& mutex) {
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

void GetAbsoluteTime(std::uint32_t ms, timespec& out) {
    constexpr std::int64_t kLatest = sizeof(std::time_t) < 8 ? INT32_MAX : INT64_MAX;

    timeval now{};
    gettimeofday(&now, nullptr);
    const std::int64_t microseconds = now.tv_usec + std::int64_t{ms % 1000} * 1000;
    const std::int64_t seconds = now.tv_sec + std::int64_t{ms / 1000} + microseconds / 1000000;
    out.tv_sec = static_cast<std::time_t>(std::min(seconds, kLatest));
    out.tv_nsec = static_cast<long>(microseconds % 1000000 * 1000);
}
