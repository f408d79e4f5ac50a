// The gateway under real web servers, Apache's mod_cgid and lighttpd's mod_cgi, driven by curl. Each test has
// a web server and two application servers of its own on the loopback address, all files in a temporary
// folder; the part of the web server's configuration that concerns the gateway is that of examples/.
#include <gtest/gtest.h>
#include <signal.h>
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

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using support::Command;
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

testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no '" << part << "' in:\n" << text;
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

struct WebServer {
    const char* name;
    std::vector<std::string> command;  // followed by the path of the configuration
    const char* configuration;         // the file of this name in support/, and after it that in examples/
    const char* ready;                 // stands in the error log once the server listens
    const char* harmless;              // stands in those lines of the error log that are no complaint
    const char* nphStatusLine;         // of an "nph-" program: its own, or one made from it
};

const WebServer kApache = {"Apache",      {"/usr/sbin/apache2", "-DFOREGROUND", "-f"},
                           "apache.conf", "resuming normal operations",
                           ":notice]",    "HTTP/1.0 404 Not Found\r\n"};

const WebServer kLighttpd = {"Lighttpd",
                             {"/usr/sbin/lighttpd", "-D", "-f"},
                             "lighttpd.conf",
                             "server started",
                             "server st",  // started, stopped
                             "HTTP/1.1 404 Not Found\r\n"};

// A development application server with an identifier.
class ApplicationServer {
  public:
    explicit ApplicationServer(const std::string& sid) : process_(command(sid)) {
        EXPECT_TRUE(process_.waitForOut("\n", 10s)) << process_.err();
        const std::string line = process_.out();
        const std::string port = std::to_string(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
        entry_ = sid + ",127.0.0.1," + port;
        signature_ = "answered by 127.0.0.1:" + port + " (" + sid + ")";
    }

    const std::string& entry() const { return entry_; }          // in a server list
    const std::string& signature() const { return signature_; }  // in every page

    void stop() {
        process_.kill(SIGTERM);
        EXPECT_TRUE(process_.wait(10s).endedByItself);
    }

  private:
    static Command command(const std::string& sid) {
        Command command;
        command.program = VELARTO_DEVSERVER_PATH;
        command.arguments = {command.program, "--listen", "127.0.0.1:0", "--sid", sid};
        command.environment = support::currentEnvironment();
        return command;
    }

    Process process_;
    std::string entry_;
    std::string signature_;
};

struct Response {
    std::string header;  // status line to empty line
    std::string body;

    int status() const { return header.size() > 9 ? std::atoi(header.c_str() + 9) : 0; }
};

// One web server with the gateway installed under several names.
class Web : public testing::TestWithParam<WebServer> {
  protected:
    void SetUp() override {
        for (const char* folder : {"configuration", "htdocs", "htdocs/cgi-bin", "run"})
            fs::create_directory(base_ / folder);
        const std::string both = first_.entry() + ":" + second_.entry();
        const std::string clients[][2] = {
            {"first", first_.entry()}, {"second", second_.entry()}, {"shop", both},
            {"nph-shop", both},        {"nobody", "127.0.0.1,1"},   {"nph-nobody", "127.0.0.1,1"}};
        std::string directory = "[Velarto Client Definitions]\n";
        std::string sections;
        for (const auto& [client, servers] : clients) {
            fs::copy_file(VELARTO_CGI_PATH, gateways() + client);
            directory += client + "=\n";
            sections += "\n[" + client + "]\nVELARTO_SERVER=" + servers + "\n";
        }
        writeFile(base_ / "configuration/clients.ini", directory + sections);
        if (::geteuid() == 0) {
            fs::permissions(base_.path(), fs::perms(0755));
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(base_.path()))
                ASSERT_EQ(::chown(entry.path().c_str(), kNobody, kNobody), 0);
        }
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
        EXPECT_TRUE(comesTrue([&] { return processesWith(base_.path()) == 0; }));
        std::ifstream log(base_ / "run/error.log");
        for (std::string line; std::getline(log, line);)
            EXPECT_TRUE(contains(line, GetParam().harmless));
        for (const fs::directory_entry& file : fs::directory_iterator(base_ / "run"))
            EXPECT_FALSE(contains(file.path().filename(), "sanitizer")) << readFile(file.path());
    }

    // A browser's request for a page, "CLIENT/PATH", with further options of curl.
    Command curl(const std::string& page, const std::vector<std::string>& options = {}) const {
        Command command;
        command.program = "/usr/bin/curl";
        command.arguments = {"curl", "-sS", "--max-time", "60", "-D", header(), "-o", body()};
        command.arguments.insert(command.arguments.end(), options.begin(), options.end());
        command.arguments.push_back("http://127.0.0.1:" + port_ + "/cgi-bin/" + page);
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
    bool startWebServer(int port) {
        port_ = std::to_string(port);
        const std::string log = base_ / "run/error.log";
        fs::remove(log);
        const std::string examples = VELARTO_EXAMPLES_PATH "/", name = GetParam().configuration;
        std::string configuration =
            readFile(examples + "../tests/support/" + name) +
            replaceAll(readFile(examples + name), "/usr/local/VelartoServer/5.5", "@BASE@");
        configuration = replaceAll(configuration, "@BASE@", base_.path());
        configuration = replaceAll(configuration, "@PORT@", port_);
        writeFile(base_ / "web.conf", configuration);

        Command command;
        command.arguments = GetParam().command;
        command.arguments.push_back(base_ / "web.conf");
        command.program = command.arguments.front();
        if (::geteuid() == 0) command.user = kNobody;
        web_ = std::make_unique<Process>(command);

        const auto listens = [&] { return fs::exists(log) && contains(readFile(log), GetParam().ready); };
        return comesTrue([&] { return !web_->running() || listens(); }) && web_->running();
    }

    std::unique_ptr<Process> web_;
    std::string port_;
};

INSTANTIATE_TEST_SUITE_P(Under, Web, testing::Values(kApache, kLighttpd),
                         [](const auto& server) { return server.param.name; });

TEST_P(Web, PageComesThrough) {
    const Response page = get("first/?greeting=hello", {"-b", "a=1"});
    EXPECT_EQ(page.status(), 200);
    EXPECT_TRUE(contains(page.header, "\r\nContent-Type: text/html; charset=utf-8\r\n"));
    EXPECT_TRUE(contains(page.body, "greeting=hello"));
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

TEST_P(Web, GatewayEndsWhenTheBrowserGoesAway) {
    Process browser(curl("shop/stream?pieces=90000&size=4096&delay=40"));  // an answer of an hour
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

TEST_P(Web, NobodyThereIsAnErrorPage) {
    for (const auto& [client, status] : {std::pair<std::string, int>("nobody", 200), {"nph-nobody", 500}}) {
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

TEST(WebExamples, StandInTheReadme) {
    const std::string readme = readFile(VELARTO_EXAMPLES_PATH "/../README.md");
    for (const char* example : {"apache.conf", "lighttpd.conf", "clients.ini"})
        EXPECT_TRUE(
            contains(readme, "\n" + readFile(std::string(VELARTO_EXAMPLES_PATH "/") + example) + "```\n"));
}

}  // namespace
