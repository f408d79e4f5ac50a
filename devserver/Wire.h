// Wire: the server's end of a stream, over one connected socket.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "net/Socket.h"
#include "wire/Drip.h"

// A whole message is gathered and leaves in one send when its footer is written. Threads: one at a time.
class Wire : public Drip {
  public:
    explicit Wire(Socket& socket) : socket_(socket) {}
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override;
    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override;
    std::uint32_t makeNetworkNumber(std::uint32_t hostValue) const override;
    std::uint32_t makeHostNumber(std::uint32_t wireValue) const override;
    std::uint32_t SetReadWriteTimeout(std::uint32_t milliseconds) override;
    bool marshallFooter() override;

    // A text or a byte block: a length, then the bytes. Reading takes memory only as the bytes come; a length
    // above the limit fails and is told by refusedLength().
    bool marshallBytes(std::string_view bytes);
    bool unmarshallBytes(std::string& bytes, std::uint32_t limit);
    std::uint32_t refusedLength() const { return refusedLength_; }  // 0: none was

    // Sends the bytes as they are. False when not all of them went.
    bool deliver(std::string_view bytes);

    // From now on only so many more bytes leave.
    void cutAfter(std::uint64_t bytes) { allowance_ = bytes; }
    bool isCut() const { return allowance_ == 0; }

    // Closed by the client, which never sent anything.
    bool wasLeftUnused() const { return closedByPeer_ && received_ == 0; }
    std::uint32_t surplus() const { return received_ - bytesRead(); }  // bytes received but not taken yet
    // Why the transport failed last, in words.
    std::string failure() const;

  private:
    Socket& socket_;
    std::string message_;         // of the message being written
    std::uint32_t received_ = 0;  // bytes from the socket, modulo 2^32 as bytesRead()
    std::uint32_t refusedLength_ = 0;
    std::uint64_t allowance_ = std::numeric_limits<std::uint64_t>::max();
    bool closedByPeer_ = false;
};
