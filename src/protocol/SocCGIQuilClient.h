// SocCGIQuilClient: the protocol client over one connection, TCP or unix.
#pragma once

#include <cstdint>

#include "net/Socket.h"
#include "protocol/QuilClient.h"

// The only place where a stream and a socket know each other. Numbers travel in network byte order.
class SocCGIQuilClient : public QuilClient {
  public:
    SocCGIQuilClient();
    SocCGIQuilClient(const SocCGIQuilClient&) : SocCGIQuilClient() {}  // a fresh client
    SocCGIQuilClient& operator=(const SocCGIQuilClient&) {
        return *this;
    }  // a client keeps its own connection
    ~SocCGIQuilClient() override = default;

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override;
    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override;
    std::uint32_t makeNetworkNumber(std::uint32_t hostValue) const override;
    std::uint32_t makeHostNumber(std::uint32_t wireValue) const override;

    // Milliseconds for each read and write, 0 for the default of 300000; returns the previous value. A failed
    // connection attempt sets it back to the default.
    std::uint32_t SetReadWriteTimeout(std::uint32_t milliseconds) override;

    // An address or a name, and a decimal port; or a path. Where the section has ALLADDRESSES each address of a name is
    // tried in turn. The connection must stand within the section's CONNECTTIMEOUT, 1000 ms without one.
    bool connectToServer(const char* host, const char* port) override;
    using QuilClient::connectToServer;

    int transportError() const override { return socket_.GetLastError(); }

  private:
    // A refill of the stream asks for 4 KB. Once one was filled to the brim, a receive takes what has come,
    // up to this, and serves the refills that follow too: a body piece of the usual size costs one system
    // call.
    static constexpr std::uint32_t kReadAhead = 65536;

    bool connectToAddress(const CText& address, const char* port, std::uint32_t milliseconds);
    bool failToFindHost();
    void noteServer(const char* addressText, const char* port, const sockaddr_storage& peer);
    bool dropSocket();
    int causeOfFailure() const;
    std::uint32_t receive(void* dst, std::uint32_t len);

    Socket socket_;
    CData ahead_;                      // empty until it is worth its memory
    std::uint32_t aheadPosition_ = 0;  // next byte to hand out
};
