#include "Probe.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "net/Socket.h"

namespace {

using Clock = std::chrono::steady_clock;

// A look-up cannot be called off: it gets a thread of its own, which is left behind when it takes too long.
std::future<std::string> addressOf(const std::string& host) {
    std::packaged_task<std::string()> lookUp([host] {
        CText address;
        const char* text = Socket::castToIP(host.c_str(), address, false);
        return std::string(text != nullptr ? text : "");
    });
    std::future<std::string> address = lookUp.get_future();
    std::thread(std::move(lookUp)).detach();
    return address;
}

// Why the socket, which has an answer, is not connected.
std::string refusal(const Socket& socket) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket.GetDescriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
    return std::strerror(error != 0 ? error : ENOTCONN);
}

std::string connectionFault(const std::string& host, const std::string& port, std::uint32_t limit) {
    const auto end = Clock::now() + std::chrono::milliseconds(limit);
    std::future<std::string> lookUp = addressOf(host);
    if (lookUp.wait_until(end) != std::future_status::ready)
        return "the host is not found within " + std::to_string(limit) + " ms";
    const std::string address = lookUp.get();
    if (address.empty()) return "no such host";

    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    Socket socket;
    const bool answered =
        socket.CreateSocket(AF_INET, nullptr, nullptr) &&
        socket.Connect(address.c_str(), static_cast<std::uint16_t>(std::strtol(port.c_str(), nullptr, 10)),
                       static_cast<std::uint32_t>(std::max<std::int64_t>(left, 1)));
    if (answered) return socket.IsActive() ? "" : refusal(socket);
    return socket.GetLastError() == ETIMEDOUT ? tooLate(limit) : std::strerror(socket.GetLastError());
}

}  // namespace

Probe probe(const std::string& host, const std::string& port, std::uint32_t limit) {
    const auto begin = Clock::now();
    const std::string fault = connectionFault(host, port, limit);
    return {since(begin), fault};
}

std::string tooLate(std::uint32_t limit) {
    return "no answer within " + std::to_string(limit) + " ms";
}
