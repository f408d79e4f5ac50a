// HostClient: the protocol client of a long-lived host.
#pragma once

#include <chrono>

#include "FcgiRequest.h"
#include "Metrics.h"
#include "protocol/SocCGIQuilClient.h"

// What the web server has not been sent yet leaves before the server is waited for; nothing goes on after the deadline;
// and each attempt to connect is counted.
class HostClient final : public SocCGIQuilClient {
  public:
    using Clock = std::chrono::steady_clock;

    HostClient(FcgiRequest& response, Metrics& metrics, std::uint32_t readWriteTimeout,
               Clock::time_point deadline);
    ~HostClient() override;

    bool connectToServer(const char* host, const char* port) override;
    std::uint32_t readBegin() override;
    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override;
    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override;
    std::uint32_t SetReadWriteTimeout(std::uint32_t milliseconds) override;
    int transportError() const override;

  private:
    bool hasTime();

    FcgiRequest& response_;
    Metrics& metrics_;
    ServerMetrics* server_ = nullptr;  // that it is connected to
    std::uint32_t readWriteTimeout_;   // milliseconds, of the section
    const Clock::time_point deadline_;
    bool isTooLate_ = false;
};
