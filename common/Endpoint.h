// Endpoint: where a program listens.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

// "unix:PATH", "HOST:PORT" or "[ADDRESS]:PORT", in which a host is an address or a name.
struct Endpoint {
    std::string path;  // of a unix socket; empty: host and port
    std::string host;
    std::uint16_t port = 0;  // 0: one that the system chooses

    // Throws std::invalid_argument with what is wrong.
    static Endpoint parse(const std::string& text);

    std::string text() const;
};

// A non-blocking, close-on-exec socket that listens there; the caller's. Of a name it takes the first IPv4 address, else the
// first. Several processes may listen on one port when all of them share it: each gets some of the connections. A unix
// socket takes the place of one that is there: whoever listens on that gets no new connections, and keeps those that wait
// for him. Throws std::runtime_error.
int listenOn(const Endpoint& endpoint, bool sharesPort);

// An address in the form that parse() takes.
std::string textOf(const sockaddr_storage& address, socklen_t length);

// That of a socket. A unix socket knows only the name that it was bound under at first.
std::string addressOf(int socket);
