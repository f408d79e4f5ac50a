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

constexpr timeval kLimit = {20, 0};

[[noreturn]] void fail(const char* step) {
    throw std::system_error(errno, std::generic_category(), step);
}

int openSocket() {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

Connection::Connection(int descriptor, int wakeUp) : descriptor_(descriptor), wakeUp_(wakeUp) {
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO})
        ::setsockopt(descriptor, SOL_SOCKET, direction, &kLimit, sizeof kLimit);
}

std::string Connection::receive(std::size_t count) {
    std::string bytes(count, '\0');
    const ssize_t got = ::recv(descriptor_, bytes.data(), count, MSG_WAITALL);
    if (got < 0) fail("receiving");
    received_.append(bytes, 0, static_cast<std::size_t>(got));
    if (static_cast<std::size_t>(got) == count) return bytes;
    throw std::runtime_error("the client sent " + std::to_string(got) + " of " + std::to_string(count) +
                             " bytes");
}

void Connection::expect(const std::string& bytes) {
    if (receive(bytes.size()) != bytes) throw std::runtime_error("the client sent something else");
}

void Connection::receiveRequest() {
    request_ = wire::decode([this](std::size_t count) { return receive(count); });
    if (received_ != wire::encode(request_)) throw std::runtime_error("the client sent no proper request");
}

void Connection::receiveRest() {
    char block[65536];
    ssize_t got;
    while ((got = ::recv(descriptor_, block, sizeof block, 0)) > 0)
        received_.append(block, static_cast<std::size_t>(got));
}

void Connection::send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) fail("sending");
        sent += static_cast<std::size_t>(count);
    }
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
    ::poll(waits, 2, static_cast<int>(kLimit.tv_sec) * 1000);
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

ScriptedPeer::ScriptedPeer(Script script, int receiveBuffer)
    : script_(std::move(script)), listener_(openSocket()), wakeUp_(::eventfd(0, EFD_CLOEXEC)) {
    if (receiveBuffer != 0)
        ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    port_ = bindLoopback(listener_, 0);
    if (wakeUp_ < 0 || port_ == 0 || ::listen(listener_, 16) != 0) fail("listening");
    start();
}

ScriptedPeer::~ScriptedPeer() {
    finish();
    ::close(listener_);
    ::close(wakeUp_);
}

void ScriptedPeer::start() {
    thread_ = std::thread([this] {
        pollfd waits[] = {{listener_, POLLIN, 0}, {wakeUp_, POLLIN, 0}};
        while (::poll(waits, 2, -1) > 0 && waits[0].revents != 0)
            serve(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    });
}

void ScriptedPeer::finish() {
    eventfd_t ignored;
    ::eventfd_write(wakeUp_, 1);
    thread_.join();
    ::eventfd_read(wakeUp_, &ignored);
}

void ScriptedPeer::serve(int descriptor) {
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

std::vector<ScriptedPeer::Visit>& ScriptedPeer::visits() {
    finish();
    start();
    return visits_;
}

ScriptedPeer::Visit& ScriptedPeer::onlyVisit() {
    if (visits().size() != 1) throw std::logic_error(std::to_string(visits_.size()) + " visits, not one");
    return visits_.front();
}

DeadPort::DeadPort(std::uint16_t port) : descriptor_(openSocket()), port_(bindLoopback(descriptor_, port)) {}

}  // namespace support
