#include "common/Endpoint.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "common/Text.h"

namespace {

constexpr char kUnix[] = "unix:";

[[noreturn]] void fail(const Endpoint& endpoint, const std::string& reason) {
    throw std::runtime_error("cannot listen on " + endpoint.text() + ": " + reason);
}

void setOption(int descriptor, int level, int name) {
    const int on = 1;
    setsockopt(descriptor, level, name, &on, sizeof on);
}

// Bound under another name first, which then takes the place of the old: at no time is there no socket.
bool bindPath(int descriptor, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string made = path + "." + std::to_string(getpid());
    if (made.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::strcpy(address.sun_path, made.c_str());
    unlink(made.c_str());
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
    if (listen(descriptor, SOMAXCONN) == 0 && std::rename(made.c_str(), path.c_str()) == 0) return true;
    const int cause = errno;
    unlink(made.c_str());
    errno = cause;
    return false;
}

bool bindPort(int descriptor, const addrinfo& address, bool sharesPort) {
    setOption(descriptor, SOL_SOCKET, SO_REUSEADDR);
    if (sharesPort) setOption(descriptor, SOL_SOCKET, SO_REUSEPORT);
    return bind(descriptor, address.ai_addr, address.ai_addrlen) == 0 && listen(descriptor, SOMAXCONN) == 0;
}

int openSocket(int family) {
    return socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

const addrinfo& preferred(const addrinfo& found) {
    const addrinfo* address = &found;
    while (address != nullptr && address->ai_family != AF_INET)
        address = address->ai_next;
    return address != nullptr ? *address : found;
}

int listenOnPort(const Endpoint& endpoint, bool sharesPort) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(endpoint.port);
    const int error = getaddrinfo(endpoint.host.c_str(), port.c_str(), &hints, &found);
    if (error != 0) fail(endpoint, gai_strerror(error));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    const addrinfo& address = preferred(*found);
    const int descriptor = openSocket(address.ai_family);
    if (descriptor != -1 && bindPort(descriptor, address, sharesPort)) return descriptor;
    const int cause = errno;
    close(descriptor);
    fail(endpoint, std::strerror(cause));
}

int listenOnPath(const Endpoint& endpoint) {
    const int descriptor = openSocket(AF_UNIX);
    if (descriptor != -1 && bindPath(descriptor, endpoint.path)) return descriptor;
    const int cause = errno;
    close(descriptor);
    fail(endpoint, std::strerror(cause));
}

}  // namespace

Endpoint Endpoint::parse(const std::string& text) {
    Endpoint endpoint;
    if (text.compare(0, sizeof kUnix - 1, kUnix) == 0) {
        endpoint.path = text.substr(sizeof kUnix - 1);
        if (endpoint.path.empty()) throw std::invalid_argument("wants a path after unix:");
        return endpoint;
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw std::invalid_argument("wants unix:PATH, HOST:PORT or [ADDRESS]:PORT, not " + text);
    const auto port = parseNumber(text.substr(colon + 1));
    if (!port || *port > 65535) throw std::invalid_argument("wants a port from 0 to 65535 in " + text);
    endpoint.port = static_cast<std::uint16_t>(*port);
    endpoint.host = text.substr(0, colon);
    const bool isInBrackets = endpoint.host.front() == '[' && endpoint.host.back() == ']';
    if (isInBrackets) endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    const bool isAddress6 = endpoint.host.find(':') != std::string::npos;
    if (isAddress6 != isInBrackets || endpoint.host.empty())
        throw std::invalid_argument("wants an IPv6 address, and no other, in brackets in " + text);
    return endpoint;
}

std::string Endpoint::text() const {
    if (!path.empty()) return kUnix + path;
    const bool isAddress6 = host.find(':') != std::string::npos;
    return (isAddress6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

int listenOn(const Endpoint& endpoint, bool sharesPort) {
    return endpoint.path.empty() ? listenOnPort(endpoint, sharesPort) : listenOnPath(endpoint);
}

std::string textOf(const sockaddr_storage& address, socklen_t length) {
    if (address.ss_family == AF_UNIX) {
        constexpr std::size_t kPath = offsetof(sockaddr_un, sun_path);
        const char* path = reinterpret_cast<const sockaddr_un&>(address).sun_path;
        return kUnix + (length > kPath ? std::string(path, strnlen(path, length - kPath)) : "");
    }
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (getnameinfo(generic, length, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) !=
        0)
        return "?";
    Endpoint endpoint;
    endpoint.host = host;
    endpoint.port = static_cast<std::uint16_t>(std::stoul(port));
    return endpoint.text();
}

std::string addressOf(int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "?";
    return textOf(address, length);
}
