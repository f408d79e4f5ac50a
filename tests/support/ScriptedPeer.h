// ScriptedPeer: an application server that does what a test's script says, byte by byte, and records every
// byte that reaches it.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/Wire.h"

namespace support {

// One accepted connection. Operations wait for the client, at most 20 seconds; they throw std::runtime_error
// when something else happens than the script asks for.
class Connection {
  public:
    Connection(int descriptor, int wakeUp);
    Connection(const Connection&) = delete;
    ~Connection() { close(); }

    std::string receive(std::size_t count);  // exactly
    void expect(const std::string& bytes);
    void receiveRequest();  // a whole request, kept in request()
    void receiveRest();     // whatever comes until the client closes

    void send(const std::string& bytes);
    // A server's messages one after the other; the gateway acknowledges headers and bodies.
    void serve(const std::vector<std::string>& messages);

    void stall();  // neither sends nor receives until the client goes away or the visits are asked for
    void closeSending() { ::shutdown(descriptor_, SHUT_WR); }  // the client reads an end; its sending goes on
    void close();
    void reset();  // ends the connection with an error for the client

    const std::string& received() const { return received_; }
    const wire::Request& request() const { return request_; }

  private:
    int descriptor_;
    int wakeUp_;
    std::string received_;
    wire::Request request_;
};

using Script = std::function<void(Connection&)>;

// A script that takes the request and serves these messages.
Script answering(std::vector<std::string> messages);

// Listens on a port of 127.0.0.1 from construction on and plays the script with every client, one after the
// other, in a thread of its own. When a script returns without closing, what the client still sends is
// recorded until it closes.
class ScriptedPeer {
  public:
    struct Visit {
        std::string received;   // every byte
        wire::Request request;  // as far as the script took it
        std::string fault;      // why the script broke off; empty when it did not
    };

    // A receive buffer of 0 leaves the system's default.
    explicit ScriptedPeer(Script script, int receiveBuffer = 0);
    ScriptedPeer(const ScriptedPeer&) = delete;
    ~ScriptedPeer();

    std::uint16_t port() const { return port_; }

    // All visits so far: whoever has connected is served to the end first.
    std::vector<Visit>& visits();
    // The only one so far; throws std::logic_error when there was another number.
    Visit& onlyVisit();

  private:
    void start();
    void finish();  // waits until whoever has connected is served
    void serve(int descriptor);

    Script script_;
    int listener_;
    int wakeUp_;  // readable: to finish when nobody waits any more
    std::uint16_t port_;
    std::vector<Visit> visits_;
    std::thread thread_;
};

// A port of 127.0.0.1 on which nobody listens for as long as this lives: connecting is refused at once.
class DeadPort {
  public:
    explicit DeadPort(std::uint16_t port = 0);  // 0: any
    DeadPort(const DeadPort&) = delete;
    ~DeadPort() { ::close(descriptor_); }

    std::uint16_t port() const { return port_; }
    bool held() const { return port_ != 0; }  // false: somebody listens on the port asked for

  private:
    int descriptor_;
    std::uint16_t port_ = 0;
};

}  // namespace support
