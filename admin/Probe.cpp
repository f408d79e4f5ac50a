#include "Probe.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "net/AddressTurns.h"
#include "net/Socket.h"
#include "platform/AddressFamily.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTooLate[] = "too late";

// A look-up cannot be called off: it gets a thread of its own, which is left behind when it takes too long.
std::future<std::string> addressesOf(const std::string& host, bool all) {
    std::packaged_task<std::string()> lookUp([host, all] {
        CText addresses;
        return std::string(ListAddresses(host.c_str(), all, addresses).GetTextEx());
    });
    std::future<std::string> addresses = lookUp.get_future();
    std::thread(std::move(lookUp)).detach();
    return addresses;
}

// Why the socket, which has an answer, is not connected.
std::string refusal(const Socket& socket) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket.GetDescriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
    return std::strerror(error != 0 ? error : ENOTCONN);
}

std::string faultOfAddress(const CText& address, const std::string& port, std::uint32_t milliseconds) {
    const char* text = address.GetTextEx();
    Socket socket;
    const bool answered =
        socket.CreateSocket(AddressFamily(text), nullptr, nullptr) &&
        socket.Connect(text, static_cast<std::uint16_t>(std::strtol(port.c_str(), nullptr, 10)),
                       milliseconds);
    if (answered) return socket.IsActive() ? "" : refusal(socket);
    return socket.GetLastError() == ETIMEDOUT ? kTooLate : std::strerror(socket.GetLastError());
}

std::string connectionFault(const std::string& host, const std::string& port, std::uint32_t limit, bool all) {
    const auto end = Clock::now() + std::chrono::milliseconds(limit);
    std::future<std::string> lookUp = addressesOf(host, all);
    if (lookUp.wait_until(end) != std::future_status::ready)
        return "the host is not found within " + std::to_string(limit) + " ms";
    const CText addresses(lookUp.get().c_str());
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    AddressTurns turns(addresses, static_cast<std::uint32_t>(std::max<std::int64_t>(left, 1)));
    std::string fault = "no such host";
    CText address;
    for (std::uint32_t milliseconds = 0; !fault.empty() && turns.next(address, milliseconds);)
        fault = faultOfAddress(address, port, milliseconds);
    return fault == kTooLate ? tooLate(limit) : fault;
}

}  // namespace

Probe probe(const std::string& host, const std::string& port, std::uint32_t limit, bool all) {
    const auto begin = Clock::now();
    const std::string fault = connectionFault(host, port, limit, all);
    return {since(begin), fault};
}

std::string tooLate(std::uint32_t limit) {
    return "no answer within " + std::to_string(limit) + " ms";
}
