#include "platform/systimer_impl.h"

#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

// Asks the kernel itself: the pages that answer in its place (the vDSO) cost a process that asks but a few
// times several page faults.
int readClock(clockid_t clock, timespec& now) {
#ifdef __LP64__
    return static_cast<int>(syscall(SYS_clock_gettime, clock, &now));
#else  // which system call fits timespec depends on the C library
    return clock_gettime(clock, &now);
#endif
}

timeval timeOfDay() {
    timespec now{};
    if (readClock(CLOCK_REALTIME, now) != 0) return timeval{};
    return {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
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

std::int64_t MonotonicTime() {
    timespec now{};
    readClock(CLOCK_MONOTONIC, now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

int MilliSleep(std::uint32_t ms) {
    const std::int64_t end = MonotonicTime() + std::int64_t{ms} * 1000000;
    int result;
    do {
        const std::int64_t left = std::max<std::int64_t>(end - MonotonicTime(), 0) / 1000;  // microseconds
        timeval timeout;
        timeout.tv_sec = static_cast<std::time_t>(left / 1000000);
        timeout.tv_usec = static_cast<suseconds_t>(left % 1000000);
        result = select(0, nullptr, nullptr, nullptr, &timeout);
    } while (result == -1 && errno == EINTR);
    return result;
}
