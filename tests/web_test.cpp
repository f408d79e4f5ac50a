// The gateway under real web servers, Apache's mod_cgid, lighttpd's mod_cgi and nginx with fcgiwrap, driven by
// curl. Each test has a web server and two application servers of its own on the loopback address, all files
// in a temporary folder; the part of the web server's configuration that concerns the gateway is examples/.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using support::Command;
using support::contains;
using support::Outcome;
using support::Process;
using support::readFile;
using support::writeFile;
namespace fs = std::filesystem;

// Root's web servers run as this user, so that they need no way of their own to become one.
constexpr uid_t kNobody = 65534;

std::string replaceAll(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

int processesWith(const std::string& text) {  // in their command lines
    int count = 0;
    for (const fs::directory_entry& process : fs::directory_iterator("/proc")) {
        std::ifstream file(process.path() / "cmdline", std::ios::binary);
        std::string line;
        count += std::getline(file, line) && contains(line, text) ? 1 : 0;
    }
    return count;
}

// Whether the condition holds within a time that is long enough for everything.
template <typename Condition>
bool comesTrue(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

bool acceptsConnections(const std::string& unixSocket) {
    sockaddr_un address = {AF_UNIX, {}};
    unixSocket.copy(address.sun_path, sizeof address.sun_path - 1);
    const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool accepted = ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(client);
    return accepted;
}

struct WebServer {
    const char* name;
    std::vector<std::string> command;   // followed by the path of the configuration
    std::vector<std::string> examples;  // files in examples/; support/ has one named as the first, around all
    const char* ready;                  // stands in the error log once the server listens
    const char* harmless;               // stands in those lines of the error log that are no complaint
    const char* nphStatusLine;          // of an "nph-" program: its own, or one made from it
    int nphFailure;                     // the status of its error page
    bool needsFcgiwrap = false;         // to run programs
};

const WebServer kApache = {"Apache",
                           {"/usr/sbin/apache2", "-DFOREGROUND", "-f"},
                           {"apache.conf", "apache-extension.conf"},
                           "resuming normal operations",
                           ":notice]",
                           "HTTP/1.0 404 Not Found\r\n",
                           500};

const WebServer kLighttpd = {"Lighttpd",
                             {"/usr/sbin/lighttpd", "-D", "-f"},
                             {"lighttpd.conf"},
                             "server started",
                             "server st",  // started, stopped
                             "HTTP/1.1 404 Not Found\r\n",
                             500};

// It drops the program's status line. The development server's pages have their status in a field as well, the
// gateway's error pages do not.
const WebServer kNginx = {"Nginx",
                          {"/usr/sbin/nginx", "-e", "stderr", "-c"},
                          {"nginx.conf"},
                          "start worker process ",
                          "[notice]",
                          "HTTP/1.1 404 Not Found\r\n",
                          200,
                          true};

// A development application server with an identifier.
class ApplicationServer {
  public:
    explicit ApplicationServer(const std::string& sid) : server_({"--sid", sid}) {
        const std::string port = std::to_string(server_.port());
        entry_ = sid + ",127.0.0.1," + port;
        signature_ = "answered by 127.0.0.1:" + port + " (" + sid + ")";
    }

    const std::string& entry() const { return entry_; }          // in a server list
    const std::string& signature() const { return signature_; }  // in every page

    void stop() {
        server_.process().kill(SIGTERM);
        EXPECT_TRUE(server_.process().wait(10s).endedByItself);
    }

  private:
    support::DevServer server_;
    std::string entry_;
    std::string signature_;
};

struct Response {
    std::string header;  // status line to empty line
    std::string body;

    int status() const { return header.size() > 9 ? std::atoi(header.c_str() + 9) : 0; }
};

// One web server with the gateway installed under several names, "shop" a link to it, all others copies.
class Web : public testing::TestWithParam<WebServer> {
  protected:
    void SetUp() override {
        for (const char* folder : {"configuration", "htdocs", "htdocs/cgi-bin", "run"})
            fs::create_directory(base_ / folder);
        const std::string both = first_.entry() + ":" + second_.entry();
        const std::string clients[][2] = {
            {"first", first_.entry()}, {"second", second_.entry()}, {"shop", both},
            {"nph-shop", both},        {"nobody", "127.0.0.1,1"},   {"nph-nobody", "127.0.0.1,1"}};
        fs::copy_file(VELARTO_CGI_PATH, base_ / "velarto-cgi");
        std::string directory = "[Velarto Client Definitions]\n";
        std::string sections;
        for (const auto& [client, servers] : clients) {
            if (client == "shop") {
                fs::create_symlink(base_ / "velarto-cgi", gateways() + client);
            } else {
                fs::copy_file(base_ / "velarto-cgi", gateways() + client);
            }
            directory += client + "=\n";
            sections += "\n[" + client + "]\nVELARTO_SERVER=" + servers + "\n";
        }
        writeFile(base_ / "configuration/clients.ini", directory + sections);
        if (::geteuid() == 0) {
            fs::permissions(base_.path(), fs::perms(0755));
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(base_.path()))
                ASSERT_EQ(::lchown(entry.path().c_str(), kNobody, kNobody), 0);
        }
        if (GetParam().needsFcgiwrap) startFcgiwrap();
        // Below the ports that the system hands out; somebody else may listen on one of them.
        for (int attempt = 0; attempt < 5; ++attempt)
            if (startWebServer(10000 + (::getpid() + attempt * 1000) % 20000)) return;
        FAIL() << web_->err();
    }

    // Whatever the test was about: the web server stops when asked to, nothing stays behind, and neither the
    // web server nor a sanitizer has complained. A gateway can outlive the web server by a moment: once it
    // has a body of the length that the header gives, lighttpd answers the browser and sends SIGTERM to the
    // gateway.
    void TearDown() override {
        if (web_ == nullptr) return;
        web_->kill(SIGTERM);
        EXPECT_TRUE(web_->wait(20s).endedByItself);
        if (fcgiwrap_ != nullptr) {
            fcgiwrap_->kill(SIGTERM);
            const Outcome outcome = fcgiwrap_->wait(20s);
            EXPECT_TRUE(outcome.endedByItself);
            EXPECT_EQ(outcome.err, "");
        }
        EXPECT_TRUE(comesTrue([&] { return processesWith(base_.path()) == 0; }));
        std::ifstream log(base_ / "run/error.log");
        for (std::string line; std::getline(log, line);)
            EXPECT_TRUE(contains(line, GetParam().harmless));
        for (const fs::directory_entry& file : fs::directory_iterator(base_ / "run"))
            EXPECT_FALSE(contains(file.path().filename(), "sanitizer")) << readFile(file.path());
    }

    // A browser's request for a page, "CLIENT/PATH" or an address "/PATH", with further options of curl.
    Command curl(const std::string& page, const std::vector<std::string>& options = {}) const {
        Command command;
        command.program = "/usr/bin/curl";
        command.arguments = {"curl", "-sSN", "--max-time", "60", "-D", header(), "-o", body()};
        command.arguments.insert(command.arguments.end(), options.begin(), options.end());
        const std::string address = (page[0] == '/' ? "" : "/cgi-bin/") + page;
        command.arguments.push_back("http://127.0.0.1:" + port_ + address);
        return command;
    }

    Response get(const std::string& page, const std::vector<std::string>& options = {}) const {
        fs::remove(header());
        fs::remove(body());
        const Outcome outcome = support::run(curl(page, options), 70s);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        return {fs::exists(header()) ? readFile(header()) : "", fs::exists(body()) ? readFile(body()) : ""};
    }

    std::string header() const { return base_ / "curl.header"; }
    std::string body() const { return base_ / "curl.body"; }
    std::string gateways() const { return base_ / "htdocs/cgi-bin/"; }

    support::TempDir base_;
    ApplicationServer first_{"s001"};
    ApplicationServer second_{"s002"};

  private:
    // What stands for a place of this test, or for one of the system that the examples name.
    std::string filledIn(std::string text) const {
        text = replaceAll(text, "/usr/local/VelartoServer/5.5", base_.path());
        text = replaceAll(text, kFcgiwrapSocket, base_ / "run/fcgiwrap");
        text = replaceAll(text, "@BASE@", base_.path());
        return replaceAll(text, "@PORT@", port_);
    }

    static Command serverCommand(const std::vector<std::string>& arguments) {
        Command command;
        command.program = arguments.front();
        command.arguments = arguments;
        if (::geteuid() == 0) command.user = kNobody;
        return command;
    }

    void startFcgiwrap() {
        const std::string socket = filledIn(kFcgiwrapSocket);
        Command command = serverCommand({"/usr/sbin/fcgiwrap", "-f", "-s", "unix:" + socket});
        command.environment = {filledIn("ASAN_OPTIONS=log_path=@BASE@/run/sanitizer")};
        fcgiwrap_ = std::make_unique<Process>(command);
        EXPECT_TRUE(comesTrue([&] { return acceptsConnections(socket); })) << fcgiwrap_->err();
    }

    bool startWebServer(int port) {
        port_ = std::to_string(port);
        const std::string log = base_ / "run/error.log";
        fs::remove(log);
        const std::string folder = VELARTO_EXAMPLES_PATH "/";
        std::string examples;
        for (const std::string& example : GetParam().examples)
            examples += readFile(folder + example);
        const std::string frame = readFile(folder + "../tests/support/" + GetParam().examples.front());
        writeFile(base_ / "web.conf", filledIn(replaceAll(frame, "# @EXAMPLES@\n", examples)));

        std::vector<std::string> arguments = GetParam().command;
        arguments.push_back(base_ / "web.conf");
        web_ = std::make_unique<Process>(serverCommand(arguments));

        const auto listens = [&] { return fs::exists(log) && contains(readFile(log), GetParam().ready); };
        return comesTrue([&] { return !web_->running() || listens(); }) && web_->running();
    }

    static constexpr char kFcgiwrapSocket[] = "/run/fcgiwrap.socket";

    std::unique_ptr<Process> fcgiwrap_;
    std::unique_ptr<Process> web_;
    std::string port_;
};

INSTANTIATE_TEST_SUITE_P(Under, Web, testing::Values(kApache, kLighttpd, kNginx),
                         [](const auto& server) { return server.param.name; });

TEST_P(Web, PageComesThrough) {
    const Response page = get("first/?greeting=hello", {"-b", "a=1"});
    EXPECT_EQ(page.status(), 200);
    EXPECT_TRUE(contains(page.header, "\r\nContent-Type: text/html; charset=utf-8\r\n"));
    EXPECT_TRUE(contains(page.body, "greeting=hello"));
    EXPECT_TRUE(contains(page.body, ">SERVER_NAME</th><td>127.0.0.1</td>"));
    EXPECT_TRUE(contains(page.body, ">CONTENT_LENGTH</th><td>0</td>"));
    EXPECT_TRUE(contains(page.body, "a=1; VelartoClient=first"));
    EXPECT_TRUE(contains(page.body, first_.signature()));
}

TEST_P(Web, LongBinaryBodyComesBackUnchanged) {
    std::mt19937 random(5);
    std::string bytes(5 * 1024 * 1024, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0xFF);
    writeFile(base_ / "upload", bytes);

    const Response page = get("shop/echo", {"--data-binary", "@" + base_ / "upload", "-H",
                                            "Content-Type: application/x-test", "-H", "Expect:"});
    EXPECT_EQ(page.status(), 200);
    EXPECT_TRUE(contains(page.header, "\r\nContent-Type: application/x-test\r\n"));
    EXPECT_TRUE(page.body == bytes);
}

TEST_P(Web, VeryLongAnswerArrivesWhole) {
    constexpr std::uint32_t kSize = 100 * 1024 * 1024;
    const Response page = get("shop/blob?size=" + std::to_string(kSize));
    EXPECT_EQ(page.status(), 200);
    ASSERT_EQ(page.body.size(), kSize);
    const char* bytes = page.body.data();
    std::uint32_t i = 0;
    while (i < kSize && bytes[i] == static_cast<char>(i * 2654435761U >> 24))
        ++i;
    EXPECT_EQ(i, kSize) << "the first wrong byte";
}

TEST_P(Web, PiecesArriveUntilTheBrowserGoesAwayAndTheGatewayEnds) {
    // Byte by byte for an hour: a web server that waited for more would pass nothing on.
    Process browser(curl("shop/stream?pieces=36000&size=1&delay=100"));
    EXPECT_TRUE(comesTrue([&] { return fs::exists(body()) && fs::file_size(body()) > 0; }));
    EXPECT_EQ(processesWith(gateways()), 1);
    browser.kill(SIGKILL);
    EXPECT_TRUE(comesTrue([&] { return processesWith(gateways()) == 0; }));
}

TEST_P(Web, UserStaysWithHisServerUntilItStops) {
    const std::string jar = base_ / "cookies";
    for (const auto& [client, server] : {std::pair("second", &second_), std::pair("first", &first_)}) {
        get(client + std::string("/login"), {"-c", jar});
        for (int round = 0; round < 4; ++round)
            EXPECT_TRUE(contains(get("shop/", {"-b", jar}).body, server->signature()));
    }
    first_.stop();
    EXPECT_TRUE(contains(get("shop/", {"-b", jar}).body, second_.signature()));
    EXPECT_TRUE(contains(get("shop/").body, second_.signature()));
}

TEST_P(Web, DocumentIsReadBesideTheWebServer) {
    writeFile(base_ / "htdocs/price.zml", "<p>{{SCRIPT_NAME}}, {{QUERY_STRING}}, {{nosuch}}, {{\n");
    const Response page = get("nph-shop/price.zml?a&b");
    EXPECT_EQ(page.status(), 200);
    EXPECT_EQ(page.body, "<p>/cgi-bin/nph-shop, a&amp;b, {{nosuch}}, {{\n");

    const Response missing = get("nph-shop/cost.zml");
    EXPECT_EQ(missing.status(), 404);
    EXPECT_TRUE(contains(missing.body, base_ / "htdocs/cost.zml"));
}

TEST_P(Web, DocumentIsFoundByItsExtension) {
    fs::create_directory(base_ / "htdocs/100% new, +5?");
    for (const std::string extension : {".zaf", ".zhtml", ".zml", ".zcf"}) {
        const std::string path = "/100% new, +5?/price" + extension;
        const std::string address = "/100%25%20new,%20+5%3F/price" + extension;
        writeFile(
            base_ / "htdocs" + path,
            "{{SCRIPT_NAME}}\n{{PATH_INFO}}\n{{PATH_TRANSLATED}}\n{{REQUEST_METHOD}} {{QUERY_STRING}}\n");
        const std::string content = "/cgi-bin/shop\n" + path + "\n" + base_.path() + "/htdocs" + path + "\n";
        EXPECT_EQ(get(address + "?a=%20&b").body, content + "GET a=%20&amp;b\n");
        EXPECT_EQ(get(address, {"--data", "a=b"}).body, content + "POST \n");
    }
    writeFile(base_ / "htdocs/price.zml.txt", "{{SCRIPT_NAME}}");
    for (const char* address : {"/price.zml.txt", "/price.zml.txt?.zml"})
        EXPECT_EQ(get(address).body, "{{SCRIPT_NAME}}");
}

TEST_P(Web, ApplicationServerAnswersForMissingDocuments) {
    writeFile(base_ / "htdocs/price.zml", "the source");
    for (const char* address : {"/cost.zml", "/COST.ZML", "/no/such/cost.zml", "/price.zml/more"}) {
        const Response missing = get(address);
        EXPECT_EQ(missing.status(), 404);
        EXPECT_TRUE(contains(missing.body, "answered by 127.0.0.1:"));
    }
    EXPECT_TRUE(contains(get("/cost.zml").body, base_ / "htdocs/cost.zml"));
}

TEST_P(Web, NoPathIsNoDocument) {
    for (const char* variable : {"PATH_INFO", "PATH_TRANSLATED"})
        EXPECT_TRUE(contains(get("shop").body, std::string(">") + variable + "</th><td></td>"));
}

TEST_P(Web, NobodyThereIsAnErrorPage) {
    for (const auto& [client, status] :
         {std::pair<std::string, int>("nobody", 200), {"nph-nobody", GetParam().nphFailure}}) {
        const Response page = get(client + "/");
        EXPECT_EQ(page.status(), status);
        EXPECT_TRUE(contains(page.body, "Error Code: 602<br />"));
        EXPECT_TRUE(contains(page.body, "Velarto Server for client " + client + " on 127.0.0.1,1"));
    }
}

TEST_P(Web, NphProgramMakesTheStatusLine) {
    const Response missing = get("nph-shop/status?code=404");
    EXPECT_EQ(missing.header.find(GetParam().nphStatusLine), 0U) << missing.header;
    EXPECT_TRUE(contains(missing.body, "answered by 127.0.0.1:"));
    const Response moved = get("nph-shop/status?code=302&location=/elsewhere");
    EXPECT_EQ(moved.status(), 302);
    EXPECT_TRUE(contains(moved.header, "\r\nLocation: /elsewhere\r\n"));
}

TEST_P(Web, StatusFieldReachesTheBrowser) {
    EXPECT_EQ(get("shop/status?code=404").status(), 404);
    const Response moved = get("shop/status?code=307&location=/elsewhere");
    EXPECT_EQ(moved.status(), 307);
    EXPECT_TRUE(contains(moved.header, "\r\nLocation: /elsewhere\r\n"));
}

}  // namespace
