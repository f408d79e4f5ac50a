// Socket: one stream socket, TCP or unix, with millisecond time-outs.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "Server/Common_Classes/UText.h"

// Every socket is non-blocking and close-on-exec; every wait ends after a time-out in milliseconds. Failures
// are a false, -1 or null result, with the cause as an errno value in GetLastError(). A peer that closed
// makes a send fail; it never raises a signal.
//
// Ownership: the object closes the descriptor it created or adopted. A copy is a view of the same descriptor:
// it never shuts it down or closes it, and must not be used once the original is gone. Assigning to a socket
// first closes the descriptor that it owns, unless it is the one assigned.
//
// Threads: one at a time. getAddressAsIP uses the C library's static buffer.
class Socket {
  public:
    Socket();
    Socket(const Socket& other);
    Socket(int descriptor, const sockaddr* address, std::uint32_t length);  // adopts, as CreateSocket does
    Socket& operator=(const Socket& other);
    virtual ~Socket();

    // A new socket of the family AF_INET, AF_INET6 or AF_UNIX, bound to localAddress:localPort (null or empty: any
    // address, a port that the system chooses). When neither is given, the port is chosen by connect() or
    // listen(), and getsockname() shows port 0 until then. One of AF_INET6 with a localAddress takes no IPv4. One
    // of AF_UNIX is bound to the path localAddress, without it to a name that the system chooses.
    virtual bool CreateSocket(int family, const char* localAddress, const char* localPort);
    // Adopts an open descriptor, such as accept() returns; length 0 means the size of an IPv4 address. When
    // it fails, the descriptor is still the caller's.
    bool CreateSocket(int descriptor, const sockaddr* address, std::uint32_t length);
    // Shuts the connection down and closes it; the time-out is the default again and there is no address.
    // True when both system calls succeeded or there was nothing to close.
    bool DestroySocket();

    // ---- connection; a result of true means "writable": confirm it with IsActive() ----
    bool Connect(const sockaddr* peer, std::uint32_t length, std::uint32_t milliseconds);  // 0: 3000 ms
    // An address of the socket's family as it is written, see AddressFamily(); with a path the port does not count.
    bool Connect(const char* address, std::uint16_t port, std::uint32_t milliseconds);
    bool IsActive() const;  // connected to a peer
    // Binds a fresh socket to the port; it stays bound until it is destroyed.
    bool IsPortAvailable(int port);

    // ---- waiting ----
    bool Select(std::uint32_t milliseconds, bool read, bool write, bool except);
    bool PollSocket(int milliseconds) {
        return Select(static_cast<std::uint32_t>(milliseconds), true, false, false);
    }
    bool IsSocketReadable(std::uint32_t milliseconds) { return Select(milliseconds, true, false, false); }
    bool IsSocketWritable(std::uint32_t milliseconds) { return Select(milliseconds, false, true, false); }

    // The time that each send and receive may wait; 0 means the default of 300000 ms. Returns the previous
    // one.
    std::uint32_t SetReadWriteTimeout(std::uint32_t milliseconds);

    // ---- sending and receiving; counts of bytes, -1 on error or time-out ----
    // The texts hold what has come, also after an error; ENOMEM when a text cannot take more.
    int Receive(char* buffer, std::uint32_t size,
                std::uint32_t flags);  // one receive; 0 when the peer closed
    int Send(const char* buffer, std::uint32_t size, std::uint32_t flags);  // one send
    int ReceiveNum(char* buffer, int size);     // until size bytes have come; fewer when the peer closed
    int SendNum(const char* buffer, int size);  // until size bytes have gone
    int Receive(CText& text, char delimiter);   // up to and including the delimiter, at most 65534 bytes
    // Mode 2: an HTTP header up to its empty line; any other mode: everything up to maxLength (below 512:
    // 65534) or the peer's close.
    int ReceiveHTTP(CText& text, int mode, std::uint32_t maxLength);

    // ---- inspection ----
    int GetDescriptor() const { return descriptor_; }  // -1 when there is none
    int GetLastError() const { return lastError_; }
    char* getAddressAsIP() const;  // dotted form of an own IPv4 address, else null; the C library's buffer
    // Whether first's peer is second's own address; family AF_UNIX or AF_INET.
    static bool IsSameConnection(int family, Socket* first, Socket* second);
    // Resolves a host: an address or a path, see AddressFamily(), is taken as it stands; a name gives its first
    // IPv4 address, or all of them joined by ":". Returns out's text, null when there is none.
    static const char* castToIP(const char* host, CText& out, bool all);

    // ---- housekeeping of the class ----
    void InitSocketData();
    void ResetSocket();  // forgets address and descriptor; closes nothing
    // malloc()ed blocks of at least size bytes and never less than an address of the family takes,
    // zero-filled or a copy of source (size 0: 16 bytes of it). Null with errno ENOMEM, or EINVAL for a null
    // source.
    sockaddr* AllocSocketAddress(std::uint16_t family, std::uint32_t size) const;
    sockaddr* AllocSocketAddress(const sockaddr* source, std::uint32_t size) const;
    void FreeSocketAddress(sockaddr* block) const;
    int setNonBlocking(bool on);

  private:
    class Deadline;
    struct FreeBlock {
        void operator()(sockaddr* block) const { std::free(block); }
    };

    bool hasDescriptorAndAddress() const { return descriptor_ >= 0 && address_ != nullptr; }
    sockaddr* copyOfAddress() const;
    bool openDescriptor(int family, const char* localAddress, std::uint16_t localPort);
    bool bindDescriptor();
    bool closeDescriptor();
    bool failCreation();
    bool waitInQueue(const sockaddr* peer, std::uint32_t length, std::uint32_t milliseconds);
    bool waitUntil(Deadline& deadline, short events);
    template <typename Attempt>
    int transfer(std::uint32_t size, short events, Attempt attempt);
    template <typename WantsMore>
    int receiveText(CText& text, std::uint32_t blockSize, WantsMore wantsMore);

    int descriptor_ = -1;
    bool ownsDescriptor_ = false;
    std::unique_ptr<sockaddr, FreeBlock> address_;
    int lastError_ = 0;
    std::uint32_t readWriteTimeout_ = 0;
};
