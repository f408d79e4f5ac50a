#include "TryClient.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "Configuration.h"
#include "Probe.h"
#include "common/Text.h"

namespace {

constexpr std::uint32_t kReplyFrame = 24;  // bytes of a file reply around the file: six words

// The client does not tell why it failed: a second look does, unless the reason is plain.
std::string connectionFault(const char* host, const char* port, Milliseconds time,
                            const ConnectionSettings& settings) {
    const std::uint32_t limit = settings.connectTimeout;
    if (*host == 0) return "the entry names no host";
    if (time >= std::chrono::milliseconds(limit)) return tooLate(limit);
    const std::string fault = probe(host, port, limit, settings.triesAllAddresses).fault;
    return fault.empty() ? "the server answered only when it was tried again" : fault;
}

// After a transfer that failed: one that waited in vain has been put off last.
std::string transportFault() {
    return errno == EAGAIN ? "nothing moved within the time of CLIENTIOTIMEOUT" : std::strerror(errno);
}

}  // namespace

void Steps::note(const char* step, const std::string& text, const Json& details) {
    const Milliseconds time = since(begin_);
    if (told_) std::cerr << format("%8.1f ms  %-8s ", time.count(), step) << shown(text) << '\n';
    if (!kept_) return;
    Json entry{{"milliseconds", time.count()}, {"step", step}};
    entry.update(details);
    document_.push_back(std::move(entry));
}

const char* textOf(ServerChoice choice) {
    switch (choice) {
        case ServerChoice::kOnly:
            return "the only one";
        case ServerChoice::kForced:
            return "forced by the query";
        case ServerChoice::kUsers:
            return "named by the user reference";
        case ServerChoice::kRandom:
            return "chosen at random";
        default:
            return "none";
    }
}

bool TryClient::connectToServer(const char* host, const char* port) {
    const auto begin = std::chrono::steady_clock::now();
    const bool connected = SocCGIQuilClient::connectToServer(host, port);
    const Milliseconds time = since(begin);
    const std::string server = endpointOf(host, port);
    const std::string fault = connected ? "" : connectionFault(host, port, time, settings());

    Json details{{"host", host}, {"port", port}, {"choice", textOf(choice())}, {"took", time.count()}};
    if (!connected) details["fault"] = fault;
    steps_.note(
        "connect",
        server + ", " + textOf(choice()) +
            (connected ? ": connected in " + textOf(time) : ": failed after " + textOf(time) + ": " + fault),
        details);
    if (connected) {
        fault_.clear();
    } else {
        fault_ += (fault_.empty() ? "" : "; ") + server + ": " + fault;
    }
    return connected;
}

std::uint32_t TryClient::readFromTransport(void* dst, std::uint32_t len) {
    const std::uint32_t count = SocCGIQuilClient::readFromTransport(dst, len);
    if (count == kTransportError) {
        fault_ = transportFault();
    } else if (count == 0) {
        fault_ = "the server closed the connection";
    } else {
        received_ += count;
    }
    return count;
}

std::uint32_t TryClient::writeToTransport(const void* src, std::uint32_t len) {
    const std::uint32_t count = SocCGIQuilClient::writeToTransport(src, len);
    if (count == len) {
        sent_ += count;
    } else {
        fault_ = transportFault();
    }
    return count;
}

bool TryClient::processFileRequest(CText& path, bool parseFilePaths) {
    const std::uint64_t before = sent_;
    const bool served = SocCGIQuilClient::processFileRequest(path, parseFilePaths);
    const std::uint64_t size = served ? sent_ - before - kReplyFrame : 0;
    steps_.note("file",
                path.GetTextEx() + (served ? ": " + std::to_string(size) + " bytes"
                                           : ": refused; it is missing, unreadable, empty or no file"),
                Json{{"path", path.GetTextEx()}, {"served", served}, {"size", size}});
    return served;
}
