#include "net/AddressTurns.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "net/Socket.h"
#include "platform/AddressFamily.h"
#include "platform/systimer_impl.h"

namespace {

void append(const sockaddr& address, CText& out) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
    } else if (address.sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text, sizeof text);
    }
    if (*text == '\0') return;
    if (!out.IsEmpty()) out += ',';
    out += text;
}

// Without AI_ADDRCONFIG, which would leave out ::1 where there is no other IPv6 address.
void lookUpAll(const char* name, CText& out) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0) return;
    for (const addrinfo* item = found; item != nullptr; item = item->ai_next)
        append(*item->ai_addr, out);
    freeaddrinfo(found);
}

}  // namespace

CText& ListAddresses(const char* host, bool all, CText& out) {
    if (all && host != nullptr && *host != '\0' && AddressFamily(host) == AF_UNSPEC) {
        out.Clear();
        lookUpAll(host, out);
    } else {
        Socket::castToIP(host, out, false);
    }
    return out;
}

// The only address has all the time, and needs no look at the clock.
bool AddressTurns::next(CText& address, std::uint32_t& milliseconds) {
    constexpr std::int64_t kNanoseconds = 1000000;
    if (*rest_ == '\0') return false;
    const char* end = rest_ + std::strcspn(rest_, ",");
    const std::int64_t turns = 1 + std::count(end, end + std::strlen(end), ',');
    if (turns > 1 || seen_ != 0) {
        const std::int64_t now = MonotonicTime();
        if (seen_ != 0) left_ -= (now - seen_) / kNanoseconds;
        seen_ = now;
    }
    address.SetEqualTo(rest_, static_cast<std::uint32_t>(end - rest_), 0);
    milliseconds = static_cast<std::uint32_t>(std::max<std::int64_t>(left_ / turns, 1));
    rest_ = *end == ',' ? end + 1 : end;
    return true;
}
