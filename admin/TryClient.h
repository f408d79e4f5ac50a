// TryClient: the gateway's protocol client, telling what it does.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Command.h"
#include "protocol/SocCGIQuilClient.h"

// What happens: told at once, kept for a document, both or neither.
class Steps {
  public:
    Steps(bool told, bool kept) : told_(told), kept_(kept) {}

    // text is for people; the document gets the details.
    void note(const char* step, const std::string& text, const Json& details);
    const Json& document() const { return document_; }

  private:
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    const bool told_;
    const bool kept_;
    Json document_ = Json::array();
};

// How the server tried last was chosen, in words.
const char* textOf(ServerChoice choice);

class TryClient : public SocCGIQuilClient {
  public:
    explicit TryClient(Steps& steps) : steps_(steps) {}
    TryClient(const TryClient&) = delete;
    TryClient& operator=(const TryClient&) = delete;

    bool connectToServer(const char* host, const char* port) override;
    using SocCGIQuilClient::connectToServer;
    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override;
    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override;
    bool processFileRequest(CText& path, bool parseFilePaths) override;

    std::uint64_t sent() const { return sent_; }          // bytes
    std::uint64_t received() const { return received_; }  // bytes
    // Why the connections, or since there is one, the transport failed; empty when they did not.
    const std::string& fault() const { return fault_; }

  private:
    Steps& steps_;
    std::uint64_t sent_ = 0;
    std::uint64_t received_ = 0;
    std::string fault_;
};
