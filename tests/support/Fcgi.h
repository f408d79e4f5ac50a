// Fcgi: a web server's half of FastCGI as plain bytes, built here from scratch, over a unix socket.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/osfile_impl.h"

namespace support::fcgi {

using Variables = std::vector<std::pair<std::string, std::string>>;

enum Type { kBegin = 1, kAbort = 2, kEnd = 3, kParams = 4, kStdin = 5, kStdout = 6, kGetValues = 9 };

inline std::string record(int type, const std::string& content, int id = 1, int version = 1) {
    const auto byte = [](std::size_t value) { return static_cast<char>(value & 0xFF); };
    const auto idBytes = static_cast<std::size_t>(id);
    return std::string{byte(static_cast<std::size_t>(version)),
                       byte(static_cast<std::size_t>(type)),
                       byte(idBytes >> 8),
                       byte(idBytes),
                       byte(content.size() >> 8),
                       byte(content.size()),
                       0,
                       0} +
           content;
}

inline std::string begin(bool isKept, int role = 1) {
    return record(kBegin, std::string{0, static_cast<char>(role), isKept ? '\1' : '\0', 0, 0, 0, 0, 0});
}

// A stream of any length in records, with its end.
inline std::string stream(int type, const std::string& bytes) {
    std::string records;
    for (std::size_t at = 0; at < bytes.size(); at += 65535)
        records += record(type, bytes.substr(at, 65535));
    return records + record(type, "");
}

inline std::string length(std::size_t value) {
    if (value < 128) return std::string(1, static_cast<char>(value));
    return {static_cast<char>(value >> 24 | 0x80), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string params(const Variables& variables) {
    std::string bytes;
    for (const auto& [name, value] : variables)
        bytes += length(name.size()) + length(value.size()) + name + value;
    return stream(kParams, bytes);
}

inline std::string request(const Variables& variables, const std::string& body = "", bool isKept = false) {
    return begin(isKept) + params(variables) + stream(kStdin, body);
}

struct Reply {
    std::string out;
    bool isWhole = false;  // the end of the response came
};

class Client {
  public:
    explicit Client(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const auto* generic = reinterpret_cast<const sockaddr*>(&address);
        isConnected_ = ::connect(socket_.get(), generic, sizeof address) == 0;
    }

    bool isConnected() const { return isConnected_; }
    bool send(const std::string& bytes) {
        iovec part{const_cast<char*>(bytes.data()), bytes.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        return ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool hasReply(int milliseconds) const {
        pollfd wait = {socket_.get(), POLLIN, 0};
        return ::poll(&wait, 1, milliseconds) != 0;
    }
    void closeSending() { ::shutdown(socket_.get(), SHUT_WR); }

    // Up to the response's end, or the connection's, or a record of another version.
    Reply receive() {
        Reply reply;
        for (std::string head; take(head, 8) && head[0] == 1;) {
            const auto byte = [&head](std::size_t i) {
                return std::size_t{static_cast<unsigned char>(head[i])};
            };
            const std::size_t size = byte(4) << 8 | byte(5);
            std::string content;
            if (!take(content, size + byte(6))) break;
            if (byte(1) == kStdout) reply.out.append(content, 0, size);
            reply.isWhole = byte(1) == kEnd;
            if (reply.isWhole) break;
        }
        return reply;
    }
    Reply ask(const std::string& bytes) {
        send(bytes);
        return receive();
    }

  private:
    bool take(std::string& bytes, std::size_t count) {
        bytes.resize(count);
        return count == 0 ||
               ::recv(socket_.get(), bytes.data(), count, MSG_WAITALL) == static_cast<ssize_t>(count);
    }

    Descriptor socket_;
    bool isConnected_;
};

}  // namespace support::fcgi
