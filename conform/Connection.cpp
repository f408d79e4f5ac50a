#include "Connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/Reset.h"
#include "platform/AddressFamily.h"

namespace {

constexpr std::uint32_t kConnectLimit = 1000;  // milliseconds that the gateway gives a connection

}  // namespace

Connection::Connection(const Server& server, int receiveBuffer) {
    if (!socket_.CreateSocket(AddressFamily(server.address.c_str()), nullptr, nullptr))
        throw Unreachable(std::strerror(errno));
    if (receiveBuffer != 0) {
        // Before connecting: the server is told then how much may be under way.
        setsockopt(socket_.GetDescriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    const bool answered = socket_.Connect(server.address.c_str(), server.port, kConnectLimit);
    if (!answered) throw Unreachable(std::strerror(socket_.GetLastError()));
    if (!socket_.IsActive()) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(socket_.GetDescriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
        throw Unreachable(std::strerror(error));
    }
    socket_.SetReadWriteTimeout(static_cast<std::uint32_t>(server.timeout.count()));
}

bool Connection::send(std::string_view bytes, std::size_t atOnce) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(atOnce, bytes.size()))) {
        const int size = static_cast<int>(std::min(atOnce, bytes.size()));
        if (socket_.SendNum(bytes.data(), size) != size) return false;
    }
    return true;
}

Connection::Came Connection::receive(std::string& bytes, std::size_t most) {
    const std::size_t size = bytes.size();
    bytes.resize(size + most);
    const int count = socket_.Receive(bytes.data() + size, static_cast<std::uint32_t>(most), 0);
    bytes.resize(size + static_cast<std::size_t>(std::max(count, 0)));
    if (count > 0) return Came::kBytes;
    if (count == 0) return Came::kEnd;
    return socket_.GetLastError() == ETIMEDOUT ? Came::kNothing : Came::kReset;
}

bool Connection::hasBytes(milliseconds time) {
    char byte = 0;
    return socket_.IsSocketReadable(static_cast<std::uint32_t>(time.count())) &&
           socket_.Receive(&byte, sizeof byte, MSG_PEEK) > 0;
}

void Connection::endSending() {
    ::shutdown(socket_.GetDescriptor(), SHUT_WR);
}

void Connection::reset() {
    resetConnection(socket_.GetDescriptor());
}
