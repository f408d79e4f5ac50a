#include "cgi/RequestId.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/random_impl.h"

namespace {

char requestId[65];

// The name stands in pages and logs: nothing but letters, digits and what such names are made of.
bool isPlain(const char* name) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789@_-";
    const std::size_t length = std::strlen(name);
    return length != 0 && length < sizeof requestId && std::strspn(name, kAlphabet) == length;
}

}  // namespace

const char* RequestId() {
    if (requestId[0] != '\0') return requestId;
    const char* given = std::getenv("UNIQUE_ID");
    if (given != nullptr && isPlain(given)) {
        std::strcpy(requestId, given);
    } else {
        std::snprintf(requestId, sizeof requestId, "%016llx",
                      static_cast<unsigned long long>(RandomNumber()));
    }
    return requestId;
}
