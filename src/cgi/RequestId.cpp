#include "cgi/RequestId.h"

#include <sys/random.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

char requestId[65];

// The name stands in pages and logs: nothing but letters, digits and what such names are made of.
bool isPlain(const char* name) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789@_-";
    const std::size_t length = std::strlen(name);
    return length != 0 && length < sizeof requestId && std::strspn(name, kAlphabet) == length;
}

// Without random numbers at hand the time and the process will do: the name only has to differ from its neighbours'.
std::uint64_t randomNumber() {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number) return number;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_nsec) << 32 | static_cast<std::uint32_t>(getpid());
}

}  // namespace

const char* RequestId() {
    if (requestId[0] != '\0') return requestId;
    const char* given = std::getenv("UNIQUE_ID");
    if (given != nullptr && isPlain(given)) {
        std::strcpy(requestId, given);
    } else {
        std::snprintf(requestId, sizeof requestId, "%016llx",
                      static_cast<unsigned long long>(randomNumber()));
    }
    return requestId;
}
