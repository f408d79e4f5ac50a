#include "platform/systimer_impl.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

timeval timeOfDay() {
    timeval now;
    return gettimeofday(&now, nullptr) == 0 ? now : timeval{};
}

// Unlike the time of day, nobody sets this clock.
std::int64_t monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

const timeval BaseTimeValue = timeOfDay();

std::uint32_t millisecondsBetween(const timeval& from, const timeval& to) {
    std::int64_t seconds = std::int64_t{to.tv_sec} - from.tv_sec;
    std::int64_t microseconds = std::int64_t{to.tv_usec} - from.tv_usec;
    if (microseconds < 0) {
        --seconds;
        microseconds += 1000000;
    }
    return static_cast<std::uint32_t>(seconds * 1000 + microseconds / 1000);
}

std::uint32_t GetTickCountEx() {
    const timeval now = timeOfDay();
    return BaseTimeValue.tv_sec == 0 || now.tv_sec == 0 ? 0 : millisecondsBetween(BaseTimeValue, now);
}

int MilliSleep(std::uint32_t ms) {
    const std::int64_t end = monotonicMicroseconds() + std::int64_t{ms} * 1000;
    int result;
    do {
        const std::int64_t left = std::max<std::int64_t>(end - monotonicMicroseconds(), 0);
        timeval timeout;
        timeout.tv_sec = static_cast<std::time_t>(left / 1000000);
        timeout.tv_usec = static_cast<suseconds_t>(left % 1000000);
        result = select(0, nullptr, nullptr, nullptr, &timeout);
    } while (result == -1 && errno == EINTR);
    return result;
}
