#include "Wire.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::uint32_t kReadStep = 1024 * 1024;

}  // namespace

std::uint32_t Wire::readFromTransport(void* dst, std::uint32_t len) {
    const int count = socket_.Receive(static_cast<char*>(dst), len, 0);
    closedByPeer_ = count == 0;
    if (count < 0) return kTransportError;
    received_ += static_cast<std::uint32_t>(count);
    return static_cast<std::uint32_t>(count);
}

std::uint32_t Wire::writeToTransport(const void* src, std::uint32_t len) {
    message_.append(static_cast<const char*>(src), len);
    return len;
}

std::uint32_t Wire::makeNetworkNumber(std::uint32_t hostValue) const {
    return htonl(hostValue);
}

std::uint32_t Wire::makeHostNumber(std::uint32_t wireValue) const {
    return ntohl(wireValue);
}

std::uint32_t Wire::SetReadWriteTimeout(std::uint32_t milliseconds) {
    return socket_.SetReadWriteTimeout(milliseconds);
}

bool Wire::marshallFooter() {
    const bool delivered = Drip::marshallFooter() && deliver(message_);
    message_.clear();
    return delivered;
}

bool Wire::marshallBytes(std::string_view bytes) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    return marshallULONG(size) && (size == 0 || writeBuffer(bytes.data(), size));
}

bool Wire::unmarshallBytes(std::string& bytes, std::uint32_t limit) {
    bytes.clear();
    std::uint32_t size = 0;
    if (!unmarshallULONG(size)) return false;
    if (size > limit) {
        refusedLength_ = size;
        return false;
    }
    while (bytes.size() < size) {
        const std::size_t start = bytes.size();
        const std::uint32_t step = std::min(size - static_cast<std::uint32_t>(start), kReadStep);
        bytes.resize(start + step);
        if (!readBuffer(bytes.data() + start, step)) return false;
    }
    return true;
}

bool Wire::deliver(std::string_view bytes) {
    const std::string_view allowed =
        allowance_ < bytes.size() ? bytes.substr(0, static_cast<std::size_t>(allowance_)) : bytes;
    allowance_ -= allowed.size();
    const int size = static_cast<int>(allowed.size());
    return socket_.SendNum(allowed.data(), size) == size && allowed.size() == bytes.size();
}

std::string Wire::failure() const {
    if (closedByPeer_) return "the client closed the connection";
    if (socket_.GetLastError() == ETIMEDOUT) return "the client was silent for too long";
    return std::strerror(socket_.GetLastError());
}
