// Connection: the gateway's end of one connection to the server that is tried.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "net/Socket.h"

using std::chrono::milliseconds;

struct Server {
    std::string address;  // or the path of a unix socket
    std::uint16_t port = 0;
    milliseconds timeout{0};  // that each wait for it may take
};

// No connection stands; what() says why.
class Unreachable : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Threads: one at a time.
class Connection {
  public:
    static constexpr std::size_t kAtOnce = std::size_t{64} << 10;  // bytes of one send or receive

    enum class Came { kBytes, kEnd, kReset, kNothing };

    // Connects within a second, as the gateway does; throws Unreachable. A receive buffer of 0 bytes: as
    // large as the system makes it.
    explicit Connection(const Server& server, int receiveBuffer = 0);

    // False when the server does not take them all: it has closed, or does not read.
    bool send(std::string_view bytes, std::size_t atOnce = kAtOnce);
    // Appends what comes next, at most so many bytes.
    Came receive(std::string& bytes, std::size_t most = kAtOnce);
    // Whether a byte is there, or comes within the time.
    bool hasBytes(milliseconds time);

    void endSending();
    void reset();

  private:
    Socket socket_;
};
