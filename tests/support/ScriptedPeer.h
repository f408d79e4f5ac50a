// ScriptedPeer: an application server that does what a test's script says, byte by byte, and records every
// byte that reaches it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/osfile_impl.h"
#include "support/Wire.h"

namespace support {

struct Visit {
    std::string received;   // every byte
    wire::Request request;  // as far as the script took it
    bool isReset = false;   // the client ended it in a reset
};

// One accepted connection. Operations wait for the client. They throw std::runtime_error when less comes than
// the script asks for, which fails the test as anything else that is wrong does.
class Connection {
  public:
    Connection(int accepted, int wakeUp, Visit& visit) : socket_(accepted), wakeUp_(wakeUp), visit_(visit) {}

    std::string receive(std::size_t count) {  // exactly
        std::string bytes(count, '\0');
        const ssize_t got = ::recv(socket_.get(), bytes.data(), count, MSG_WAITALL);
        if (got != static_cast<ssize_t>(count)) throw std::runtime_error("the client sends too little");
        visit_.received += bytes;
        return bytes;
    }
    void expect(const std::string& bytes) { EXPECT_EQ(receive(bytes.size()), bytes); }
    void receiveRequest() {  // a whole one, kept in request()
        receive(12);
        visit_.request.fileTime = receiveNumber();
        visit_.request.post = receive(receiveNumber());
        for (const std::string& name : wire::kParameters) {
            expect(wire::counted(name));
            visit_.request[name] = receive(receiveNumber());
        }
        receive(4);
        EXPECT_EQ(visit_.received, wire::encode(visit_.request));
    }
    void receiveRest() {  // whatever comes until the client closes
        char block[65536];
        ssize_t got;
        while ((got = ::recv(socket_.get(), block, sizeof block, 0)) > 0)
            visit_.received.append(block, static_cast<std::size_t>(got));
        visit_.isReset = got != 0 && errno == ECONNRESET;
    }

    void send(const std::string& bytes) { ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // A server's messages one after the other; the gateway acknowledges headers and bodies.
    void serve(const std::vector<std::string>& messages) {
        for (const std::string& message : messages) {
            send(message);
            const std::string type = message.substr(8, 4);
            if (type == wire::number(4)) expect(wire::acknowledgement(4));
            if (type == wire::number(6)) expect(wire::acknowledgement(6));
        }
    }

    void stall() {  // neither sends nor receives until the client goes away or the visits are asked for
        pollfd waits[] = {{socket_.get(), POLLRDHUP, 0}, {wakeUp_, POLLIN, 0}};
        ::poll(waits, 2, -1);
    }
    bool isClosed() const {  // by the client
        pollfd wait = {socket_.get(), POLLRDHUP, 0};
        return ::poll(&wait, 1, 0) != 0;
    }
    void closeSending() { ::shutdown(socket_.get(), SHUT_WR); }  // the client reads an end and can still send
    void close() { socket_.reset(-1); }
    void reset() {  // ends the connection with an error for the client
        const linger abort = {1, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }

    const wire::Request& request() const { return visit_.request; }

  private:
    std::uint32_t receiveNumber() {
        std::uint32_t value = 0;
        for (const char byte : receive(4))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }

    Descriptor socket_;
    const int wakeUp_;
    Visit& visit_;
};

using Script = std::function<void(Connection&)>;

// A script that takes the request and serves these messages.
inline Script answering(std::vector<std::string> messages) {
    return [messages = std::move(messages)](Connection& connection) {
        connection.receiveRequest();
        connection.serve(messages);
    };
}

// A socket with a port of 127.0.0.1.
class LoopbackPort : public Descriptor {
  public:
    LoopbackPort() : Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        auto* any = reinterpret_cast<sockaddr*>(&address_);
        socklen_t size = sizeof address_;
        EXPECT_EQ(::bind(get(), any, size), 0);
        EXPECT_EQ(::getsockname(get(), any, &size), 0);
    }

    std::uint16_t port() const { return ntohs(address_.sin_port); }

  private:
    sockaddr_in address_ = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
};

using DeadPort = LoopbackPort;  // nobody listens for as long as it lives: connecting is refused at once

// Listens on a port of 127.0.0.1 from construction on and plays the script with every client, one after the
// other, in a thread of its own. When a script returns without closing, what the client still sends is
// recorded until it closes. A script that breaks off fails the test.
class ScriptedPeer {
  public:
    explicit ScriptedPeer(Script script) : script_(std::move(script)) {
        EXPECT_EQ(::listen(listener_.get(), 16), 0);
        start();
    }
    ~ScriptedPeer() { finish(); }

    std::uint16_t port() const { return listener_.port(); }

    // All visits so far: whoever has connected is served to the end first.
    std::vector<Visit>& visits() {
        finish();
        start();
        return visits_;
    }
    Visit& onlyVisit() { return visits().size() == 1 ? visits_[0] : throw std::logic_error("not one visit"); }

  private:
    void start() {
        wakeUp_.reset(::eventfd(0, EFD_CLOEXEC));
        thread_ = std::thread([this] {
            pollfd waits[] = {{listener_.get(), POLLIN, 0}, {wakeUp_.get(), POLLIN, 0}};
            while (::poll(waits, 2, -1) > 0 && waits[0].revents != 0) {
                const int accepted = ::accept(listener_.get(), nullptr, nullptr);
                Connection connection(accepted, wakeUp_.get(), visits_.emplace_back());
                try {
                    script_(connection);
                    connection.receiveRest();
                } catch (const std::exception& reason) {
                    ADD_FAILURE() << "the script breaks off: " << reason.what();
                }
            }
        });
    }
    void finish() {
        ::eventfd_write(wakeUp_.get(), 1);
        thread_.join();
    }

    const Script script_;
    const LoopbackPort listener_;
    Descriptor wakeUp_;  // readable: to finish when nobody waits any more
    std::vector<Visit> visits_;
    std::thread thread_;
};

}  // namespace support
