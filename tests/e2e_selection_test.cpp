// End to end: the real gateway turns to the application server that its configuration and the request name,
// and its cookies tell the server about that.
#include <cstdio>

#include "support/Gateway.h"

namespace {

using namespace std::string_literals;
using namespace support;

std::string hexRoute(std::uint16_t port) {
    char text[16];
    std::snprintf(text, sizeof text, "7F000001%04X", port);
    return text;
}

std::string route(const std::string& value) {
    return "VelartoClient=shop; Velarto_CGIIP=" + value;
}

class GatewaySelection : public GatewayTest {
  protected:
    // The next request must be the first that reaches this server, with this cookie parameter.
    void expectChoice(ScriptedPeer& server, const std::string& cookie,
                      const std::vector<std::string>& variables = {}, const std::string& body = "") {
        expectSuccess(run(variables, body), kAnswerOutput);
        EXPECT_EQ(server.onlyVisit().request["HTTP_COOKIE"], cookie);
    }

    const DeadPort dead_;
};

TEST_F(GatewaySelection, RequestReachesTheServerItAsksFor) {
    const std::string rest(24, '-'), toSecond = "_UserReference=s002" + rest;
    const struct {
        std::string query, cookie, body;
        std::string sent;
    } cases[] = {
        {"srv=s002", "a=1", "", "a=1; VelartoClient=shop"},
        {"", "Velarto" + toSecond, "", "Velarto" + toSecond + "; " + route("s002")},
        {toSecond, "", "", route("s002")},
        {"", "", "x=1&" + toSecond, route("s002")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        ScriptedPeer &first = serve(kAnswer), &second = serve(kAnswer);
        configure("s001," + entry(first.port()) + ":s002," + entry(second.port()),
                  "FORCE_SERVER_ARG_NAME=srv\n");
        expectChoice(second, c.sent, {"QUERY_STRING=" + c.query, "HTTP_COOKIE=" + c.cookie}, c.body);
    }
}

TEST_F(GatewaySelection, ForcedServerHasNoSubstitute) {
    ScriptedPeer& live = serve(kAnswer);
    const std::string forced = "s001," + entry(dead_.port());
    configure(forced + ":s002," + entry(live.port()), "FORCE_SERVER_ARG_NAME=srv\n");
    expectPage(run({"QUERY_STRING=srv=s001"}), 602,
               "Tried connecting to Velarto Server for client shop on " + forced);
    EXPECT_TRUE(live.visits().empty());
}

// Whatever is wrong with an entry, its attempt fails and the good one is found. The port is taken modulo
// 65536; the route names the one really connected to.
TEST_F(GatewaySelection, BadEntriesAreStumblingBlocksOnly) {
    for (const std::string& bad : {entry(dead_.port()), "127.0.0.1,0"s, "127.0.0.1,65536"s, "127.0.0.1,x"s,
                                   ",,"s, ""s, "1.2.3.4.5,80"s, std::string(3000, ',')}) {
        SCOPED_TRACE(bad.substr(0, 60));
        ScriptedPeer& server = serve(kAnswer);
        configure(bad + ":localhost," + std::to_string(server.port() + 65536));
        expectChoice(server, route(hexRoute(server.port())));
    }
}

TEST_F(GatewaySelection, ListWrittenWithColonsInsideEntriesIsUnderstoodAndLeft) {
    ScriptedPeer& server = serve(kAnswer);
    const std::string list =
        "127.0.0.1:" + std::to_string(dead_.port()) + ",localhost:" + std::to_string(server.port());
    configure(list);
    const std::string before = readFile(clientsFile());
    expectChoice(server, route(hexRoute(server.port())));
    EXPECT_EQ(readFile(clientsFile()), before);
}

TEST_F(GatewaySelection, OlderFormBecomesAListInTheFile) {
    ScriptedPeer& server = serve(kAnswer);
    const std::string first = std::to_string(dead_.port());
    const std::string second = std::to_string(server.port());
    writeFile(clientsFile(), "; kept by hand\n[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_PORT=" +
                                 first + ":" + second + "\nVELARTO_HOST=127.0.0.1\n\n[Other]\nb=2\na=1\n");
    expectChoice(server, route(hexRoute(server.port())));
    const std::string after =
        "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_HOST=127.0.0.1\nVELARTO_PORT=" + first + ":" +
        second + "\nVELARTO_SERVER=127.0.0.1," + first + ":127.0.0.1," + second + "\n\n[Other]\na=1\nb=2\n\n";
    EXPECT_EQ(readFile(clientsFile()), after);
}

}  // namespace
