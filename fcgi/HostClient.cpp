#include "HostClient.h"

#include <algorithm>
#include <cerrno>

HostClient::HostClient(FcgiRequest& response, Metrics& metrics, std::uint32_t readWriteTimeout,
                       Clock::time_point deadline)
    : response_(response), metrics_(metrics), readWriteTimeout_(readWriteTimeout), deadline_(deadline) {}

HostClient::~HostClient() {
    if (server_ != nullptr) server_->inFlight->Decrement();
}

bool HostClient::connectToServer(const char* host, const char* port) {
    ServerMetrics& server = metrics_.server(serverEntry().GetTextEx());
    server.attempts->Increment();
    server.choices[static_cast<std::size_t>(choice())]->Increment();
    const bool isConnected = hasTime() ? SocCGIQuilClient::connectToServer(host, port)
                                       : failConnection(ETIMEDOUT, "the request's time is over");
    if (!isConnected) {
        metrics_.countFailure(server, failureCause());
        return false;
    }
    server_ = &server;
    server_->inFlight->Increment();
    return true;
}

std::uint32_t HostClient::readBegin() {
    return response_.flush() ? 1 : 0;
}

std::uint32_t HostClient::readFromTransport(void* dst, std::uint32_t len) {
    return hasTime() ? SocCGIQuilClient::readFromTransport(dst, len) : kTransportError;
}

std::uint32_t HostClient::writeToTransport(const void* src, std::uint32_t len) {
    return hasTime() ? SocCGIQuilClient::writeToTransport(src, len) : kTransportError;
}

std::uint32_t HostClient::SetReadWriteTimeout(std::uint32_t milliseconds) {
    return std::exchange(readWriteTimeout_, milliseconds);
}

int HostClient::transportError() const {
    return isTooLate_ ? ETIMEDOUT : SocCGIQuilClient::transportError();
}

// Whether there is time left; no wait goes on for longer.
bool HostClient::hasTime() {
    constexpr std::uint32_t kDefault = 300000;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    isTooLate_ = left <= 0;
    if (isTooLate_) return false;
    const std::uint32_t usual = readWriteTimeout_ != 0 ? readWriteTimeout_ : kDefault;
    SocCGIQuilClient::SetReadWriteTimeout(static_cast<std::uint32_t>(std::min<long long>(left, usual)));
    return true;
}
