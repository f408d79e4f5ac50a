// The application server of examples/: with the real gateway before it, and with peers that misbehave.
#include <arpa/inet.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <deque>

#include "support/Gateway.h"

namespace {

using namespace support;

Command serverCommand() {
    Command command;
    command.program = "/usr/bin/python3";
    command.arguments = {"python3", "-Xdev", "-Werror", VELARTO_EXAMPLES_PATH "/appserver.py",
                         "--listen=127.0.0.1:0"};
    return command;
}

// The server must end with status 0 on SIGTERM, whatever is under way, and never complain.
class Appserver : public GatewayTest {
  protected:
    Appserver() : server_(serverCommand()) {
        EXPECT_TRUE(server_.waitForOut("\n", std::chrono::seconds(20))) << server_.err();
        EXPECT_EQ(std::sscanf(server_.out().c_str(), "listening on 127.0.0.1:%hu\n", &port_), 1);
        configure(entry(port_));
    }
    void TearDown() override {
        server_.kill(SIGTERM);
        const Outcome outcome = server_.wait(std::chrono::seconds(20));
        EXPECT_EQ(outcome.exitStatus, 0);
        EXPECT_EQ(outcome.err, "");
    }
    void expect(const std::string& part, std::vector<std::string> variables, const std::string& body = {}) {
        const std::string all = run(std::move(variables), body, "nph-shop").out;
        EXPECT_NE(all.find(part), std::string::npos)
            << "no " << part.substr(0, 200) << " in " << all.substr(0, 2000);
    }
    // Somebody who connects as a gateway would and sends this.
    Connection& stranger(const std::string& bytes) {
        const sockaddr_in address = {AF_INET, htons(port_), {htonl(INADDR_LOOPBACK)}, {}};
        const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        strangers_.emplace_back(descriptor, -1).send(bytes);
        return strangers_.back();
    }
    void expectLeft(Connection& peer) {  // by the server
        errno = 0;
        peer.receiveRest();
        EXPECT_NE(errno, EAGAIN) << "silence for too long";
    }

    Process server_;
    std::uint16_t port_ = 0;
    std::deque<Connection> strangers_;  // until the server has ended
};

const std::string kMissing = "HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\nContent-Type: text/html";

TEST_F(Appserver, ServesPages) {
    expect(">&lt;a&#x27;&quot;&gt;&amp;\xC3\xA9\\xe9<", {"QUERY_STRING=<a'\">&\xC3\xA9\xE9"});
    expect("<form method=\"post\">", {"PATH_INFO=/form"});
    expect("<td>\xC3\xA9 &lt;b&gt;</td></tr><tr><th>\xC3\xA9</th><td>\\xe9</td></tr></table>",
           {"PATH_INFO=/form", "REQUEST_METHOD=POST"}, "a=%C3%A9+%3Cb%3E&\xC3\xA9=\xE9");
    expect(kMissing, {"PATH_INFO=/other"});
    EXPECT_EQ(run({"REQUEST_METHOD=HEAD"}).out.find('<'), std::string::npos);
}

TEST_F(Appserver, ServesFiles) {
    const std::string large = std::string(1 << 19, '\0') + std::string(1 << 19, '\xFF');
    writeFile(folder_ / "large", large);
    const std::string translated = "PATH_TRANSLATED=" + (folder_ / "large");
    expect("text/plain\r\nContent-Length: 1048576\r\n\r\n" + large, {"PATH_INFO=/file.txt", translated});
    expect("HTTP/1.0 200 OK\r\nStatus: 200 OK\r\nContent-Type: ", {"PATH_INFO=/a.zaf", translated});
    expect(kMissing, {"PATH_INFO=/file.txt", translated + "r"});
    expect(kMissing, {"PATH_INFO=/file/..\\large", translated});
}

TEST_F(Appserver, ServesManyAtOnce) {
    std::deque<Process> gateways;
    for (int i = 0; i < 20; ++i) {
        stranger("QUIL");  // and no more
        gateways.emplace_back(command({"QUERY_STRING=n" + std::to_string(i)}));
    }
    for (std::size_t i = 0; i < gateways.size(); ++i)
        EXPECT_NE(finish(gateways[i]).out.find("<td>n" + std::to_string(i) + "<"), std::string::npos);
}

TEST_F(Appserver, LeavesPeersThatMisbehave) {
    wire::Request request;
    const std::string page = wire::encode(request);
    request["PATH_INFO"] = "/file";
    for (const std::size_t at : {0u, 4u, 11u, 16u, 20u, 24u, 36u, 507u})  // 16, 20, 36: lengths
        expectLeft(stranger(std::string(page).replace(at, 1, "\xF0")));
    for (const std::string& reply : {wire::acknowledgement(4), wire::message(6, wire::number(0))})
        expectLeft(stranger(page + reply));
    expectLeft(stranger(wire::encode(request) + wire::message(3, wire::number(1) + wire::number(~0u))));
    for (const std::size_t length : {0u, 9u, 300u, 508u}) {
        stranger(page.substr(0, length)).closeSending();
        expectLeft(strangers_.back());
    }
    stranger(page).receive(12);
    strangers_.back().reset();
    expect("<h1>The request</h1>", {});
}

}  // namespace
