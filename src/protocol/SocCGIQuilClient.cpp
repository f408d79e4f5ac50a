#include "protocol/SocCGIQuilClient.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::uint32_t kConnectTimeout = 1000;  // milliseconds

std::uint16_t portNumber(const char* text) {
    return text == nullptr ? std::uint16_t{0} : static_cast<std::uint16_t>(std::strtol(text, nullptr, 10));
}

}  // namespace

bool SocCGIQuilClient::connectToServer(const char* host, const char* port) {
    CText address;
    const char* addressText = Socket::castToIP(host, address, false);
    if (addressText == nullptr || address.IsEmpty() || address.Length() >= kAddressSize) return false;
    if (!socket_.CreateSocket(AF_INET, nullptr, nullptr)) return false;

    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    if (!socket_.Connect(addressText, portNumber(port), kConnectTimeout) ||
        getpeername(socket_.GetDescriptor(), reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) {
        socket_.DestroySocket();
        return false;
    }
    aheadPosition_ = aheadFill_ = 0;
    setServer(addressText, port, ntohl(peer.sin_addr.s_addr), ntohs(peer.sin_port));
    return true;
}

std::uint32_t SocCGIQuilClient::readFromTransport(void* dst, std::uint32_t len) {
    if (aheadPosition_ == aheadFill_) {
        const int received = socket_.Receive(ahead_, kReadAhead, 0);
        if (received <= 0) return static_cast<std::uint32_t>(received);
        aheadPosition_ = 0;
        aheadFill_ = static_cast<std::uint32_t>(received);
    }
    const std::uint32_t n = std::min(len, aheadFill_ - aheadPosition_);
    std::memcpy(dst, ahead_ + aheadPosition_, n);
    aheadPosition_ += n;
    return n;
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
