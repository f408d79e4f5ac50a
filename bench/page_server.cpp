// The application server of the benchmarks: answers with pages made beforehand, at so little cost that what
// is measured is the client. Pages and options: pages.h. As the protocol demands, each message waits until
// the one before it has been acknowledged.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "pages.h"
#include "protocol/QuilTypes.h"

namespace {

constexpr std::size_t kNumberSize = 4;
constexpr std::size_t kHeadSize = 12;  // mark, version, type
constexpr std::size_t kFooterSize = 4;
constexpr std::size_t kAcknowledgementSize = kHeadSize + kNumberSize + kFooterSize;

std::uint32_t numberAt(const char* bytes) {
    std::uint32_t wire = 0;
    std::memcpy(&wire, bytes, sizeof wire);
    return ntohl(wire);
}

void appendNumber(std::string& bytes, std::uint32_t number) {
    const std::uint32_t wire = htonl(number);
    bytes.append(reinterpret_cast<const char*>(&wire), sizeof wire);
}

std::string head(TQUILReqType type) {
    std::string bytes = "QUIL";
    appendNumber(bytes, QUIL_PROTOCOL_VERSION);
    appendNumber(bytes, type);
    return bytes;
}

std::string message(TQUILReqType type, std::string_view text) {
    std::string bytes = head(type);
    appendNumber(bytes, static_cast<std::uint32_t>(text.size()));
    return bytes.append(text).append("END!");
}

// ---- Requests ---------------------------------------------------------------------------------------------

struct Request {
    std::string_view path;  // valid until the next request is read
    std::uint32_t bodySize = 0;
};

class RequestReader {
  public:
    // False when the client ends early or sends what is no request.
    bool read(int peer, Request& request) {
        fill_ = 0;
        while (fill_ < kBodyStart) {
            if (!receive(peer)) return false;
        }
        if (std::memcmp(buffer_, "QUIL", 4) != 0 || numberAt(buffer_ + 8) != QUIL_REQUEST) return false;
        request.bodySize = numberAt(buffer_ + kBodyStart - kNumberSize);
        const std::size_t bodyHere = std::min<std::size_t>(request.bodySize, fill_ - kBodyStart);
        if (!discard(peer, request.bodySize - bodyHere)) return false;

        const std::size_t parametersStart = kBodyStart + bodyHere;
        for (;;) {
            const std::string_view parameters(buffer_ + parametersStart, fill_ - parametersStart);
            if (const auto path = pathIn(parameters)) {
                request.path = *path;
                return true;
            }
            if (!receive(peer)) return false;
        }
    }

  private:
    static constexpr std::size_t kBodyStart = kHeadSize + 2 * kNumberSize;  // after file time and body size

    bool receive(int peer) {
        const ssize_t n = recv(peer, buffer_ + fill_, sizeof buffer_ - fill_, 0);
        if (n <= 0) return false;
        fill_ += static_cast<std::size_t>(n);
        return true;
    }

    // The system throws the bytes away without copying them.
    static bool discard(int peer, std::size_t size) {
        while (size > 0) {
            const ssize_t n = recv(peer, nullptr, size, MSG_TRUNC | MSG_WAITALL);
            if (n <= 0) return false;
            size -= static_cast<std::size_t>(n);
        }
        return true;
    }

    static std::optional<std::string_view> takeText(std::string_view& bytes) {
        if (bytes.size() < kNumberSize) return std::nullopt;
        const std::size_t length = numberAt(bytes.data());
        if (bytes.size() - kNumberSize < length) return std::nullopt;
        const std::string_view text = bytes.substr(kNumberSize, length);
        bytes.remove_prefix(kNumberSize + length);
        return text;
    }

    // The value of PATH_INFO, once all parameters and the footer are there.
    static std::optional<std::string_view> pathIn(std::string_view parameters) {
        std::optional<std::string_view> path;
        for (unsigned id = 0; id < QUIL_PARAM_NONE; ++id) {
            const auto name = takeText(parameters);
            const auto value = name ? takeText(parameters) : std::nullopt;
            if (!value) return std::nullopt;
            if (id == QUIL_PARAM_PATH_INFO) path = value;
        }
        return parameters.size() >= kFooterSize ? path : std::nullopt;
    }

    char buffer_[256 * 1024];
    std::size_t fill_ = 0;
};

// ---- Answers ----------------------------------------------------------------------------------------------

std::string headerMessage(const char* status, std::uint64_t contentLength) {
    char fields[HEADER_FIELDS_SIZE];
    const std::size_t size = write_header_fields(fields, contentLength);
    return message(QUIL_HTTP_HEADER, std::string("HTTP/1.0 ") + status + "\r\n" + std::string(fields, size));
}

struct Answer {
    std::string header;
    std::string piece;
    std::size_t count = 1;
};

Answer textAnswer(const char* status, std::string_view text) {
    return {headerMessage(status, text.size()), message(QUIL_BODY_DATA, text), 1};
}

Answer pageAnswer(const page& wanted) {
    std::string piece(wanted.bytes, '\0');
    fill_piece(piece.data(), piece.size());
    return {headerMessage("200 OK", std::uint64_t{wanted.count} * wanted.bytes),
            message(QUIL_BODY_DATA, piece), wanted.count};
}

class Answers {
  public:
    // Valid until the next call: a page that is asked for again is not made again.
    const Answer& find(const Request& request) {
        page wanted{};
        if (!parse_page(request.path.data(), request.path.size(), &wanted)) {
            other_ = textAnswer("404 Not Found", "no such page\n");
            return other_;
        }
        if (wanted.is_sink) {
            char text[SINK_PAGE_SIZE];
            other_ = textAnswer("200 OK", {text, write_sink_page(text, request.bodySize)});
            return other_;
        }
        if (wanted.count != made_.count || wanted.bytes != made_.bytes) {
            page_ = pageAnswer(wanted);
            made_ = wanted;
        }
        return page_;
    }

  private:
    page made_{};
    Answer page_;
    Answer other_;
};

bool sendAll(int peer, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool sendAndAwaitAcknowledgement(int peer, const std::string& bytes) {
    char acknowledgement[kAcknowledgementSize];
    return sendAll(peer, bytes) &&
           recv(peer, acknowledgement, sizeof acknowledgement, MSG_WAITALL) == sizeof acknowledgement;
}

void sendAnswer(int peer, const Answer& answer) {
    static const std::string end = head(QUIL_END) + "END!";
    if (!sendAndAwaitAcknowledgement(peer, answer.header)) return;
    for (std::size_t i = 0; i < answer.count; ++i) {
        if (!sendAndAwaitAcknowledgement(peer, answer.piece)) return;
    }
    sendAll(peer, end);
}

void serve(int listener) {
    static RequestReader reader;
    Answers answers;
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer < 0) continue;
        Request request;
        if (reader.read(peer, request)) sendAnswer(peer, answers.find(request));
        close(peer);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run_workers(argc, argv, serve);
}
