#include "support/ScriptedPeer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace support {
namespace {

constexpr int kLimitMilliseconds = 20000;

[[noreturn]] void fail(const char* step) {
    throw std::system_error(errno, std::generic_category(), step);
}

int openSocket(int flags) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    const int on = 1;
    if (descriptor < 0) fail("socket");
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return descriptor;
}

// Binds to a port of 127.0.0.1 and tells which; 0 when the port asked for is taken.
std::uint16_t bindLoopback(int descriptor, std::uint16_t port) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0) return 0;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) fail("getsockname");
    return ntohs(address.sin_port);
}

}  // namespace

// ---- Connection -------------------------------------------------------------------------------------------

void Connection::waitFor(short events) {
    pollfd wait = {descriptor_, events, 0};
    int ready;
    do {
        ready = ::poll(&wait, 1, kLimitMilliseconds);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) throw std::runtime_error("the client kept the server waiting");
}

std::string Connection::receive(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t have = 0; have < count;) {
        waitFor(POLLIN);
        const ssize_t got = ::recv(descriptor_, &bytes[have], count - have, 0);
        if (got < 0) fail("receiving");
        if (got == 0) {
            throw std::runtime_error("the client closed " + std::to_string(count - have) +
                                     " bytes before the end of " + std::to_string(count));
        }
        received_.append(bytes, have, static_cast<std::size_t>(got));
        have += static_cast<std::size_t>(got);
    }
    return bytes;
}

void Connection::expect(const std::string& bytes) {
    if (receive(bytes.size()) != bytes) throw std::runtime_error("the client sent something else");
}

wire::Request& Connection::receiveRequest() {
    request_ = wire::decode([this](std::size_t count) { return receive(count); });
    return request_;
}

void Connection::receiveRest() {
    char block[65536];
    while (descriptor_ >= 0) {
        waitFor(POLLIN);
        const ssize_t got = ::recv(descriptor_, block, sizeof block, 0);
        if (got <= 0) return;
        received_.append(block, static_cast<std::size_t>(got));
    }
}

void Connection::send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        waitFor(POLLOUT);
        const ssize_t count = ::send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN) fail("sending");
        if (count > 0) sent += static_cast<std::size_t>(count);
    }
}

void Connection::sendInPieces(const std::string& bytes, std::size_t size) {
    for (std::size_t at = 0; at < bytes.size(); at += size)
        send(bytes.substr(at, size));
}

void Connection::serve(const std::vector<std::string>& messages) {
    for (const std::string& message : messages) {
        send(message);
        for (const std::uint32_t type : {4u, 6u}) {
            if (message.substr(8, 4) == wire::number(type)) expect(wire::acknowledgement(type));
        }
    }
}

void Connection::stall() {
    pollfd waits[] = {{descriptor_, POLLRDHUP, 0}, {wakeUp_, POLLIN, 0}};
    while (::poll(waits, 2, kLimitMilliseconds) < 0 && errno == EINTR) {
    }
}

void Connection::closeSending() {
    ::shutdown(descriptor_, SHUT_WR);
}

void Connection::close() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

void Connection::reset() {
    const linger abort = {1, 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close();
}

Script answering(std::vector<std::string> messages) {
    return [messages = std::move(messages)](Connection& connection) {
        connection.receiveRequest();
        connection.serve(messages);
    };
}

// ---- ScriptedPeer -----------------------------------------------------------------------------------------

ScriptedPeer::ScriptedPeer(Script script, int receiveBuffer)
    : script_(std::move(script)), listener_(openSocket(SOCK_NONBLOCK)), wakeUp_(::eventfd(0, EFD_CLOEXEC)) {
    if (receiveBuffer != 0) {
        ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    port_ = bindLoopback(listener_, 0);
    if (wakeUp_ < 0 || port_ == 0 || ::listen(listener_, 16) != 0) fail("listening");
    thread_ = std::thread(&ScriptedPeer::accept, this);
}

ScriptedPeer::~ScriptedPeer() {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
    }
    ::eventfd_write(wakeUp_, 1);
    thread_.join();
    ::close(listener_);
    ::close(wakeUp_);
}

void ScriptedPeer::accept() {
    for (;;) {
        pollfd waits[] = {{listener_, POLLIN, 0}, {wakeUp_, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) continue;
        const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor < 0) {
            if (waits[1].revents == 0) continue;
            eventfd_t ignored;
            ::eventfd_read(wakeUp_, &ignored);
            const std::lock_guard<std::mutex> guard(mutex_);
            if (stopping_) return;
            settled_ = true;
            changed_.notify_all();
            continue;
        }
        const int on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Connection connection(descriptor, wakeUp_);
        Visit visit;
        try {
            script_(connection);
            connection.receiveRest();
        } catch (const std::exception& reason) {
            visit.fault = reason.what();
        }
        visit.received = connection.received();
        visit.request = connection.request();
        visits_.push_back(std::move(visit));
    }
}

std::vector<ScriptedPeer::Visit>& ScriptedPeer::visits() {
    std::unique_lock<std::mutex> guard(mutex_);
    settled_ = false;
    ::eventfd_write(wakeUp_, 1);
    changed_.wait(guard, [this] { return settled_; });
    return visits_;
}

// ---- DeadPort ---------------------------------------------------------------------------------------------

DeadPort::DeadPort(std::uint16_t port) : descriptor_(openSocket(0)), port_(bindLoopback(descriptor_, port)) {}

DeadPort::~DeadPort() {
    ::close(descriptor_);
}

}  // namespace support
