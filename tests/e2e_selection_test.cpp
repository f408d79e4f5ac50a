// End to end: which of the configured application servers the real gateway turns to, and what its cookies
// tell the server about that.
#include <cstdio>

#include "support/Gateway.h"

namespace {

using namespace std::string_literals;
using namespace support;

const std::string kRest24(24, '-');  // the part of a user reference that means nothing to the gateway

std::string entry(const std::string& sid, std::uint16_t port) {
    return sid + "," + support::entry(port);
}

std::string hexRoute(std::uint16_t port) {
    char text[16];
    std::snprintf(text, sizeof text, "7F000001%04X", port);
    return text;
}

// A user reference of 36 characters that points at a port of 127.0.0.1.
std::string addressReference(std::uint16_t port) {
    return hexRoute(port) + kRest24;
}

std::string route(const std::string& value) {
    return "VelartoClient=shop; Velarto_CGIIP=" + value;
}

std::string failure(const std::string& tried) {
    return "Tried connecting to Velarto Server for client shop on " + tried;
}

class GatewaySelection : public GatewayTest {
  protected:
    // The cookie parameters of the requests that reached a server.
    static std::vector<std::string> cookies(ScriptedPeer& server) {
        std::vector<std::string> result;
        for (auto& visit : server.visits())
            result.push_back(visit.request["HTTP_COOKIE"]);
        return result;
    }

    static std::string join(const std::vector<std::string>& entries) {
        std::string list = entries.front();
        for (std::size_t i = 1; i < entries.size(); ++i)
            list += ":" + entries[i];
        return list;
    }

    // The request must reach this server and no other, with this cookie parameter.
    void expectChoice(const std::vector<std::string>& entries, const std::string& lines,
                      ScriptedPeer& expected, const std::string& cookie,
                      const std::vector<std::string>& variables = {}, const std::string& body = "") {
        configure(join(entries), lines);
        expectSuccess(run(variables, body), kAnswerOutput);
        EXPECT_EQ(cookies(expected), std::vector<std::string>{cookie});
    }

    const DeadPort dead_;
};

TEST_F(GatewaySelection, OneServerIsTakenWithoutRouteCookie) {
    ScriptedPeer& server = serve(kAnswer);
    expectChoice({entry("s001", server.port())}, "FORCE_SERVER_ARG_NAME=srv\n", server,
                 "a=1; VelartoClient=shop",
                 {"HTTP_COOKIE=a=1", "QUERY_STRING=srv=s009&_UserReference=s002" + kRest24});
}

// Whatever is wrong with an entry, its attempt fails and the good one is found, wherever it stands. The port
// is taken modulo 65536; the route names the one really connected to.
TEST_F(GatewaySelection, BadEntriesAreStumblingBlocksOnly) {
    const std::string port = std::to_string(dead_.port());
    for (const std::string& bad :
         {"127.0.0.1," + port, "127.0.0.1,0"s, "127.0.0.1,65536"s, "127.0.0.1,x"s, "s1,127.0.0.1,"s, ","s,
          ",,"s, "127.0.0.1"s, ""s, "s1,127.0.0.1," + port + ",x",
          std::string(32, 's') + ",127.0.0.1," + port, "1.2.3.4.5," + port,
          "127.0.0.1," + std::string(4000, '9'), std::string(3000, ',')}) {
        SCOPED_TRACE(bad.substr(0, 60));
        for (const bool badFirst : {true, false}) {
            ScriptedPeer& server = serve(kAnswer);
            const std::string good = "localhost," + std::to_string(server.port() + 65536);
            expectChoice(badFirst ? std::vector<std::string>{bad, good} : std::vector<std::string>{good, bad},
                         "", server, route(hexRoute(server.port())));
        }
    }
}

TEST_F(GatewaySelection, OneLiveServerAmongManyIsAlwaysFound) {
    for (std::size_t place = 0; place < 8; ++place) {
        ScriptedPeer& server = serve(kAnswer);
        std::vector<std::string> entries(8, support::entry(dead_.port()));
        entries[place] = support::entry(server.port());
        expectChoice(entries, "", server, route(hexRoute(server.port())));
    }
}

TEST_F(GatewaySelection, ForcedServerIsTheOneOfThatIdentifierElseTheLast) {
    const std::pair<const char*, int> cases[] = {
        {"srv=s001", 0}, {"a=b&srv=s002&c=d", 1}, {"srv =s002", 1},
        {"srv=S001", 2}, {"srv=s00", 2},          {"srv=1234567890123456789012345678901", 2},
    };
    for (const auto& [query, chosen] : cases) {
        SCOPED_TRACE(query);
        ScriptedPeer* servers[] = {&serve(kAnswer), &serve(kAnswer), &serve(kAnswer)};
        expectChoice({entry("s001", servers[0]->port()), entry("s002", servers[1]->port()),
                      support::entry(servers[2]->port())},
                     "FORCE_SERVER_ARG_NAME=srv\n", *servers[chosen], "a=1; VelartoClient=shop",
                     {"QUERY_STRING="s + query, "HTTP_COOKIE=a=1"});
    }
}

TEST_F(GatewaySelection, ForcedServerHasNoSubstitute) {
    ScriptedPeer& live = serve(kAnswer);
    const std::string forced = entry("s001", dead_.port());
    configure(join({forced, entry("s002", live.port())}), "FORCE_SERVER_ARG_NAME=srv\n");
    expectPage(run({"QUERY_STRING=srv=s001", "HTTP_COOKIE=Velarto_UserReference=s002" + kRest24}), 602,
               failure(forced));
    EXPECT_TRUE(live.visits().empty());
}

TEST_F(GatewaySelection, WithoutAForcedIdentifierChoiceGoesOn) {
    for (const std::string& query : {""s, "srv=&x=s002"s, "srv=" + std::string(65536, 's')}) {
        SCOPED_TRACE(query.substr(0, 40));
        ScriptedPeer& live = serve(kAnswer);
        expectChoice({entry("s001", live.port()), entry("s002", dead_.port())}, "FORCE_SERVER_ARG_NAME=srv\n",
                     live, route(hexRoute(live.port())), {"QUERY_STRING=" + query});
    }
}

TEST_F(GatewaySelection, UserReferenceLeadsBackToItsServer) {
    const std::string toFirst = "s001" + kRest24;
    const std::string toSecond = "S002" + kRest24;  // without regard to case
    const std::string tooShort = "s001" + kRest24.substr(1);
    const std::string tooLong = "s001" + kRest24 + "-";
    const std::string notYet = "s001" + kRest24 + "-------";
    const std::string cases[][3] = {
        {"Velarto_UserReference=" + toSecond, "", ""},
        {"x=1; Velarto_UserReference =" + toSecond + "; y=2", "_UserReference=" + toFirst,
         "_UserReference=" + toFirst},
        {"", "x=1&_UserReference=" + toSecond + "&y=2", "_UserReference=" + toFirst},
        {"", "", "x=1&_UserReference=" + toSecond},
        {"Velarto_UserReference=" + tooShort, "_UserReference=" + tooLong, "_UserReference=" + toSecond},
        {"Velarto_UserReference=" + notYet, "_UserReference=" + toSecond, "_UserReference=" + toFirst},
    };
    for (const auto& [cookie, query, body] : cases) {
        SCOPED_TRACE(cookie + " " + query + " " + body);
        ScriptedPeer* servers[] = {&serve(kAnswer), &serve(kAnswer)};
        expectChoice({entry("s001", servers[0]->port()), entry("s002", servers[1]->port())}, "", *servers[1],
                     (cookie.empty() ? "" : cookie + "; ") + route("s002"),
                     {"HTTP_COOKIE=" + cookie, "QUERY_STRING=" + query}, body);
    }
}

// The route cookie of a server chosen by chance holds its address, never an identifier.
TEST_F(GatewaySelection, OtherReferencesAreIgnored) {
    std::vector<std::string> references = {std::string(36, 'z'), "\x01\xFF\"'%n" + std::string(22, '%'),
                                           "FFFFFFFFFFFF" + kRest24};
    for (const std::size_t length : {0u, 4u, 27u, 29u, 35u, 37u, 128u, 65536u})
        references.push_back(("s001" + std::string(65536, '-')).substr(0, length));
    for (const std::string& reference : references) {
        SCOPED_TRACE(reference.substr(0, 40));
        ScriptedPeer& server = serve(kAnswer);
        expectChoice({entry("s001", server.port()), support::entry(dead_.port())}, "", server,
                     route(hexRoute(server.port())), {"QUERY_STRING=_UserReference=" + reference});
    }
}

TEST_F(GatewaySelection, AddressInAReferenceLeadsToItsServer) {
    for (const int own : {0, 1}) {
        ScriptedPeer* servers[] = {&serve(kAnswer), &serve(kAnswer)};
        const std::uint16_t port = servers[own]->port();
        expectChoice({entry("s001", servers[0]->port()), entry("s001", servers[1]->port())}, "",
                     *servers[own], route(hexRoute(port)),
                     {"QUERY_STRING=_UserReference=" + addressReference(port)});
    }
}

TEST_F(GatewaySelection, FailedServerOfTheUserIsReplaced) {
    ScriptedPeer& live = serve(kAnswer);
    const std::vector<std::string> entries = {support::entry(live.port()), entry("s002", dead_.port()),
                                              entry("S002", dead_.port())};
    // The identifier of the server that failed stays in the route; an address does not.
    expectChoice(entries, "", live, route("S002"), {"QUERY_STRING=_UserReference=s002" + kRest24});
    ScriptedPeer& other = serve(kAnswer);
    expectChoice({support::entry(other.port()), entries[1]}, "", other, route(hexRoute(other.port())),
                 {"QUERY_STRING=_UserReference=" + addressReference(dead_.port())});
}

// With two servers, the message names the one that was tried last: after the user's own server failed that
// can only be the other one, whichever comes first by chance.
TEST_F(GatewaySelection, FailedServerOfTheUserIsNotTriedAgain) {
    const DeadPort second;
    const std::string entries[] = {entry("s001", dead_.port()), entry("s002", second.port())};
    configure(join({entries[0], entries[1]}));
    for (int own : {0, 1, 0, 1}) {
        const std::string bySid = "s00" + std::to_string(own + 1) + kRest24;
        const std::string byAddress = addressReference(own == 0 ? dead_.port() : second.port());
        for (const std::string& reference : {bySid, byAddress}) {
            expectPage(run({"QUERY_STRING=_UserReference=" + reference}), 602, failure(entries[1 - own]));
        }
    }
}

TEST_F(GatewaySelection, ListWrittenWithColonsInsideEntriesIsUnderstoodAndLeft) {
    ScriptedPeer& server = serve(kAnswer);
    const std::string list =
        "127.0.0.1:" + std::to_string(dead_.port()) + ",localhost:" + std::to_string(server.port());
    configure(list);
    const std::string before = readFile(clientsFile());
    expectSuccess(run(), kAnswerOutput);
    EXPECT_EQ(cookies(server), std::vector<std::string>{route(hexRoute(server.port()))});
    EXPECT_EQ(readFile(clientsFile()), before);
}

TEST_F(GatewaySelection, OlderFormBecomesAListInTheFile) {
    ScriptedPeer& server = serve(kAnswer);
    const std::string first = std::to_string(dead_.port());
    const std::string second = std::to_string(server.port());
    writeFile(clientsFile(), "; kept by hand\n[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_PORT=" +
                                 first + ":" + second + "\nVELARTO_HOST=127.0.0.1\n\n[Other]\nb=2\na=1\n");
    expectSuccess(run(), kAnswerOutput);
    EXPECT_EQ(cookies(server), std::vector<std::string>{route(hexRoute(server.port()))});
    const std::string after =
        "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_HOST=127.0.0.1\nVELARTO_PORT=" + first + ":" +
        second + "\nVELARTO_SERVER=127.0.0.1," + first + ":127.0.0.1," + second + "\n\n[Other]\na=1\nb=2\n\n";
    EXPECT_EQ(readFile(clientsFile()), after);
}

}  // namespace
