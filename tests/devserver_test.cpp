// The development application server, spoken to byte by byte as a gateway would.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support/Process.h"
#include "support/Wire.h"

namespace {

using namespace std::chrono_literals;
namespace wire = support::wire;

support::Command command(std::vector<std::string> options) {
    support::Command command;
    command.program = VELARTO_DEVSERVER_PATH;
    command.arguments = std::move(options);
    command.arguments.insert(command.arguments.begin(), command.program);
    command.environment = support::currentEnvironment();
    return command;
}

// A gateway's connection. Operations wait for the server, at most 20 seconds, and throw std::system_error or
// std::runtime_error when it does something else.
class Client {
  public:
    explicit Client(std::uint16_t port) : descriptor_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval limit = {20, 0};
        ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        check(::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address));
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { close(); }

    // The server may close before it has read all: that is seen when receiving.
    void send(const std::string& bytes) { ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    std::string receive(std::size_t size) {
        std::string bytes(size, '\0');
        bytes.resize(check(::recv(descriptor_, bytes.data(), size, MSG_WAITALL)));
        if (bytes.size() != size) throw std::runtime_error("the server closed the connection");
        return bytes;
    }
    void expect(const std::string& bytes) {
        const std::string got = receive(bytes.size());
        if (got != bytes) throw std::runtime_error("expected " + bytes + " but got " + got);
    }
    std::string rest() {
        std::string all;
        std::string bytes(4096, '\0');
        while (const std::size_t got = check(::recv(descriptor_, bytes.data(), bytes.size(), 0)))
            all.append(bytes, 0, got);
        return all;
    }

    bool hasInput() const {
        pollfd wait = {descriptor_, POLLIN, 0};
        return ::poll(&wait, 1, 0) != 0;
    }
    void endSending() { ::shutdown(descriptor_, SHUT_WR); }
    void close() { ::close(std::exchange(descriptor_, -1)); }

  private:
    static std::size_t check(ssize_t result) {
        if (result < 0) throw std::system_error(errno, std::generic_category());
        return static_cast<std::size_t>(result);
    }

    int descriptor_;
};

wire::Request requestFor(const std::string& path, const std::string& query = {},
                         const std::string& method = "GET") {
    wire::Request request;
    request["PATH_INFO"] = path;
    request["QUERY_STRING"] = query;
    request["REQUEST_METHOD"] = method;
    request["SCRIPT_NAME"] = "/cgi-bin/shop";
    return request;
}

struct Answer {
    std::string header;
    std::vector<std::string> pieces;

    std::string body() const {
        std::string all;
        for (const std::string& piece : pieces)
            all += piece;
        return all;
    }
};

struct Message {
    std::string type;
    std::string text;  // none of the end
};

// Takes one message as a gateway without any files does: acknowledges, and refuses file requests.
Message takeMessage(Client& server) {
    const std::string start = "QUIL\xFF\xFD\xFF\xFD";
    server.expect(start);
    Message message = {server.receive(4), ""};
    const bool isEnd = message.type == wire::number(7);
    if (!isEnd) {
        std::uint32_t size = 0;
        for (const char byte : server.receive(4))
            size = size << 8 | static_cast<unsigned char>(byte);
        message.text = server.receive(size);
    }
    server.expect("END!");
    if (message.type == wire::number(2)) {
        server.send(wire::fileRefused());
    } else if (!isEnd) {
        server.send(start + message.type + wire::number(1) + "END!");
    }
    return message;
}

Answer takeAnswer(Client& server) {
    Answer answer;
    for (;;) {
        Message message = takeMessage(server);
        if (message.type == wire::number(7)) return answer;
        if (message.type == wire::number(6)) answer.header = message.text;
        if (message.type == wire::number(4)) answer.pieces.push_back(message.text);
    }
}

// A running server; it must end with status 0 on SIGTERM and have told nothing but what the test expected.
class Server {
  public:
    explicit Server(std::vector<std::string> options = {})
        : process_(command(withListen(std::move(options)))) {
        EXPECT_TRUE(process_.waitForOut("\n", 20s)) << process_.err();
        const std::string out = process_.out();
        EXPECT_EQ(out.rfind("velarto-devserver listening on 127.0.0.1:", 0), 0u) << out;
        port_ = static_cast<std::uint16_t>(std::atoi(out.substr(out.rfind(':') + 1).c_str()));
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() {
        process_.kill(SIGTERM);
        const support::Outcome outcome = process_.wait(20s);
        EXPECT_TRUE(outcome.endedByItself);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        if (!complained_) {
            EXPECT_EQ(outcome.err, "");
        }
    }

    std::uint16_t port() const { return port_; }

    Answer ask(const wire::Request& request) const {
        Client client(port_);
        client.send(wire::encode(request));
        return takeAnswer(client);
    }

    // All that comes for those bytes when nothing follows them.
    std::string rawAnswer(const std::string& bytes) const {
        Client client(port_);
        client.send(bytes);
        client.endSending();
        return client.rest();
    }

    void expectComplaint(const std::string& message) {
        complained_ = true;
        EXPECT_TRUE(process_.waitForErr(message, 20s)) << message << "\n--- but:\n" << process_.err();
    }

  private:
    static std::vector<std::string> withListen(std::vector<std::string> options) {
        options.insert(options.end(), {"--listen", "127.0.0.1:0"});
        return options;
    }

    support::Process process_;
    std::uint16_t port_ = 0;
    bool complained_ = false;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string blobBytes(std::uint64_t size) {
    std::string bytes;
    for (std::uint64_t i = 0; i < size; ++i)
        bytes += static_cast<char>(i * 2654435761u >> 24 & 0xFF);
    return bytes;
}

// ---- the protocol ----

TEST(Devserver, SpeaksTheProtocolByteForByte) {
    const Server server({"--sid", "s001"});
    Client client(server.port());
    client.send(wire::encode(requestFor("/stream", "pieces=2&size=10")));
    const std::string header =
        "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 20\r\nCache-Control: no-store\r\n"
        "X-Velarto-Server: 127.0.0.1:" +
        std::to_string(server.port()) + " (s001)\r\n\r\n";
    client.expect(wire::header(header));
    client.send(wire::acknowledgement(6));
    for (const char* piece : {"piece 1 o\n", "piece 2 o\n"}) {
        client.expect(std::string("QUIL\xFF\xFD\xFF\xFD\0\0\0\4\0\0\0\x0A", 16) + piece + "END!");
        client.send(std::string("QUIL\xFF\xFD\xFF\xFD\0\0\0\4\0\0\0\1END!", 20));
    }
    client.expect(std::string("QUIL\xFF\xFD\xFF\xFD\0\0\0\7END!", 16));
    EXPECT_EQ(client.rest(), "");
}

struct Malformed {
    const char* name;
    std::string bytes;
    const char* complaint;
};

TEST(Devserver, RefusesMalformedRequestsAndGoesOn) {
    const std::string good = wire::encode(requestFor("/"));
    const auto changed = [&good](std::size_t position, const std::string& bytes) {
        return std::string(good).replace(position, bytes.size(), bytes);
    };
    // 0 mark, 4 version, 8 type, 12 file time, 16 body, 20 length of the first name, 24 "QUERY_STRING", 36
    // its value
    const std::vector<Malformed> cases = {
        {"another protocol", "GET / HTTP/1.0\r\n\r\n", "the request does not begin with the frame mark QUIL"},
        {"version", changed(7, "\xFC"), "the request has the protocol version 0xFFFDFFFC, not 0xFFFDFFFD"},
        {"type", changed(11, "\4"), "the request has the message type 4, not 1"},
        {"absurd body", changed(16, "\xFF\xFF\xFF\xFF"),
         "the request's body is 4294967295 bytes long, more than 5000"},
        {"body too long", changed(16, wire::number(5001)),
         "the request's body is 5001 bytes long, more than 5000"},
        {"parameter out of order", changed(24, "QUERY\n\"TRING"),
         "parameter 0 of the request is \"QUERY\\x0A\\x22TRING\", not \"QUERY_STRING\""},
        {"absurd text", changed(36, "\x7F\xFF\xFF\xFF"),
         "QUERY_STRING is 2147483647 bytes long, more than 1048576"},
        {"footer", changed(good.size() - 1, "?"), "the request does not end with the footer END!"},
        {"surplus", good + "more", "4 bytes follow the request"},
    };
    Server server({"--max-body", "5000"});
    for (const Malformed& malformed : cases) {
        SCOPED_TRACE(malformed.name);
        EXPECT_EQ(server.rawAnswer(malformed.bytes), "");
        server.expectComplaint(malformed.complaint + std::string("\n"));
        EXPECT_TRUE(contains(server.ask(requestFor("/")).header, "HTTP/1.0 200 OK\r\n"));
    }
}

TEST(Devserver, NoticesARequestCutShortAnywhere) {
    Server server;
    const std::string good = wire::encode(requestFor("/"));
    Client(server.port());  // a client that asks for nothing is no mistake
    for (std::size_t size = 1; size < good.size(); size += 37)
        EXPECT_EQ(server.rawAnswer(good.substr(0, size)), "") << size;
    server.expectComplaint("did not come whole: the client closed the connection");
    EXPECT_TRUE(contains(server.ask(requestFor("/")).header, " 200 "));
}

TEST(Devserver, ReadsEveryAcknowledgement) {
    Server server;
    const auto answerHeaderWith = [&server](const std::string& bytes) {
        Client client(server.port());
        client.send(wire::encode(requestFor("/blob")));
        client.receive(12);
        client.send(bytes);
        EXPECT_FALSE(contains(client.rest(), wire::counted(blobBytes(1024)))) << "went on";
    };
    answerHeaderWith(wire::acknowledgement(4));
    server.expectComplaint("the acknowledgement of the HTTP header has the message type 4, not 6");
    answerHeaderWith(wire::message(6, wire::number(0)));
    server.expectComplaint("the client refused the HTTP header");
    answerHeaderWith(wire::acknowledgement(6) + wire::acknowledgement(4));
    server.expectComplaint("20 bytes follow the acknowledgement of the HTTP header");
}

// ---- the pages ----

struct PageCase {
    const char* path;
    const char* query;
    std::vector<const char*> header;  // parts that must be there
    std::vector<const char*> body;
};

TEST(Devserver, ServesItsPages) {
    const std::vector<PageCase> cases = {
        {"",
         "",
         {"HTTP/1.0 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"},
         {"<h1>The request as it arrived"}},
        {"/",
         "<a href='x'>&\"\x01\xC3\xA9",
         {},
         {"<td>&lt;a href=&#39;x&#39;&gt;&amp;&quot;\\x01\xC3\xA9</td>"}},
        {"/",  // cut short, no start, overlong, half of a pair, beyond the last one; then the last one
         "\xE9 \x80 \xC1\xBF \xE0\x9F\xBF \xED\xA0\x80 \xF4\x90\x80\x80 \xF4\x8F\xBF\xBF",
         {},
         {"<td>\\xE9 \\x80 \\xC1\\xBF \\xE0\\x9F\\xBF \\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80 "
          "\xF4\x8F\xBF\xBF</td>"}},
        {"/", "", {}, {"<a href=\"/cgi-bin/shop/form\">", ">FULLHEADER<", "<p>0 bytes</p>"}},
        {"/form",
         "a=1%2b1&b=%3Cb%3E+%zz",
         {},
         {"<th scope=\"row\">a</th><td>1+1</td>", "<td>&lt;b&gt; %zz</td>"}},
        {"/document/x",
         "",
         {"HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\n"},
         {"no file was asked for"}},
        {"/nosuch", "", {" 404 Not Found\r\n"}, {"<code>/nosuch</code>", "/cgi-bin/shop/stream"}},
        {"/misbehave", "how=reset", {" 404 Not Found\r\n"}, {}},
        {"/status",
         "code=503",
         {"HTTP/1.0 503 Service Unavailable\r\nStatus: 503 Service Unavailable\r\n"},
         {"<h1>503"}},
        {"/status", "code=302", {"Status: 302 Found\r\n", "\r\nLocation: /cgi-bin/shop/\r\n"}, {}},
        {"/status",
         "code=777&reason=Odd+<one>",
         {"HTTP/1.0 777 Odd <one>\r\n"},
         {"<h1>777 Odd &lt;one&gt;</h1>"}},
        {"/status", "code=200&reason=a%0D%0ASet-Cookie:b", {" 400 Bad Request\r\n"}, {"control characters"}},
        {"/status",
         "code=99",
         {" 400 Bad Request\r\n"},
         {"code must be a number from 100 to 999, not &quot;99&quot;."}},
        {"/stream", "pieces=x", {" 400 Bad Request\r\n"}, {"pieces must be a number"}},
        {"/blob", "size=18446744073709551616", {" 400 Bad Request\r\n"}, {"size must be a number"}},
    };
    const Server server;
    const std::string signature = "answered by 127.0.0.1:" + std::to_string(server.port()) + ", process ";
    for (const PageCase& page : cases) {
        SCOPED_TRACE(std::string(page.path) + "?" + page.query);
        const Answer answer = server.ask(requestFor(page.path, page.query));
        for (const char* part : page.header)
            EXPECT_TRUE(contains(answer.header, part)) << answer.header;
        for (const char* part : page.body)
            EXPECT_TRUE(contains(answer.body(), part)) << answer.body();
        EXPECT_TRUE(contains(answer.body(), signature));
        EXPECT_TRUE(
            contains(answer.header, "Content-Length: " + std::to_string(answer.body().size()) + "\r\n"));
    }
}

TEST(Devserver, ShowsWhatAFormSends) {
    const Server server;
    wire::Request request = requestFor("/form", "", "POST");
    request["CONTENT_TYPE"] = "application/x-www-form-urlencoded";
    request.post = "x=%3C&y=2";
    const std::string plain = server.ask(request).body();
    EXPECT_TRUE(contains(plain, "POST, a body of 9 bytes"));
    EXPECT_TRUE(contains(plain, "<th scope=\"row\">x</th><td>&lt;</td>"));

    request["CONTENT_TYPE"] = "multipart/form-data; boundary=\"--B\"";
    request.post =
        "----B\r\nContent-Disposition: form-data; name=\"c\"\r\n\r\nhello\r\n----B\r\n"
        "content-disposition: form-data; name=\"f\"; filename=\"a<.txt\"\r\nContent-Type: text/plain\r\n\r\n"
        "1\r\n2\r\n----B--\r\n";
    const std::string upload = server.ask(request).body();
    EXPECT_TRUE(contains(upload, "<th scope=\"row\">c</th><td>hello</td>")) << upload;
    EXPECT_TRUE(contains(upload, "<th scope=\"row\">f</th><td>a&lt;.txt (text/plain), 4 bytes\n1\r\n2</td>"))
        << upload;
}

TEST(Devserver, SendsBytesAsTheyAre) {
    const Server server;
    wire::Request request = requestFor("/echo", "", "POST");
    request["CONTENT_TYPE"] = "image/x-test";
    request.post = blobBytes(70000);
    const Answer echo = server.ask(request);
    EXPECT_EQ(echo.body(), request.post);
    EXPECT_TRUE(contains(echo.header, "Content-Type: image/x-test\r\n"));
    ASSERT_EQ(echo.pieces.size(), 3u);
    EXPECT_EQ(echo.pieces[0].size(), 32768u);

    EXPECT_EQ(server.ask(requestFor("/blob", "size=40000")).body(), blobBytes(40000));
    const Answer head = server.ask(requestFor("/blob", "size=40000", "HEAD"));
    EXPECT_TRUE(contains(head.header, "Content-Length: 40000\r\n"));
    EXPECT_TRUE(head.pieces.empty());
    const Answer noContent = server.ask(requestFor("/status", "code=204"));
    EXPECT_FALSE(contains(noContent.header, "Content-"));
    EXPECT_TRUE(noContent.pieces.empty());
}

TEST(Devserver, AsksTheGatewayForDocuments) {
    const Server server;
    for (const char* path : {"/document", "/pages/price.zhtml"}) {
        wire::Request request = requestFor(path, "<q>");
        request["PATH_TRANSLATED"] = "/srv/a.html";
        Client client(server.port());
        client.send(wire::encode(request));
        client.expect(wire::fileRequest("/srv/a.html"));
        client.send(wire::fileReply("{{QUERY_STRING}} {{nosuch}} {{ {{server_name}} {{FULLHEADER}}{{"));
        EXPECT_EQ(takeAnswer(client).body(), "&lt;q&gt; {{nosuch}} {{  {{");

        const Answer missing = server.ask(request);
        EXPECT_TRUE(contains(missing.header, "Status: 404 Not Found\r\n"));
        EXPECT_TRUE(contains(missing.body(), "<pre>/srv/a.html</pre>"));
    }
}

TEST(Devserver, IssuesUserReferences) {
    const auto reference = [](const Server& server) {
        const std::string header = server.ask(requestFor("/login")).header;
        const std::string start = "\r\nSet-Cookie: Velarto_UserReference=";
        const std::size_t at = header.find(start);
        if (at == std::string::npos) return header;
        return header.substr(at + start.size(), header.find(';', at) - at - start.size());
    };
    const Server plain;
    char head[13];
    std::snprintf(head, sizeof head, "7F000001%04X", plain.port());
    const std::string first = reference(plain);
    EXPECT_EQ(first.size(), 36u);
    EXPECT_EQ(first.substr(0, 12), head);
    EXPECT_EQ(first.find_first_not_of("0123456789ABCDEF"), std::string::npos) << first;
    EXPECT_NE(reference(plain), first);

    const Server named({"--sid", "s0Z9"});
    const std::string second = reference(named);
    EXPECT_EQ(second.size(), 28u);
    EXPECT_EQ(second.substr(0, 4), "s0Z9");
}

// ---- misbehaving ----

struct Wrong {
    const char* query;
    std::string bytes;  // that come after the proper messages before them
};

TEST(Devserver, MisbehavesWhenAllowedTo) {
    Server server({"--misbehave", "--piece-size", "3"});
    const std::string version = "\xFF\xFD\xFF\xFD";
    const std::string header = "HTTP/1.0 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n";
    const std::vector<Wrong> cases = {
        {"how=close-now", ""},
        {"how=wrong-mark", "QUIT" + version + wire::number(6)},
        {"how=wrong-version", std::string("QUIL\xFF\xFD\xFF\xFC\0\0\0\6", 12)},
        {"how=unknown-type", "QUIL" + version + wire::number(5)},
        {"how=unknown-type&type=0", "QUIL" + version + wire::number(0)},
        {"how=absurd-length&at=header", "QUIL" + version + wire::number(6) + "\xFF\xFF\xFF\xFF" + header},
        {"how=absurd-length&at=header&length=0x80000000",
         "QUIL" + version + wire::number(6) + std::string("\x80\0\0\0", 4)},
        {"how=bad-status-line", wire::header("HTTP/1.0 OK\r\nContent-Type: text/plain\r\n\r\n")},
    };
    for (const Wrong& wrong : cases) {
        const std::string answer = server.rawAnswer(wire::encode(requestFor("/misbehave", wrong.query)));
        EXPECT_EQ(answer.substr(0, wrong.bytes.size()), wrong.bytes) << wrong.query;
        EXPECT_EQ(answer.empty(), wrong.bytes.empty()) << wrong.query;
    }
    const auto ask = [&](const char* query) {
        return server.rawAnswer(wire::encode(requestFor("/misbehave", query)));
    };
    const auto end = [](const std::string& text, std::size_t size) {
        return text.substr(text.size() - size);
    };
    EXPECT_EQ(end(ask("how=wrong-footer"), 8), "\r\n\r\nEND?");
    EXPECT_EQ(end(ask("how=extra-bytes&at=header"), 15), "END!EXTRA BYTES");
    const std::string half = ask("how=close-in-piece&at=header");
    EXPECT_TRUE(contains(half, header) && !contains(half, "\r\n\r\n")) << half;
    EXPECT_THROW(ask("how=reset"), std::runtime_error);
    EXPECT_TRUE(contains(server.ask(requestFor("/misbehave", "how=nosuch")).body(),
                         "how must be one of: close-now, "));
    EXPECT_TRUE(contains(server.ask(requestFor("/misbehave", "how=wait&ms=1")).body(), "misbehaving answer"));

    Client client(server.port());
    client.send(wire::encode(requestFor("/misbehave", "how=flood&at=header&pieces=2")));
    for (int piece = 0; piece < 2; ++piece) {
        client.expect(wire::body("~~~"));
        client.send(wire::acknowledgement(4));
    }
    EXPECT_THROW(client.receive(1), std::runtime_error);
}

TEST(Devserver, CutsAnyAnswerAtAnyByte) {
    Server server({"--misbehave"});
    for (const std::size_t size : {0u, 1u, 11u, 12u, 50u}) {
        const std::string query = "cut=" + std::to_string(size);
        const std::string answer = server.rawAnswer(wire::encode(requestFor("/blob", query)));
        EXPECT_EQ(answer.size(), size);
        const std::string start = wire::header(std::string(180, ' ')).substr(0, 12);
        EXPECT_EQ(answer.substr(0, 12), start.substr(0, std::min<std::size_t>(size, 12)));
    }
}

// ---- clients and time ----

TEST(Devserver, BoundsItsConnections) {
    Server server({"--connections", "2"});
    Client first(server.port());
    Client second(server.port());
    for (Client* busy : {&first, &second}) {
        busy->send(wire::encode(requestFor("/")));
        busy->receive(4);  // the answer has begun; it waits for its acknowledgement now
    }
    Client third(server.port());
    third.send(wire::encode(requestFor("/")));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(third.hasInput());
    first.close();
    EXPECT_TRUE(contains(takeAnswer(third).header, " 200 "));
    server.expectComplaint("the acknowledgement of the HTTP header did not come whole");
}

TEST(Devserver, EndsAStalledConversation) {
    Server server({"--timeout", "1"});
    Client client(server.port());
    client.send(wire::encode(requestFor("/")).substr(0, 100));
    EXPECT_EQ(client.rest(), "");  // ends because the server closes
    server.expectComplaint("did not come whole: the client was silent for too long");
}

TEST(Devserver, NoticesAClientThatLeavesDuringADelay) {
    Server server;
    Client client(server.port());
    client.send(wire::encode(requestFor("/stream", "pieces=2&size=10&delay=60000")));
    takeMessage(client);
    EXPECT_EQ(takeMessage(client).text, "piece 1 o\n");
    client.close();
    server.expectComplaint("the client ended the conversation while the server waited");
}

TEST(Devserver, EndsOnSigtermWithinShortTimeWhateverItsClientsDo) {
    support::Process process(command({"--listen", "127.0.0.1:0", "--verbose"}));
    ASSERT_TRUE(process.waitForOut("\n", 20s));
    const std::string out = process.out();
    const auto port = static_cast<std::uint16_t>(std::atoi(out.substr(out.rfind(':') + 1).c_str()));
    Client idle(port);
    Client busy(port);
    busy.send(wire::encode(requestFor("/stream", "pieces=2&delay=60000")));
    busy.receive(4);
    Client quick(port);
    quick.send(wire::encode(requestFor("/echo", "a\nb")));
    takeAnswer(quick);
    EXPECT_TRUE(process.waitForOut(" \"GET /echo?a\\x0Ab\" 200, 0 bytes, ", 20s)) << process.out();
    process.kill(SIGTERM);
    const support::Outcome outcome = process.wait(20s);
    EXPECT_TRUE(outcome.endedByItself);
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
    EXPECT_TRUE(contains(outcome.err, ": cut off, the server ends\n")) << outcome.err;
}

// ---- the command line ----

TEST(Devserver, HelpTellsEverything) {
    const support::Outcome help = support::run(command({"--help"}), 20s);
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* word :
         {"--listen ADDRESS:PORT", "--sid NAME", "--timeout", "--connections", "--max-body", "--piece-size",
          "--misbehave", "--verbose", "/form", "/echo", "/login", "/document",
          "/stream?pieces=N&size=BYTES&delay=MS", "/status", "/blob", "close-in-piece", "&cut=N"})
        EXPECT_TRUE(contains(help.out, word)) << word;
}

TEST(Devserver, TellsWhatIsWrongWithTheCommandLine) {
    const Server other;
    const std::string taken = "127.0.0.1:" + std::to_string(other.port());
    const std::vector<std::pair<std::vector<std::string>, std::pair<int, std::string>>> cases = {
        {{"--listen", taken},
         {1, "velarto-devserver: cannot listen on " + taken + ": Address already in use\n"}},
        {{"--listen", "127.0.0.1"}, {2, "--listen: wants ADDRESS:PORT, not 127.0.0.1\n"}},
        {{"--listen", "127.0.0.1:65536"}, {2, "--listen: wants a port from 0 to 65535, not 65536\n"}},
        {{"--sid", "s01"}, {2, "--sid: wants exactly 4 letters or digits, not s01\n"}},
        {{"--sid", "s0-1"}, {2, "--sid: wants exactly 4 letters or digits, not s0-1\n"}},
        {{"--timeout", "0"}, {2, "--timeout: wants a number from 1 to 86400, not 0\n"}},
        {{"--max-body", "4G"}, {2, "--max-body: wants a number from 0 to 4294967295, not 4294967296\n"}},
        {{"--nosuch"}, {2, "--nosuch\n"}},
    };
    for (const auto& [options, expected] : cases) {
        const support::Outcome outcome = support::run(command(options), 20s);
        EXPECT_EQ(outcome.exitStatus, expected.first) << options[0];
        EXPECT_TRUE(contains(outcome.err, expected.second)) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
}

}  // namespace
