#include "platform/random_impl.h"

#include <sys/random.h>
#include <unistd.h>

#include <ctime>

std::uint64_t RandomNumber() {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number) return number;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_nsec) << 32 | static_cast<std::uint32_t>(getpid());
}
