#include "cgi/RequestId.h"

#include <cstdio>
#include <cstring>

#include "platform/random_impl.h"

namespace {

// The name stands in pages and logs: nothing but letters, digits and what such names are made of.
bool isPlain(const char* name, std::size_t length) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789@_-";
    return length != 0 && std::strspn(name, kAlphabet) == length;
}

}  // namespace

const char* RequestId::text() {
    if (text_[0] != '\0') return text_;
    const char* given = variables_.get("UNIQUE_ID");
    const std::size_t length = given != nullptr ? std::strlen(given) : 0;
    if (length < sizeof text_ && isPlain(given, length)) {
        std::memcpy(text_, given, length + 1);
    } else {
        std::snprintf(text_, sizeof text_, "%016llx", static_cast<unsigned long long>(RandomNumber()));
    }
    return text_;
}
