#include "protocol/SocCGIQuilClient.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "net/AddressTurns.h"
#include "platform/AddressFamily.h"
#include "protocol/ServerState.h"

namespace {

constexpr std::uint32_t kLargestTransfer = 0x40000000;  // bytes; a count of them is a positive int
constexpr std::uint32_t kLongestIPv4 = 15;              // characters

std::uint16_t portNumber(const char* text) {
    return text == nullptr ? std::uint16_t{0} : static_cast<std::uint16_t>(std::strtol(text, nullptr, 10));
}

}  // namespace

SocCGIQuilClient::SocCGIQuilClient() {
    setTransportStep(kLargestTransfer);
}

bool SocCGIQuilClient::connectToServer(const char* host, const char* port) {
    CText addresses, address;
    AddressTurns turns(ListAddresses(host, settings().triesAllAddresses, addresses),
                       settings().connectTimeout);
    std::uint32_t milliseconds = 0;
    if (!turns.next(address, milliseconds)) return failToFindHost();
    do {
        if (connectToAddress(address, port, milliseconds)) return true;
    } while (turns.next(address, milliseconds));
    return false;
}

bool SocCGIQuilClient::failToFindHost() {
    return failConnection(ServerState::kNoSuchHost, "no such host");
}

bool SocCGIQuilClient::connectToAddress(const CText& address, const char* port, std::uint32_t milliseconds) {
    const char* addressText = address.GetTextEx();
    const int family = AddressFamily(addressText);
    if (family == AF_UNSPEC || (family == AF_INET && address.Length() > kLongestIPv4))
        return failToFindHost();
    if (!socket_.CreateSocket(family, nullptr, nullptr)) {
        const int cause = socket_.GetLastError();
        return failConnection(cause, std::strerror(cause));
    }

    sockaddr_storage peer{};
    socklen_t peerSize = sizeof peer;
    if (!socket_.Connect(addressText, portNumber(port), milliseconds) ||
        getpeername(socket_.GetDescriptor(), reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) {
        return dropSocket();
    }
    ahead_.Clear();
    aheadPosition_ = 0;
    noteServer(addressText, port, peer);
    return true;
}

void SocCGIQuilClient::noteServer(const char* addressText, const char* port, const sockaddr_storage& peer) {
    if (peer.ss_family != AF_INET) return setServerBeyondIPv4(addressText, port);
    const auto& address = reinterpret_cast<const sockaddr_in&>(peer);
    setServer(addressText, port, ntohl(address.sin_addr.s_addr), ntohs(address.sin_port));
}

// The socket goes, and its time-out with it, unless the section wants to keep that. Always false.
bool SocCGIQuilClient::dropSocket() {
    const bool isAsked = settings().namesFailures || settings().retryAfter != 0;
    const int cause = isAsked ? causeOfFailure() : 0;
    CText reason(std::strerror(cause));
    if (cause == ETIMEDOUT) reason.Format("no answer in %u ms", settings().connectTimeout);
    const std::uint32_t timeout = settings().keepsReadWriteTimeout ? socket_.SetReadWriteTimeout(0) : 0;
    socket_.DestroySocket();
    if (timeout != 0) socket_.SetReadWriteTimeout(timeout);
    return failConnection(cause, reason.GetTextEx());
}

// Why the socket found no peer, an errno value. A refusal shows as a socket that is writable and has none.
int SocCGIQuilClient::causeOfFailure() const {
    int cause = socket_.GetLastError();
    socklen_t size = sizeof cause;
    if (cause == 0) getsockopt(socket_.GetDescriptor(), SOL_SOCKET, SO_ERROR, &cause, &size);
    return cause;
}

std::uint32_t SocCGIQuilClient::readFromTransport(void* dst, std::uint32_t len) {
    if (aheadPosition_ == ahead_.GetDataSize()) {
        if (len >= ahead_.GetBufferSize()) {  // what could be received ahead is received where it belongs
            const std::uint32_t n = receive(dst, len);
            if (n == len && ahead_.GetBufferSize() == 0) ahead_.SetBufferSize(kReadAhead);
            return n;
        }
        const std::uint32_t n = receive(ahead_.GetBuffer(), ahead_.GetBufferSize());
        if (n == 0 || n == kTransportError) return n;
        ahead_.SetDataSize(n);
        aheadPosition_ = 0;
    }
    const std::uint32_t n = ahead_.Copy(static_cast<unsigned char*>(dst), len, aheadPosition_, len);
    aheadPosition_ += n;
    return n;
}

std::uint32_t SocCGIQuilClient::receive(void* dst, std::uint32_t len) {
    return static_cast<std::uint32_t>(socket_.Receive(static_cast<char*>(dst), len, 0));
}

std::uint32_t SocCGIQuilClient::writeToTransport(const void* src, std::uint32_t len) {
    return static_cast<std::uint32_t>(socket_.SendNum(static_cast<const char*>(src), static_cast<int>(len)));
}

std::uint32_t SocCGIQuilClient::makeNetworkNumber(std::uint32_t hostValue) const {
    return htonl(hostValue);
}

std::uint32_t SocCGIQuilClient::makeHostNumber(std::uint32_t wireValue) const {
    return ntohl(wireValue);
}

std::uint32_t SocCGIQuilClient::SetReadWriteTimeout(std::uint32_t milliseconds) {
    return socket_.SetReadWriteTimeout(milliseconds);
}
