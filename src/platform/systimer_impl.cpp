#include "platform/systimer_impl.h"

#include <sys/select.h>

#include <cerrno>
#include <ctime>

namespace {

timeval timeOfDay() {
    timeval now;
    return gettimeofday(&now, nullptr) == 0 ? now : timeval{};
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
    timeval left;
    left.tv_sec = static_cast<std::time_t>(ms / 1000);
    left.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    int result;
    do {
        result = select(0, nullptr, nullptr, nullptr, &left);  // Linux leaves the rest of the time in left
    } while (result == -1 && errno == EINTR);
    return result;
}
