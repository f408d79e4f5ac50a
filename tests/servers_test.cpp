// The application servers beside the gateway, the development server and the one of examples/. The real gateway
// asks for their pages; peers that misbehave speak to them byte by byte.
#include "net/Socket.h"
#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace support;

const char* const kPython = "/usr/bin/python3";
const std::vector<std::string> kExample = {"-B", "-Werror", VELARTO_EXAMPLES_PATH "/appserver.py"};
// A browser's own, by which it claims another client and a route, and hides what follows.
const char* const kForgedCookies = "HTTP_COOKIE=VelartoClient=forged; Velarto_CGIIP=forged; a=\"";
const char* const kMissing = "HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\n";

// Somebody who connects as a gateway would and sends this.
class Peer : public Socket {
  public:
    Peer(const AppServer& server, const std::string& bytes) {
        EXPECT_TRUE(CreateSocket(AF_INET, nullptr, nullptr) && Connect("127.0.0.1", server.port(), kLimit));
        SetReadWriteTimeout(kLimit);
        SendNum(bytes.data(), static_cast<int>(bytes.size()));
    }

    // All that comes until the server closes; "reset" when it resets the connection.
    std::string answer() {
        std::string all;
        char byte = 0;
        int got;
        while ((got = ReceiveNum(&byte, 1)) == 1)
            all += byte;
        EXPECT_TRUE(got == 0 || GetLastError() == ECONNRESET) << "silence for too long";
        return got == 0 ? all : all + "reset";
    }

  private:
    static constexpr std::uint32_t kLimit = 20000;  // milliseconds
};

class Servers : public GatewayTest {
  protected:
    struct Page {
        std::string path, query, part, body = {};  // part: of what the browser gets
    };

    void expectPages(AppServer& server, const std::vector<Page>& pages) {
        configure(entry(server.port()));
        for (const auto& [path, query, part, body] : pages) {
            const std::vector<std::string> variables = {
                "PATH_INFO=" + path,
                "PATH_TRANSLATED=" + folder_.path() + path,
                "QUERY_STRING=" + query,
                body.empty() ? "REQUEST_METHOD=GET" : "REQUEST_METHOD=POST",
                "CONTENT_TYPE=multipart/form-data; boundary=\"--B\"",
                kForgedCookies};
            EXPECT_TRUE(contains(run(variables, body, "nph-shop").out, part));
        }
        EXPECT_EQ(server.end(), "");
    }
};

TEST_F(Servers, DevelopmentServerServesPages) {
    DevServer server;
    const std::string upload =
        "----B\r\ncontent-disposition: form-data; name=\"f\"; filename=\"a<.txt\"\r\n"
        "Content-Type: text/plain\r\n\r\n1\r\n2\r\n----B--\r\n";
    expectPages(server,
                {{"", "<a='x'>&\"\x01\xC3\xA9\xE9", "&lt;a=&#39;x&#39;&gt;&amp;&quot;\\x01\xC3\xA9\\xE9<"},
                 {"", "", "client</th><td>nph-shop</td></tr>\n<tr><th scope=\"row\">route</th><td></td>"},
                 {"/form", "b=%3Cb%3E+%zz", "<th scope=\"row\">b</th><td>&lt;b&gt; %zz</td>"},
                 {"/form", "", "f</th><td>a&lt;.txt (text/plain), 4 bytes\n1\r\n2</td>", upload},
                 {"/nosuch", "", kMissing},
                 {"/misbehave", "how=reset", kMissing},
                 {"/status", "reason=a%0D%0ASet-Cookie:b", "HTTP/1.0 400 Bad Request\r\n"},
                 {"/blob", "size=18446744073709551616", "size must be a number"}});
}

TEST_F(Servers, ExampleServesPagesAndFiles) {
    AppServer server(kPython, kExample);
    const std::string large = std::string(1 << 19, '\0') + std::string(1 << 19, '\xFF');
    for (const char* name : {"file.txt", "file\\..\\outside"})
        writeFile(folder_ / name, large);
    expectPages(server, {{"", "<a'\">&\xC3\xA9\xE9", ">&lt;a&#x27;&quot;&gt;&amp;\xC3\xA9\\xe9<"},
                         {"", "", "<th>client</th><td>nph-shop</td></tr><tr><th>route</th><td></td>"},
                         {"/form", "", "<td>\xC3\xA9 &lt;b&gt;</td></tr>", "a=%C3%A9+%3Cb%3E"},
                         {"/file.txt", "", "text/plain\r\nContent-Length: 1048576\r\n\r\n" + large},
                         {"/file.none", "", kMissing},
                         {"/file\\..\\outside", "", kMissing}});
}

bool hasIPv6() {
    Socket socket;
    return socket.CreateSocket(AF_INET6, "::1", nullptr);
}

// The command where the system knows the hosts of this file alone.
Command knowing(const std::string& hosts, const Command& command) {
    const std::string script = R"(mount --bind "$0" /etc/hosts && exec -a "$1" "$2" "${@:3}")";
    Command wrapped = command;
    wrapped.program = "/usr/bin/unshare";
    wrapped.arguments = {"unshare", "--mount", "--map-root-user", "/bin/bash", "-c", script, hosts};
    wrapped.arguments.push_back(command.arguments.front());
    wrapped.arguments.push_back(command.program);
    wrapped.arguments.insert(wrapped.arguments.end(), command.arguments.begin() + 1, command.arguments.end());
    return wrapped;
}

TEST_F(Servers, AreReachedOverIPv6AndAtAPath) {
    const DeadPort dead;
    const std::string file = folder_ / "file.txt";
    writeFile(file, "a file");
    for (const bool overIPv6 : {true, false}) {
        SCOPED_TRACE(overIPv6);
        if (overIPv6 && !hasIPv6()) continue;
        const std::string paths[] = {folder_ / "developers", folder_ / "example"};
        const std::string listen = "[::1]:0";
        DevServer developers({}, overIPv6 ? listen : "unix:" + paths[0]);
        AppServer example(kPython, kExample, overIPv6 ? listen : "unix:" + paths[1]);
        const auto where = [&](const AppServer& server, const std::string& path) {
            return overIPv6 ? "[::1]," + std::to_string(server.port()) : path;
        };
        const std::string developersEntry = where(developers, paths[0]);
        const std::string other = ":s002," + entry(dead.port());
        const std::string user = "HTTP_COOKIE=Velarto_UserReference=s001" + std::string(24, '-');

        configure("s001," + developersEntry + other, "CLIENTLOG=stderr,all\n");
        const Outcome outcome = Process(command({user})).wait(std::chrono::seconds(20));
        EXPECT_TRUE(contains(outcome.out, ">route</th><td>s001<"));
        EXPECT_TRUE(contains(outcome.err, "server=\"s001," + developersEntry + "\""));
        configure("s001," + developersEntry);
        EXPECT_TRUE(contains(run().out, ">route</th><td><")) << "there is no choice";
        EXPECT_EQ(run({"PATH_INFO=/echo", "REQUEST_METHOD=POST"}, "body", "nph-shop").out.substr(0, 15),
                  "HTTP/1.0 200 OK");
        configure(developersEntry + other);
        EXPECT_TRUE(contains(run({"PATH_INFO=/login"}).out, "start the server with --sid"));
        configure(where(example, paths[1]));
        EXPECT_TRUE(contains(
            run({"REQUEST_METHOD=GET", "PATH_INFO=/file.txt", "PATH_TRANSLATED=" + file}).out, "a file"));
    }
}

TEST_F(Servers, AreReachedByANameOfSeveralAddresses) {
    const std::string hosts = folder_ / "hosts";
    writeFile(hosts, "::1 six\n127.0.0.2 both\n::1 both\n");
    const Outcome trial = support::run(knowing(hosts, commandOf({"/bin/true"})), std::chrono::seconds(20));
    if (!hasIPv6() || trial.exitStatus != 0) GTEST_SKIP() << "no IPv6, or no name space: " << trial.err;
    DevServer server({}, "[::1]:0");
    for (const char* name : {"six", "both"}) {
        for (const bool all : {false, true}) {
            configure(std::string(name) + "," + std::to_string(server.port()),
                      all ? "ALLADDRESSES=yes\n" : "");
            Process gateway(knowing(hosts, command()));
            EXPECT_EQ(finish(gateway).exitStatus, all ? 0 : 602 & 0xFF) << name;
        }
    }
}

TEST_F(Servers, LeavePeersThatMisbehave) {
    const std::string page = wire::encode({});
    const auto changed = [&page](std::size_t position, const std::string& bytes) {
        return std::string(page).replace(position, bytes.size(), bytes);
    };
    // 0 mark, 4 version, 8 type, 12 file time, 16 body, 20 first name with its length, 36 its value
    const std::pair<std::string, const char*> cases[] = {
        // with the development server's complaint
        {"GET / HTTP/1.0\r\n\r\n", "the request does not begin with the frame mark QUIL\n"},
        {changed(16, "\xFF\xFF\xFF\xFF"), "body is 4294967295 bytes long, more than 5000\n"},
        {changed(24, "Q\n"), "parameter 0 of the request is \"Q\\x0AERY_STRING\", not \"QUERY_STRING\"\n"},
        {changed(36, "\x7F\xFF\xFF\xFF"), "QUERY_STRING is 2147483647 bytes long, more than 1048576\n"},
        {page + "more than one", "13 bytes follow the request\n"},
    };
    const auto provoke = [&](AppServer& server) {
        configure(entry(server.port()));
        const Peer stalled(server, "QUIL");
        for (const auto& [bytes, complaint] : cases)
            EXPECT_FALSE(contains(Peer(server, bytes).answer(), "<html")) << complaint;
        for (const std::size_t length : {std::size_t{0}, std::size_t{300}, page.size()})
            Peer(server, page.substr(0, length));
        EXPECT_TRUE(contains(run().out, "<html"));
        EXPECT_FALSE(contains(run({"REQUEST_METHOD=HEAD"}).out, "<html"));
        return server.end();
    };
    AppServer example(kPython, kExample);
    EXPECT_EQ(provoke(example), "");
    DevServer developers({"--max-body", "5000"});
    const std::string complaints = provoke(developers);
    for (const auto& [bytes, complaint] : cases)
        EXPECT_TRUE(contains(complaints, complaint));
    EXPECT_TRUE(contains(complaints, ": cut off, the server ends\n"));
}

TEST_F(Servers, DevelopmentServerMisbehavesWhenAllowedTo) {
    DevServer server({"--misbehave", "--verbose"});
    const auto answer = [&server](const std::string& path, const std::string& query) {
        wire::Request request;
        request["PATH_INFO"] = path;
        request["QUERY_STRING"] = query;
        return Peer(server, wire::encode(request)).answer();
    };
    const std::pair<const char*, std::string> cases[] = {
        {"how=wrong-mark", "QUIT\xFF\xFD\xFF\xFD"},
        {"how=unknown-type", "QUIL\xFF\xFD\xFF\xFD" + wire::number(5)},
        {"how=absurd-length&at=header", wire::number(6) + "\xFF\xFF\xFF\xFFHTTP/1.0 200 OK\r\n"},
        {"how=extra-bytes&at=header", "END!EXTRA BYTES"},
        {"how=reset", "reset"},
    };
    for (const auto& [query, bytes] : cases)
        EXPECT_TRUE(contains(answer("/misbehave", query), bytes)) << query;
    EXPECT_FALSE(contains(answer("/misbehave", "how=close-in-piece&at=header"), "\r\n\r\n"));
    EXPECT_EQ(answer("/misbehave", "how=close-now"), "");
    for (const std::size_t size : {1u, 11u, 50u})
        EXPECT_EQ(answer("/", "cut=" + std::to_string(size)).size(), size);
    EXPECT_EQ(server.end(), "");
    EXPECT_TRUE(contains(server.out(), " \" /misbehave?how=close-now\" 0, 0 bytes, "));
}

TEST_F(Servers, DevelopmentServerBoundsConnectionsAndTheirSilence) {
    DevServer server({"--connections", "1", "--timeout", "1"});
    const Peer first(server, "QUIL");
    Peer second(server, wire::encode({}));
    char mark = 0;
    EXPECT_EQ(second.ReceiveNum(&mark, 1), 1);
    // The answer had to wait for that: else the first would be cut off only now.
    EXPECT_TRUE(contains(server.end(), "did not come whole: the client was silent for too long"));
}

}  // namespace
