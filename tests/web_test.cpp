// The gateway under real web servers, Apache's mod_cgid, lighttpd's mod_cgi and nginx with fcgiwrap, and velarto-fcgi
// behind the same three, driven by curl. Each test has a web server and an application server of its own on the loopback address, all files in a
// temporary folder; the part of the web server's configuration that concerns the gateway is examples/.
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <regex>
#include <tuple>

#include "net/Socket.h"
#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

bool runs(const std::string& text) {  // a process with this in its command line
    return support::run(commandOf({"/usr/bin/pgrep", "-f", text}), 20s).exitStatus == 0;
}

// Whether the condition holds within a time that is long enough for everything.
template <typename Condition>
bool comesTrue(Condition condition) {
    for (int tries = 0; tries < 3000; ++tries) {
        if (condition()) return true;
        ::usleep(10000);
    }
    return false;
}

std::string hex4(unsigned number) {
    char text[8];
    std::snprintf(text, sizeof text, "%04X", number);
    return text;
}

std::string bodyOf(const std::string& answer) {
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

struct WebServer {
    std::string name;       // support/NAME.conf is the frame of its configuration
    Texts command;          // followed by the path of the configuration
    Texts listener;         // followed by its socket; empty where the web server starts the gateway itself
    std::string harmless;   // stands in those lines of the error log that are no complaint
    Texts examples;         // the part of the configuration that concerns the client
    bool isHost;            // velarto-fcgi, not the gateway, stands behind it
    std::string brokenOff;  // stands in the lines about a host's answer that is not whole
};

const Texts kApache = {"/usr/sbin/apache2", "-DFOREGROUND", "-f"};
const Texts kLighttpd = {"/usr/sbin/lighttpd", "-D", "-f"};
const Texts kNginx = {"/usr/sbin/nginx", "-e", "stderr", "-c"};
#ifdef VELARTO_FCGI_PATH
const Texts kHost = {VELARTO_FCGI_PATH, "shop", "--listen"};
#endif

const WebServer kServers[] = {
    {"apache", kApache, {}, ":notice]", {"apache.conf", "apache-extension.conf"}, false, ""},
    {"lighttpd", kLighttpd, {}, "server st", {"lighttpd.conf"}, false, ""},
    {"nginx", kNginx, {"/usr/sbin/fcgiwrap", "-f", "-s"}, "[notice]", {"nginx.conf"}, false, ""},
#ifdef VELARTO_FCGI_PATH
    {"apache", kApache, kHost, ":notice]", {"apache-fcgi.conf"}, true, "proxy"},
    {"lighttpd", kLighttpd, kHost, "server st", {"lighttpd-fcgi.conf"}, true, "cgi"},
    {"nginx", kNginx, kHost, "[notice]", {"nginx-fcgi.conf"}, true, "unsupported FastCGI protocol version"},
#endif
};

// One web server with the gateway installed as "nph-shop", a copy, and as "shop", a link to it.
class Web : public GatewayTest, public testing::WithParamInterface<WebServer> {
  protected:
    void SetUp() override {
        ::umask(022);  // the web server is another user when the test is root
        for (const char* name : {"htdocs", "htdocs/cgi-bin", "run"})
            fs::create_directory(folder_ / name);
        for (const char* name : {"", "configuration", "run"})
            fs::permissions(folder_ / name, fs::perms::all);
        if (!GetParam().isHost) {
            fs::copy_file(VELARTO_CGI_PATH, gateways_ + "nph-shop");
            fs::create_symlink("nph-shop", gateways_ + "shop");
        }
        configure(server_);
        while (!Socket().IsPortAvailable(port_))
            port_ += 1000;
        writeFile(folder_ / "web.conf", configuration());

        if (!GetParam().listener.empty()) start(GetParam().listener, "unix:" + fcgi_);
        EXPECT_TRUE(processes_.empty() || comesTrue([this] { return fs::is_socket(fcgi_); }));
        start(GetParam().command, folder_ / "web.conf");
        EXPECT_TRUE(comesTrue([&] { return support::run(curl("/cgi-bin/shop"), 70s).exitStatus == 0; }))
            << processes_.back().err();
    }

    // velarto-fcgi takes up what is new in the file, and says so.
    void configure(const std::string& servers, const std::string& lines = "") override {
        const auto reloads = [this] {
            const std::string log = processes_[0].err();
            std::size_t count = 0;
            for (std::size_t at = 0; (at = log.find("loaded again", at)) != log.npos; ++at)
                ++count;
            return count;
        };
        const bool isFollowed = GetParam().isHost && !processes_.empty();
        const std::size_t before = isFollowed ? reloads() : 0;
        GatewayTest::configure(servers, lines);
        if (!isFollowed) return;
        processes_[0].kill(SIGHUP);
        EXPECT_TRUE(comesTrue([&] { return reloads() > before; }));
    }

    // Whatever the test was about: the web server stops when asked to, nothing stays behind, and neither the
    // web server nor a sanitizer has complained. A gateway can outlive the web server by a moment: once it
    // has a body of the length that the header gives, lighttpd answers the browser and sends SIGTERM to the
    // gateway.
    void TearDown() override {
        for (Process& process : processes_) {
            process.kill(SIGTERM);
            EXPECT_TRUE(process.wait(20s).endedByItself);
        }
        EXPECT_TRUE(comesTrue([&] { return !runs(folder_.path()); }));
        std::istringstream log(readFile(folder_ / "run/error.log"));
        for (std::string line; std::getline(log, line);)
            EXPECT_TRUE(line.find(expectedComplaint_) != line.npos || contains(line, GetParam().harmless))
                << line;
    }

    // A browser's request, with further options of curl.
    Command curl(const std::string& address, const Texts& options = {}) const {
        const std::string server = "http://127.0.0.1:" + std::to_string(port_);
        Texts line = {"/usr/bin/curl", "-isSN", "--max-time", "60", server + address};
        line.insert(line.end(), options.begin(), options.end());
        return commandOf(line);
    }

    // Header and body.
    std::string get(const std::string& address, const Texts& options = {}) const {
        const Outcome outcome = support::run(curl(address, options), 70s);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        return outcome.out;
    }

    // Whether a request is under way: of the application server's connections none is left without one.
    bool isServing() {
        const std::regex connection(" 0100007F:[0-9A-F]{4} 0100007F:" + hex4(devServer_.port()) + " 01 ");
        return std::regex_search(readFile("/proc/net/tcp"), connection);
    }

    int port() const { return port_; }
    void expectComplaint(const std::string& text) { expectedComplaint_ = text; }  // beside what is harmless

    // With a gateway the client that writes the whole response.
    const std::string client_ = GetParam().isHost ? "/cgi-bin/shop" : "/cgi-bin/nph-shop";
    const std::string gateways_ = folder_ / "htdocs/cgi-bin/";
    const DevServer devServer_{{"--sid", "s001"}};
    const std::string server_ = "s001," + entry(devServer_.port());

  private:
    // The frame with the examples in it, and the places of this test instead of the system's.
    std::string configuration() const {
        std::string text = readFile(VELARTO_EXAMPLES_PATH "/../tests/support/" + GetParam().name + ".conf");
        std::string examples;
        for (const std::string& name : GetParam().examples)
            examples += readFile(VELARTO_EXAMPLES_PATH "/" + name);
        std::vector<std::pair<std::string, std::string>> places;
        places.emplace_back("# @EXAMPLES@", examples);
        places.emplace_back("/usr/local/VelartoServer/5.5", folder_.path());
        places.emplace_back("/run/fcgiwrap.socket", fcgi_);
        places.emplace_back("/run/velarto/shop.sock", fcgi_);
        places.emplace_back("@BASE@", folder_.path());
        places.emplace_back("@PORT@", std::to_string(port_));
        for (const auto& [place, by] : places)
            for (std::size_t at = 0; (at = text.find(place, at)) != text.npos; at += by.size())
                text.replace(at, place.size(), by);
        return text;
    }

    // Root's web servers run as nobody, so that they need no way of their own to become somebody else.
    void start(Texts line, const std::string& argument) {
        line.push_back(argument);
        const Texts asNobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        if (::geteuid() == 0) line.insert(line.begin(), asNobody.begin(), asNobody.end());
        Command command = commandOf(line);
        command.environment = {"VELARTO_PATH=" + folder_.path()};
        processes_.emplace_back(command);
    }

    const std::string fcgi_ = folder_ / "run/fcgi";  // the socket of fcgiwrap, or of velarto-fcgi
    int port_ = 10000 + ::getpid() % 20000;          // below those that the system hands out
    std::string expectedComplaint_ = GetParam().harmless;
    std::deque<Process> processes_;
};

INSTANTIATE_TEST_SUITE_P(Under, Web, testing::ValuesIn(kServers), [](const auto& server) {
    return server.param.name + (server.param.isHost ? "WithHost" : "");
});

TEST_P(Web, PagesComeThrough) {
    const std::pair<std::string, Texts> pages[] = {
        {"/cgi-bin/shop/",
         {"HTTP/1.1 200 OK\r\n", "\r\nContent-Type: text/html; charset=utf-8\r\n", "a=1; VelartoClient=shop",
          ">SERVER_NAME</th><td>127.0.0.1</td>", ">CONTENT_LENGTH</th><td>0</td>"}},
        {"/cgi-bin/shop/status?code=307&location=/else", {"HTTP/1.1 307 ", "\r\nLocation: /else\r\n"}},
        {client_ + "/status?code=404", {" 404 Not Found\r\n", "answered by 127.0.0.1:"}},
        {"/no/such/COST.ZML", {"HTTP/1.1 404 ", "answered by 127.0.0.1:"}},
    };
    for (const auto& [address, parts] : pages) {
        const std::string page = get(address, {"-b", "a=1"});
        for (const std::string& part : parts)
            EXPECT_TRUE(contains(page, part)) << address;
    }
    const DeadPort dead;
    configure(entry(dead.port()));
    const std::string page = get(client_);
    EXPECT_TRUE(contains(page, "Error Code: 602"));
    EXPECT_EQ(page.find("for client nph-shop on " + entry(dead.port())) == page.npos, GetParam().isHost);
}

TEST_P(Web, LongBodiesComeThroughUnchanged) {
    std::string bytes(100 * 1024 * 1024, '\0');
    for (std::uint32_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 2654435761U >> 24);
    EXPECT_TRUE(bodyOf(get("/cgi-bin/shop/blob?size=" + std::to_string(bytes.size()))) == bytes);

    bytes.resize(5 * 1024 * 1024);
    writeFile(folder_ / "upload", bytes);
    const Texts upload = {"-H", "Expect:", "--data-binary", "@" + folder_ / "upload"};
    EXPECT_TRUE(bodyOf(get("/cgi-bin/shop/echo", upload)) == bytes);
}

TEST_P(Web, UploadWithoutALengthArrivesWholeOrIsRefused) {
    const std::string answer =
        get("/cgi-bin/shop/echo", {"-H", "Transfer-Encoding: chunked", "--data", "text"});
    const bool isRefused = GetParam().name == "apache" && !GetParam().isHost;
    EXPECT_TRUE(contains(answer, isRefused ? "HTTP/1.1 411 " : "\r\n\r\ntext"));
}

TEST_P(Web, PiecesArriveUntilTheBrowserGoesAwayAndTheGatewayEnds) {
    // Byte by byte for an hour: a web server that waited for more would pass nothing on.
    Process browser(curl("/cgi-bin/shop/stream?pieces=36000&size=1&delay=100"));
    EXPECT_TRUE(browser.waitForOut("\r\n\r\n\n", 30s));
    EXPECT_TRUE(isServing());
    browser.kill(SIGKILL);
    EXPECT_TRUE(comesTrue([&] { return !isServing(); }));
}

// Whatever a browser claims to be: only a login that the web server has checked makes a user.
TEST_P(Web, ForgedLoginMakesNoUser) {
    EXPECT_TRUE(contains(get("/cgi-bin/shop/", {"-u", "admin:guess"}), ">REMOTE_USER</th><td></td>"));
}

// Without the keys the default of old: 200 for every page of the gateway's own under a plain name.
TEST_P(Web, FailureHasItsStatusWhereTheSectionWantsIt) {
    const DeadPort dead;
    const DevServer server({"--misbehave"});
    ScriptedPeer& deaf = serve([](Connection& connection) { connection.receive(100), connection.reset(); });
    writeFile(folder_ / "large", std::string(10'000'000, 'l'));
    const Texts upload = {"-H", "Expect:", "--data-binary", "@" + folder_ / "large"};
    const struct {
        std::uint16_t port;
        std::string page;
        Texts options;
        int code;
        std::string status;
    } failures[] = {
        {dead.port(), "", {}, 602, " 503 "},
        {deaf.port(), "", upload, 604, " 502 "},
        {server.port(), "misbehave?how=close-now", {}, 605, " 502 "},
        {server.port(), "misbehave?how=wait&ms=3000", {}, 605, " 504 "},
    };
    for (const auto& [port, page, options, code, status] : failures) {
        for (const bool isHonest : {false, true}) {
            const std::string keys = isHonest ? "HTTPSTATUS=yes\nBROKENANSWER=cut\nREQUESTTIMEOUT=60\n" : "";
            configure(entry(port), "CLIENTIOTIMEOUT=1\n" + keys);
            const std::string answer = get("/cgi-bin/shop/" + page, options);
            EXPECT_EQ(answer.substr(8, 5), isHonest || GetParam().isHost ? status : " 200 ") << page;
            EXPECT_TRUE(contains(answer, "Error Code: " + std::to_string(code)));
        }
    }
}

// The status where nothing has come yet, a length that is not reached where something has; never a page in
// front of the connection's next response.
TEST_P(Web, BrowserNoticesADownloadThatBreaksOff) {
    if (GetParam().name == "nginx") expectComplaint("upstream prematurely closed FastCGI request");
    if (GetParam().isHost) expectComplaint(GetParam().brokenOff);
    writeFile(folder_ / "htdocs/next.txt", "next");
    const std::string sized = wire::header("HTTP/1.0 200 OK\r\nContent-Length: 100000\r\n\r\n");
    const std::string lengthless = wire::header("HTTP/1.0 200 OK\r\n\r\n");
    const std::string half = wire::body(std::string(50000, '.'));
    const bool isHost = GetParam().isHost;
    const struct {
        Texts messages;
        std::string status;
        std::string exitStatus;  // of curl; 18: the body ends short
        std::string connects;    // 0: the next response comes over the same connection
    } cases[] = {
        {{}, " 502 ", "0", "0"},
        {{sized}, " 502 ", "0", "0"},
        {{sized, half}, " 200 ", "18", "1"},
        {{sized, half, half}, " 200 ", "0", isHost ? "1" : "0"},
        {{lengthless, half}, " 200 ", isHost ? "18" : "0", isHost ? "1" : "0"},
    };
    const std::string next = "http://127.0.0.1:" + std::to_string(port()) + "/next.txt";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.messages.size());
        const std::string header = folder_ / "header" + std::to_string(&c - cases);
        const auto breakOff = [&](Connection& connection) {
            connection.receiveRequest();
            connection.serve(c.messages);
            // lighttpd takes for whole what reaches it together with its end.
            if (c.exitStatus == "18")
                comesTrue([&] { return fs::exists(header) && fs::file_size(header) > 0; });
            connection.closeSending();
        };
        ScriptedPeer& server = serveAlone(breakOff, "HTTPSTATUS=yes\nBROKENANSWER=cut\n");
        const Texts more = {"-D", header, next, "-w", "\n%{exitcode} %{num_connects}\n"};
        const std::string both = support::run(curl("/cgi-bin/shop", more), 70s).out;
        EXPECT_EQ(both.substr(8, 5), c.status);
        EXPECT_TRUE(contains(both, "\n" + c.exitStatus + " 1\n"));
        EXPECT_EQ(bodyOf(both.substr(both.rfind("HTTP/1.1 200 "))), "next\n0 " + c.connects + "\n");
        server.visits();
    }
}

TEST_P(Web, UserStaysWithHisServer) {
    const std::string jar = folder_ / "cookies";
    const DevServer other({"--sid", "s002"});
    const std::string otherServer = "s002," + entry(other.port());
    configure(otherServer);
    get("/cgi-bin/shop/login", {"-c", jar});
    configure(server_ + ":" + otherServer);
    for (int round = 0; round < 8; ++round)
        EXPECT_TRUE(contains(get("/cgi-bin/shop", {"-b", jar}), "(s002)"));
}

TEST_P(Web, DocumentIsFoundByItsExtension) {
    fs::create_directory(folder_ / "htdocs/100% new, +5?");
    for (const std::string extension : {".zaf", ".zhtml", ".zml", ".zcf"}) {
        const std::string path = "/100% new, +5?/price" + extension;
        const std::string address = "/100%25%20new,%20+5%3F/price" + extension;
        writeFile(folder_ / "htdocs" + path,
                  "{{SCRIPT_NAME}} {{PATH_INFO}} {{PATH_TRANSLATED}} {{REQUEST_METHOD}} {{QUERY_STRING}}");
        EXPECT_EQ(bodyOf(get(address + "?a=%20&b", {"--data", "a=b"})),
                  "/cgi-bin/shop " + path + " " + folder_.path() + "/htdocs" + path + " POST a=%20&amp;b");
    }
}

}  // namespace
