// The development application server, spoken to byte by byte as a gateway would.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "net/Socket.h"
#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Wire.h"

namespace {

using namespace std::chrono_literals;
namespace wire = support::wire;
using support::contains;
using support::DevServer;
using Texts = std::vector<std::string>;

// A running server; it must end with status 0 on SIGTERM and have told nothing but what the test expected.
class Server {
  public:
    explicit Server(const Texts& options = {}) : server_(options) {}
    ~Server() {
        terminate();
        const support::Outcome outcome = server_.process().wait(20s);
        EXPECT_TRUE(outcome.endedByItself);
        EXPECT_EQ(outcome.exitStatus, 0);
        EXPECT_TRUE(complained_ || outcome.err.empty()) << outcome.err;
    }

    std::uint16_t port() const { return server_.port(); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
    void terminate() { server_.process().kill(SIGTERM); }
    void expectComplaint(const std::string& message) {
        complained_ = true;
        EXPECT_TRUE(server_.process().waitForErr(message, 20s)) << message << "\n--- but:\n"
                                                                << server_.process().err();
    }

  private:
    DevServer server_;
    bool complained_ = false;
};

// A gateway's connection, on which a request has been sent.
class Client {
  public:
    Client(const Server& server, const std::string& request) {
        EXPECT_TRUE(socket_.CreateSocket(AF_INET, nullptr, nullptr) &&
                    socket_.Connect("127.0.0.1", server.port(), kLimit));
        socket_.SetReadWriteTimeout(kLimit);
        send(request);
    }

    // All that comes until the server closes. Each of its messages gets the next reply; after the last one
    // nothing more is sent. A reset, and silence for too long, stand at the end as the system's message.
    std::string answer(const Texts& replies = {}) {
        std::string all;
        auto reply = replies.begin();
        for (;;) {
            if (reply == replies.end()) ::shutdown(socket_.GetDescriptor(), SHUT_WR);
            char byte = 0;
            const int got = socket_.ReceiveNum(&byte, 1);
            if (got <= 0) return got == 0 ? all : all + std::strerror(socket_.GetLastError());
            all += byte;
            const bool isEnd = all.size() > 4 && all.compare(all.size() - 4, 4, "END!") == 0;
            if (isEnd && reply != replies.end()) send(*reply++);
        }
    }
    bool hasInputWithin(int milliseconds) const {
        pollfd waits = {socket_.GetDescriptor(), POLLIN, 0};
        return ::poll(&waits, 1, milliseconds) == 1;
    }

  private:
    static constexpr std::uint32_t kLimit = 20000;  // milliseconds

    void send(const std::string& bytes) { socket_.SendNum(bytes.data(), static_cast<int>(bytes.size())); }

    Socket socket_;
};

std::string requestFor(const std::string& path, const std::string& query = {},
                       const std::string& method = "GET", const std::string& body = {}) {
    wire::Request request;
    request["PATH_INFO"] = path;
    request["QUERY_STRING"] = query;
    request["REQUEST_METHOD"] = method;
    request["SCRIPT_NAME"] = "/cgi-bin/shop";
    request["CONTENT_TYPE"] = "multipart/form-data; boundary=\"--B\"";
    request.post = body;
    return wire::encode(request);
}

const std::string kHeaderTaken = wire::acknowledgement(6);
const std::string kBodyTaken = wire::acknowledgement(4);

std::string pageOf(const Server& server, const std::string& request) {
    return Client(server, request).answer({kHeaderTaken, kBodyTaken, ""});
}

TEST(Devserver, SpeaksTheProtocolByteForByte) {
    const Server server({"--sid", "s001"});
    const std::string header = wire::header(
        "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 20\r\nCache-Control: no-store\r\n"
        "X-Velarto-Server: " +
        server.address() + " (s001)\r\n\r\n");
    Client client(server, requestFor("/stream", "pieces=2&size=10"));
    const std::string pieces = wire::body("piece 1 o\n") + wire::body("piece 2 o\n");
    EXPECT_EQ(client.answer({kHeaderTaken, kBodyTaken, kBodyTaken}), header + pieces + wire::message(7));
}

TEST(Devserver, RefusesMalformedMessagesAndGoesOn) {
    const std::string good = requestFor("/");
    const auto changed = [&good](std::size_t position, const std::string& bytes) {
        return std::string(good).replace(position, bytes.size(), bytes);
    };
    // 0 mark, 4 version, 8 type, 12 file time, 16 body, 20 first name with its length, 36 its value
    const std::pair<Texts, const char*> cases[] = {
        {{"GET / HTTP/1.0\r\n\r\n"}, "the request does not begin with the frame mark QUIL\n"},
        {{changed(7, "\xFC")}, "the request has the protocol version 0xFFFDFFFC, not 0xFFFDFFFD\n"},
        {{changed(11, "\4")}, "the request has the message type 4, not 1\n"},
        {{changed(16, "\xFF\xFF\xFF\xFF")}, "body is 4294967295 bytes long, more than 5000\n"},
        {{changed(24, "Q\n")}, "parameter 0 of the request is \"Q\\x0AERY_STRING\", not \"QUERY_STRING\"\n"},
        {{changed(36, "\x7F\xFF\xFF\xFF")}, "QUERY_STRING is 2147483647 bytes long, more than 1048576\n"},
        {{changed(good.size() - 1, "?")}, "the request does not end with the footer END!\n"},
        {{good + "more"}, "4 bytes follow the request\n"},
        {{good.substr(0, 100)}, "did not come whole: the client closed the connection\n"},
        {{good, kBodyTaken}, "the acknowledgement of the HTTP header has the message type 4, not 6\n"},
        {{good, wire::message(6, wire::number(0))}, "the client refused the HTTP header\n"},
    };
    Server server({"--max-body", "5000"});
    for (const auto& [sent, complaint] : cases) {
        const std::string answer = Client(server, sent[0]).answer(Texts(sent.begin() + 1, sent.end()));
        EXPECT_FALSE(contains(answer, sent.size() == 1 ? "QUIL" : "<html")) << complaint;
        server.expectComplaint(complaint);
    }
    EXPECT_TRUE(contains(pageOf(server, good), "HTTP/1.0 200 OK\r\n"));
}

TEST(Devserver, ServesItsPages) {
    const Server server;
    const std::string upload =
        "----B\r\ncontent-disposition: form-data; name=\"f\"; filename=\"a<.txt\"\r\n"
        "Content-Type: text/plain\r\n\r\n1\r\n2\r\n----B--\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {requestFor(""), "HTTP/1.0 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"},
        {requestFor(""), "answered by " + server.address()},
        {requestFor("/", "<a b='x'>&\"\x01\xC3\xA9"), ">&lt;a b=&#39;x&#39;&gt;&amp;&quot;\\x01\xC3\xA9<"},
        {requestFor("/", "\xE9 \xC1\xBF \xED\xA0\x80"), ">\\xE9 \\xC1\\xBF \\xED\\xA0\\x80<"},
        {requestFor("/form", "a=1%2b1&b=%3Cb%3E+%zz"), "<th scope=\"row\">b</th><td>&lt;b&gt; %zz</td>"},
        {requestFor("/form", "", "POST", upload), "f</th><td>a&lt;.txt (text/plain), 4 bytes\n1\r\n2</td>"},
        {requestFor("/nosuch"), "HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\n"},
        {requestFor("/misbehave", "how=reset"), "HTTP/1.0 404 Not Found\r\n"},
        {requestFor("/login"), "\r\nSet-Cookie: Velarto_UserReference=7F000001"},
        {requestFor("/status", "code=302"), "\r\nLocation: /cgi-bin/shop/\r\n"},
        {requestFor("/status", "code=777&reason=Odd+<one>"), "HTTP/1.0 777 Odd <one>\r\n"},
        {requestFor("/status", "code=200&reason=a%0D%0ASet-Cookie:b"), "HTTP/1.0 400 Bad Request\r\n"},
        {requestFor("/blob", "size=18446744073709551616"), "size must be a number"},
    };
    for (const auto& [request, part] : cases)
        EXPECT_TRUE(contains(pageOf(server, request), part));
    const std::string head = pageOf(server, requestFor("/blob", "size=3", "HEAD"));
    EXPECT_TRUE(contains(head, "\r\nContent-Length: 3\r\n"));
    EXPECT_TRUE(contains(head, "\r\n\r\nEND!" + wire::message(7)));
}

TEST(Devserver, MisbehavesWhenAllowedTo) {
    const Server server({"--misbehave"});
    const std::string start = "QUIL\xFF\xFD\xFF\xFD";
    const std::pair<const char*, std::string> cases[] = {
        {"how=wrong-mark&at=header", "QUIT\xFF\xFD\xFF\xFD"},
        {"how=wrong-version&at=header", "QUIL\xFF\xFD\xFF\xFC"},
        {"how=unknown-type&at=header", start + wire::number(5)},
        {"how=absurd-length&at=header", start + wire::number(6) + "\xFF\xFF\xFF\xFFHTTP/1.0 200 OK\r\n"},
        {"how=bad-status-line", wire::header("HTTP/1.0 OK\r\nContent-Type: text/plain\r\n\r\n")},
        {"how=wrong-footer&at=header", "\r\n\r\nEND?"},
        {"how=close-in-piece&at=header", "HTTP/1.0 200 OK\r\n"},
        {"how=extra-bytes&at=header", "END!EXTRA BYTES"},
    };
    const auto answer = [&server](const char* path, const std::string& query) {
        return Client(server, requestFor(path, query)).answer();
    };
    for (const auto& [query, bytes] : cases)
        EXPECT_TRUE(contains(answer("/misbehave", query), bytes)) << query;
    EXPECT_EQ(answer("/misbehave", "how=close-now"), "");
    EXPECT_FALSE(contains(answer("/misbehave", "how=close-in-piece&at=header"), "\r\n\r\n"));
    EXPECT_EQ(answer("/misbehave", "how=reset"), std::strerror(ECONNRESET));
    for (const std::size_t size : {0u, 1u, 11u, 12u, 50u})
        EXPECT_EQ(answer("/", "cut=" + std::to_string(size)).size(), size);
}

TEST(Devserver, BoundsItsConnectionsAndEndsThemOnSigterm) {
    Server server({"--connections", "1"});
    const Client first(server, requestFor("/"));
    EXPECT_TRUE(first.hasInputWithin(20000));  // the answer has begun; it waits for its acknowledgement now
    const Client second(server, requestFor("/"));
    EXPECT_FALSE(second.hasInputWithin(100));
    server.terminate();
    server.expectComplaint(": cut off, the server ends\n");
}

TEST(Devserver, EndsAStalledConversation) {
    Server server({"--timeout", "1"});
    EXPECT_EQ(Client(server, requestFor("/").substr(0, 100)).answer({"a reply, so that it stays open"}), "");
    server.expectComplaint("did not come whole: the client was silent for too long");
}

TEST(Devserver, TellsWhatIsWrongWithTheCommandLine) {
    const Server other;
    const std::string any = "127.0.0.1:0";
    const std::pair<support::Command, std::string> cases[] = {
        {DevServer::command(other.address(), {}),
         "cannot listen on " + other.address() + ": Address already in use\n"},
        {DevServer::command("127.0.0.1", {}), "--listen: wants ADDRESS:PORT, not 127.0.0.1\n"},
        {DevServer::command("127.0.0.1:65536", {}), "--listen: wants a port from 0 to 65535, not 65536\n"},
        {DevServer::command(any, {"--sid", "s0-1"}), "--sid: wants exactly 4 letters or digits, not s0-1\n"},
        {DevServer::command(any, {"--timeout", "0"}), "--timeout: wants a number from 1 to 86400, not 0\n"},
    };
    for (const auto& [line, message] : cases) {
        const support::Outcome outcome = support::run(line, 20s);
        EXPECT_GT(outcome.exitStatus, 0) << message;
        EXPECT_TRUE(contains(outcome.err, message));
    }
    EXPECT_TRUE(contains(support::run(DevServer::command(any, {"--help"}), 20s).out, "--misbehave"));
}

}  // namespace
