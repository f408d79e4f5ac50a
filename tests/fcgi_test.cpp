// velarto-fcgi, spoken to byte by byte over its own socket: what a web server would not say, failures of application
// servers, its configuration, its end and its successor. The web servers themselves: web_test.
#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <regex>
#include <set>
#include <thread>

#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Fcgi.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
using Texts = std::vector<std::string>;

#ifdef VELARTO_SANITIZED
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
constexpr char kSpoiled[] = "Content-Type: text/plain\r\n\r\nhal";

std::string get(const std::string& path, bool isKept = false) {
    return fcgi::request({{"REQUEST_METHOD", "GET"}, {"PATH_INFO", path}}, "", isKept);
}

std::string post(const std::string& body, bool tellsLength, bool isKept = false) {
    fcgi::Variables variables = {{"REQUEST_METHOD", "POST"}, {"PATH_INFO", "/echo"}};
    if (tellsLength) variables.emplace_back("CONTENT_LENGTH", std::to_string(body.size()));
    return fcgi::request(variables, body, isKept);
}

std::string bodyOf(const fcgi::Reply& reply) {
    const std::size_t end = reply.out.find("\r\n\r\n");
    return end != reply.out.npos ? reply.out.substr(end + 4) : "";
}

class Host : public GatewayTest {
  protected:
    // What the host must be in the end, whatever the test was about: alive, and gone when it is asked to.
    void TearDown() override {
        for (const auto& host : hosts_) {
            host->kill(SIGTERM);
            EXPECT_EQ(host->wait(20s).exitStatus, 0) << host->err();
        }
    }

    Command hostCommand(const Texts& options) {
        Command command = this->command();
        command.program = VELARTO_FCGI_PATH;
        command.arguments = {"velarto-fcgi", "shop"};
        command.arguments.insert(command.arguments.end(), options.begin(), options.end());
        return command;
    }
    Process& start(Texts options = {}) {
        options.insert(options.end(), {"--listen", "unix:" + socket_, "--status", "unix:" + status_});
        Process& host = *hosts_.emplace_back(std::make_unique<Process>(hostCommand(options)));
        waitForLine(host, "serving shop");
        return host;
    }
    static bool waitForLine(Process& host, const std::string& text, int count = 1) {
        for (int tries = 0; tries < 2000 && host.running(); ++tries) {
            const std::string log = host.err();
            int seen = 0;
            for (std::size_t at = 0; (at = log.find(text, at)) != log.npos; ++at)
                ++seen;
            if (seen >= count) return true;
            ::usleep(10000);
        }
        ADD_FAILURE() << "no '" << text << "' in:\n" << host.err();
        return false;
    }

    fcgi::Reply ask(const std::string& request) const { return fcgi::Client(socket_).ask(request); }
    std::string page(const std::string& path) const {
        const Texts line = {"/usr/bin/curl", "-sS",   "--max-time",        "20",
                            "--unix-socket", status_, "http://host" + path};
        const Outcome outcome = support::run(commandOf(line), 30s);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        return outcome.out;
    }

    void waitForMetric(const std::string& line) const {
        for (int tries = 0; tries < 2000; ++tries) {
            if (page("/metrics").find(line + "\n") != std::string::npos) return;
            ::usleep(10000);
        }
        ADD_FAILURE() << "never " << line;
    }
    // What the host may have of this kind.
    static void bound(const Process& host, __rlimit_resource kind, rlim_t soft) {
        rlimit limit{};
        EXPECT_EQ(::prlimit(host.pid(), kind, nullptr, &limit), 0);
        limit.rlim_cur = soft;
        EXPECT_EQ(::prlimit(host.pid(), kind, &limit, nullptr), 0);
    }
    // The host may open so many descriptors more than it has.
    static void leaveDescriptors(const Process& host, int count) {
        std::set<rlim_t> taken;
        for (const auto& item :
             std::filesystem::directory_iterator("/proc/" + std::to_string(host.pid()) + "/fd"))
            taken.insert(std::stoul(item.path().filename()));
        rlim_t limit = 0;
        for (; taken.count(limit) != 0 || count > 0; ++limit)
            if (taken.count(limit) == 0) --count;
        bound(host, RLIMIT_NOFILE, limit);
    }

    const std::string socket_ = folder_ / "fcgi";
    const std::string status_ = folder_ / "status";
    std::vector<std::unique_ptr<Process>> hosts_;
};

TEST_F(Host, SurvivesWhatIsNoRequest) {
    const DevServer server;
    configure(entry(server.port()));
    start();
    const std::string whole = get("/blob?size=1");
    Texts inputs = {std::string(1000, '\xFF'),
                    fcgi::record(fcgi::kBegin, "short"),
                    fcgi::begin(false, 2) + fcgi::params({}),  // an authorizer
                    fcgi::begin(false, 99) + fcgi::params({}),
                    fcgi::record(fcgi::kGetValues, fcgi::length(14) + fcgi::length(0) + "FCGI_MAX_CONNS", 0),
                    fcgi::record(fcgi::kStdin, "before its beginning"),
                    fcgi::begin(false) + fcgi::record(fcgi::kAbort, ""),
                    fcgi::begin(false) + fcgi::record(fcgi::kParams, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"),
                    fcgi::begin(false) + fcgi::record(fcgi::kParams, "\xC3\xC3\xC3\xC3\xC3\xC3\xC3\xC3" +
                                                                         std::string(60000, 'A')),
                    fcgi::begin(false) + fcgi::record(fcgi::kParams, "\x80\x40\1\1\0" + std::string(9, 'A')),
                    fcgi::begin(false) + fcgi::params({{"A", "b"}}) + fcgi::record(77, "no such type"),
                    fcgi::record(fcgi::kBegin, std::string(8, '\1'), 1, 2)};
    for (std::size_t size = 0; size < whole.size(); ++size)
        inputs.push_back(whole.substr(0, size));
    for (const std::string& input : inputs) {
        fcgi::Client client(socket_);
        client.send(input);
        client.closeSending();
        client.receive();
    }
    EXPECT_TRUE(contains(page("/status.json"), "\"requests_answered\": 0"));
    fcgi::Variables many(100000, {"HTTP_X", "y"});
    many.emplace_back("PATH_INFO", "/echo");
    many.emplace_back("HTTP_LONG", std::string(1 << 20, 'l'));
    EXPECT_TRUE(contains(ask(fcgi::request(many)).out, "Status: 200 OK"));
}

TEST_F(Host, AnswersFailuresByTheirStatus) {
    const DeadPort dead;
    configure(entry(dead.port()));
    Process& host = start();
    const fcgi::Reply refused = ask(get("/"));
    EXPECT_TRUE(refused.isWhole);
    EXPECT_EQ(
        refused.out.find("Status: 503 Service Unavailable\r\nRetry-After: 10\r\nContent-type: text/html\r\n"),
        0U);
    EXPECT_EQ(refused.out.find(std::to_string(dead.port())), refused.out.npos)
        << "the visitor sees the address";
    EXPECT_TRUE(contains(page("/status.json"), std::to_string(dead.port())));

    const auto breaking = [](Texts messages) {
        return [messages](Connection& connection) {
            connection.receiveRequest();
            connection.serve(messages);
            connection.close();
        };
    };
    const std::string header = kAnswer[0];
    const struct {
        const char* what;
        Script script;
        std::string begins;
        bool isWhole;
    } cases[] = {
        {"closes at once", [](Connection& connection) { connection.close(); }, "Status: 502 Bad Gateway\r\n",
         true},
        {"closes behind the header", breaking({header}), "Status: 502 Bad Gateway\r\n", true},
        {"stalls", [](Connection& connection) { connection.stall(); }, "Status: 504 Gateway Timeout\r\n",
         true},
        {"no header", breaking({wire::header("OK\r\n\r\n")}), "Status: 502 Bad Gateway\r\n", true},
        {"closes in the body", breaking({header, wire::body("hal")}),
         "Status: 200 OK\r\n" + std::string(kSpoiled), false},
        {"whole", answering(kAnswer), "Status: 200 OK\r\n" + kAnswerOutput, true},
    };
    int reloads = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        serveAlone(c.script, "CLIENTIOTIMEOUT=1\n");
        host.kill(SIGHUP);
        waitForLine(host, "loaded again", ++reloads);
        const fcgi::Reply reply = ask(get("/"));
        EXPECT_EQ(reply.out.substr(0, c.begins.size()), c.begins);
        EXPECT_EQ(reply.isWhole, c.isWhole);
    }
}

// Whoever is waited for: the request ends, and its thread serves the next.
TEST_F(Host, GivesUpARequestWhoseTimeIsOver) {
    const auto trickle = [](Connection& connection) {
        connection.receiveRequest();
        const std::string bytes =
            wire::header("HTTP/1.0 200 OK\r\nX: " + std::string(100000, 'x') + "\r\n\r\n");
        for (const char byte : bytes) {
            connection.send(std::string(1, byte));
            ::usleep(20000);
            if (connection.isClosed()) return;
        }
    };
    serveAlone(trickle, "CLIENTIOTIMEOUT=300\n");
    start({"--request-timeout", "1", "--threads", "1"});
    EXPECT_EQ(ask(get("/")).out.find("Status: 504 "), 0U);

    const fcgi::Variables upload = {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "10"}};
    EXPECT_EQ(ask(fcgi::begin(false) + fcgi::params(upload) + fcgi::record(fcgi::kStdin, "12345"))
                  .out.find("Status: 400 "),
              0U);
    EXPECT_FALSE(ask(fcgi::begin(false) + fcgi::record(fcgi::kParams, "\1\1")).isWhole);
}

TEST_F(Host, FollowsItsConfiguration) {
    const DevServer first({"--sid", "s001"}), second({"--sid", "s002"});
    const auto section = [&](const std::string& server) {
        return "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=" + server + "\n\n";
    };
    writeFile(clientsFile(), section("s001," + entry(first.port())));
    Process& host = start();
    EXPECT_TRUE(contains(ask(get("/")).out, "(s001)"));

    writeFile(clientsFile(), "[shop]\nx\n");
    waitForLine(host, "clients.ini:2:2: no = after");
    EXPECT_TRUE(contains(ask(get("/")).out, "(s001)"));
    EXPECT_TRUE(contains(page("/status.json"), "clients.ini:2:2: no = after"));
    EXPECT_TRUE(contains(page("/metrics"), "velarto_config_good 0"));
    std::filesystem::remove(clientsFile());
    waitForLine(host, "No such file or directory; the last good configuration stays");
    EXPECT_TRUE(contains(ask(get("/")).out, "(s001)"));

    writeFile(clientsFile(), section("s002," + entry(second.port())));
    waitForLine(host, "loaded again");
    EXPECT_TRUE(contains(ask(get("/")).out, "(s002)"));
    EXPECT_TRUE(contains(page("/metrics"), "velarto_config_good 1"));
    const std::string log = host.err();
    EXPECT_EQ(log.find("no = after"), log.rfind("no = after")) << "told more than once";
}

TEST_F(Host, EndsWhenWhatIsUnderWayHasEnded) {
    const DevServer server;
    configure(entry(server.port()));
    Process& host = start();
    fcgi::Client client(socket_), kept(socket_);
    EXPECT_TRUE(kept.ask(get("/blob", true)).isWhole);
    client.send(fcgi::request({{"PATH_INFO", "/stream"}, {"QUERY_STRING", "pieces=5&size=3&delay=200"}}));
    waitForMetric("velarto_requests_in_flight 1");
    host.kill(SIGTERM);
    waitForLine(host, "ending");
    EXPECT_TRUE(client.receive().isWhole);
    const Outcome outcome = host.wait(20s);
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_FALSE(kept.ask(get("/blob", true)).isWhole);
}

TEST_F(Host, KeptConnectionsBindNoThread) {
    const DevServer server;
    configure(entry(server.port()));
    start({"--threads", "1"});
    std::vector<std::unique_ptr<fcgi::Client>> clients;
    for (int i = 0; i < 5; ++i)
        clients.push_back(std::make_unique<fcgi::Client>(socket_));
    for (int turn = 0; turn < 3; ++turn) {
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const std::string body = std::to_string(turn) + " of " + std::to_string(i);
            EXPECT_EQ(bodyOf(clients[i]->ask(post(body, turn == 0, true))), body);
        }
    }
}

TEST_F(Host, RequestsWaitWhileAllThreadsAreBusy) {
    const DevServer server;
    configure(entry(server.port()));
    start({"--threads", "2"});
    const std::string slow =
        fcgi::request({{"PATH_INFO", "/stream"}, {"QUERY_STRING", "pieces=5&size=3&delay=200"}});
    fcgi::Client first(socket_), second(socket_), third(socket_);
    first.send(slow);
    second.send(slow);
    waitForMetric("velarto_threads_busy 2");
    third.send(get("/blob"));
    EXPECT_TRUE(contains(page("/status.json"), "\"requests_answered\": 0"));
    for (fcgi::Client* client : {&third, &first, &second})
        EXPECT_TRUE(client->receive().isWhole);
}

TEST_F(Host, SlowReaderHoldsNobodyElseUp) {
    const DevServer server;
    configure(entry(server.port()));
    start({"--threads", "2"});
    constexpr std::size_t kSize = 20000000;
    fcgi::Client slow(socket_);
    slow.send(fcgi::request({{"PATH_INFO", "/blob"}, {"QUERY_STRING", "size=" + std::to_string(kSize)}}));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(bodyOf(ask(post("quick", true))), "quick");
    const fcgi::Reply reply = slow.receive();
    EXPECT_TRUE(reply.isWhole);
    EXPECT_EQ(bodyOf(reply).size(), kSize);
}

TEST_F(Host, BearsThatDescriptorsRunOut) {
    if (kIsSanitized) GTEST_SKIP() << "the look at an object's type takes descriptors of its own";
    const DevServer server;
    configure(entry(server.port()));
    Process& host = start();
    leaveDescriptors(host, 0);
    fcgi::Client waiting(socket_);
    waiting.send(get("/blob"));
    EXPECT_FALSE(waiting.hasReply(300));
    leaveDescriptors(host, 1);
    EXPECT_EQ(waiting.receive().out.find("Status: 503 "), 0U) << "there is one for it, but none for a server";
    leaveDescriptors(host, 20);
    EXPECT_EQ(ask(get("/blob")).out.substr(0, 12), "Status: 200 ");
}

TEST_F(Host, BearsThatMemoryRunsOut) {
    if (kIsSanitized) GTEST_SKIP() << "sanitizers need what memory they want";
    const DevServer server;
    configure(entry(server.port()));
    Process& host = start({"--threads", "2"});
    EXPECT_EQ(bodyOf(ask(post("before", true))), "before");
    const std::string sizes = readFile("/proc/" + std::to_string(host.pid()) + "/statm");
    bound(host, RLIMIT_AS, (std::stoul(sizes) + 2048) * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)));
    const fcgi::Variables large = {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "100000000"}};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ask(fcgi::begin(false) + fcgi::params(large)).out.find("Status: 503 "), 0U);
    EXPECT_EQ(bodyOf(ask(post("after", true))), "after");
}

TEST_F(Host, ServesTheSocketThatItIsGiven) {
    const DevServer server;
    configure(entry(server.port()));
    const Command program = hostCommand({});
    const Texts starters[] = {{"/usr/bin/systemd-socket-activate", "--setenv=VELARTO_PATH=" + folder_.path(),
                               "--listen=" + socket_},
                              {"/usr/bin/python3", "-c",
                               "import os, socket, sys\n"
                               "s = socket.socket(socket.AF_UNIX); s.bind(sys.argv[1]); s.listen()\n"
                               "os.dup2(s.fileno(), 0); os.execv(sys.argv[2], sys.argv[2:])",
                               socket_}};
    for (const Texts& starter : starters) {
        SCOPED_TRACE(starter[0]);
        if (::access(starter[0].c_str(), X_OK) != 0) continue;
        Command command = program;
        command.program = starter[0];
        command.arguments = starter;
        command.arguments.insert(command.arguments.end(), {program.program, "shop", "--threads", "4"});
        Process& host = *hosts_.emplace_back(std::make_unique<Process>(command));
        for (int tries = 0; tries < 2000 && !fcgi::Client(socket_).isConnected(); ++tries)
            ::usleep(10000);
        EXPECT_EQ(bodyOf(ask(post("given", true))), "given");
        host.kill(SIGTERM);
        EXPECT_EQ(host.wait(20s).exitStatus, 0) << host.err();
        std::filesystem::remove(socket_);
    }
}

TEST_F(Host, BodyHasItsLimit) {
    const DevServer server;
    configure(entry(server.port()));
    start({"--max-body", "100K"});
    const std::size_t most = 100 * 1024;
    for (const bool tellsLength : {true, false}) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{16384}, most, most + 1}) {
            SCOPED_TRACE(size);
            const std::string body(size, 'b');
            fcgi::Client client(socket_);
            const fcgi::Reply reply = client.ask(post(body, tellsLength, true));
            EXPECT_EQ(reply.out.find(size > most ? "Status: 413 " : "Status: 200 "), 0U);
            if (size > most) continue;
            EXPECT_TRUE(bodyOf(reply) == body);
            EXPECT_EQ(bodyOf(client.ask(post("next", true, true))), "next");
        }
    }
}

TEST_F(Host, HandsTheHeaderFieldsOnWhereTheSectionWantsThem) {
    ScriptedPeer& server = serveAlone(kAnswer, "SENDFULLHEADER=yes\n");
    start();
    ask(fcgi::request(
        {{"HTTP_USER_AGENT", "me"}, {"CONTENT_TYPE", "a/b"}, {"SERVER_NAME", "s"}, {"HTTP_X_EMPTY", ""}}));
    EXPECT_EQ(server.onlyVisit().request["FULLHEADER"], "User-Agent: me\r\nContent-Type: a/b\r\n");
    EXPECT_EQ(server.onlyVisit().request["COMMANDLINE"], "velarto-fcgi");
}

TEST_F(Host, TellsItsState) {
    const DevServer server;
    configure("s001," + entry(server.port()));
    start();
    EXPECT_TRUE(ask(get("/")).isWhole);
    EXPECT_TRUE(ask(fcgi::request({{"PATH_INFO", "/<b>\xFF"}, {"CONTENT_LENGTH", "-1"}})).isWhole);
    const std::string json = page("/status.json");
    for (const char* part :
         {"\"requests_answered\": 1", "\"requests_failed\": 1", "\"code\": 603", "\"attempts\": 1"})
        EXPECT_TRUE(contains(json, part));
    EXPECT_TRUE(contains(page("/"), "&lt;b&gt;"));
    EXPECT_TRUE(contains(page("/other"), "/metrics"));

    const std::string metrics = page("/metrics");
    for (const char* line :
         {"velarto_requests_total{outcome=\"answered\"} 1", "velarto_requests_total{outcome=\"603\"} 1",
          "velarto_request_seconds_count 2", "velarto_connect_seconds_count 1"})
        EXPECT_TRUE(contains(metrics, line));
    Command promtool = commandOf({"/usr/bin/promtool", "check", "metrics"});
    promtool.input = metrics;
    const Outcome outcome = support::run(promtool, 20s);
    if (outcome.exitStatus == 127) GTEST_SKIP() << "there is no promtool";
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.out << outcome.err;
    EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST_F(Host, SaysWhyItCannotStart) {
    configure("127.0.0.1,1");
    writeFile(folder_ / "file", "");
    const std::tuple<Texts, int, std::string> cases[] = {
        {{"--check"}, 0, "[shop] can be used"},
        {{"--threads", "0"}, 2, "--threads"},
        {{"--listen", "nowhere"}, 2, "wants unix:PATH, HOST:PORT or [ADDRESS]:PORT, not nowhere"},
        {{"--listen", "unix:" + folder_.path() + "/none/s"}, 1, "No such file or directory"},
        {{"--listen", "192.0.2.1:1"}, 1, "Cannot assign requested address"},
        {{}, 1, "no socket to serve"},
        {{"--version"}, 0, "velarto-fcgi (Velarto) 5.5.020"},
    };
    for (const auto& [options, status, text] : cases) {
        const Outcome outcome = support::run(hostCommand(options), 20s);
        EXPECT_EQ(outcome.exitStatus, status) << text;
        EXPECT_TRUE(contains(outcome.out + outcome.err, text));
    }
    const std::pair<std::string, std::string> limits[] = {
        {"ulimit -n 100", "64 threads need 320 descriptors; there may be 100"},
        {"ulimit -v 300000", "cannot start 64 threads: Resource temporarily unavailable"},
    };
    for (const auto& [limit, text] : limits) {
        if (kIsSanitized && limit.find("-v") != limit.npos) continue;
        Command command = hostCommand({"--listen", "unix:" + socket_});
        command.arguments.insert(command.arguments.begin(), {"sh", "-c", limit + R"( && exec "$0" "$@")"});
        command.arguments[3] = std::exchange(command.program, "/bin/sh");
        const Outcome outcome = support::run(command, 20s);
        EXPECT_EQ(outcome.exitStatus, 1) << outcome.signal;
        EXPECT_TRUE(contains(outcome.err, text));
    }
    writeFile(clientsFile(), "[shop]\nx\n");
    for (const Texts& options : {Texts{"--check"}, Texts{"--listen", "unix:" + socket_}}) {
        const Outcome outcome = support::run(hostCommand(options), 20s);
        EXPECT_EQ(outcome.exitStatus, 78);
        EXPECT_TRUE(contains(outcome.err, "clients.ini:2:2: no = after"));
    }
}

// Threads that ask without a pause, each for what is its own.
class Askers {
  public:
    Askers(const std::string& socket, int threads, int requests) {
        for (int thread = 0; thread < threads; ++thread) {
            threads_.emplace_back([=] {
                for (int i = 0; i < requests; ++i)
                    count(socket, std::to_string(thread) + "/" + std::to_string(i));
            });
        }
    }
    ~Askers() { join(); }
    void join() {
        for (std::thread& thread : threads_)
            if (thread.joinable()) thread.join();
    }

    int done() const { return own_ + failed_ + lost_ + foreign_; }
    std::atomic<int> own_{0};      // answers with the asker's own body
    std::atomic<int> failed_{0};   // pages of failures, and answers that broke off
    std::atomic<int> lost_{0};     // nothing came
    std::atomic<int> foreign_{0};  // somebody else's

  private:
    void count(const std::string& socket, const std::string& body) {
        const fcgi::Reply reply = fcgi::Client(socket).ask(post(body, true));
        if (reply.out.find("Status: ") != 0) {
            ++lost_;
        } else if (!reply.isWhole || reply.out.find("Status: 200 ") != 0) {
            ++failed_;
        } else {
            ++(bodyOf(reply) == body ? own_ : foreign_);
        }
    }

    std::vector<std::thread> threads_;
};

TEST_F(Host, NewProcessTakesOverWithoutALoss) {
    const DevServer server;
    configure(entry(server.port()));
    start();
    Askers askers(socket_, 4, 500);
    for (int turn = 1; turn <= 4; ++turn) {
        while (askers.done() < turn * 400)
            ::usleep(1000);
        start();
        Process& former = *hosts_[hosts_.size() - 2];
        former.kill(SIGTERM);
        EXPECT_EQ(former.wait(30s).exitStatus, 0) << former.err();
    }
    askers.join();
    EXPECT_EQ(askers.own_, 2000);
}

// With VELARTO_MANY=N in the environment as many requests.
TEST_F(Host, ManyRequestsWhileServersAndTheFileChange) {
    const char* many = std::getenv("VELARTO_MANY");
    const int requests = many != nullptr ? std::stoi(many) : 2000;
    const DevServer steady;
    auto other = std::make_unique<DevServer>();
    const std::string servers = entry(steady.port()) + ":" + entry(other->port());
    configure(servers);
    Process& host = start({"--threads", "8"});
    Askers askers(socket_, 8, requests / 8);
    for (int turn = 0; askers.done() < requests; ++turn) {
        configure(servers, "CONNECTTIMEOUT=" + std::to_string(1000 + turn) + "\n");
        if (turn % 4 == 1) other.reset();
        ::usleep(500000);
    }
    askers.join();
    EXPECT_EQ(askers.foreign_, 0);
    EXPECT_EQ(askers.lost_, 0);
    EXPECT_EQ(askers.own_ + askers.failed_, requests);
    EXPECT_LT(askers.failed_, 16);  // those that the server had taken when it went
    EXPECT_TRUE(host.running());
}

}  // namespace
