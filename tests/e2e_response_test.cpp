// End to end: what the real gateway writes for what an application server answers, and the local file that it
// sends meanwhile.
#include "support/Gateway.h"

namespace {

using namespace std::string_literals;
using namespace support;

const std::string kHeader = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n";
const std::string kFields = "Content-Type: text/html\r\n\r\n";

class GatewayResponse : public GatewayTest {
  protected:
    // Everything the gateway sent to the server after its request.
    static std::string answers(ScriptedPeer& server) {
        const ScriptedPeer::Visit& visit = server.onlyVisit();
        return visit.received.substr(wire::encode(visit.request).size());
    }
};

TEST_F(GatewayResponse, HeaderLosesItsStatusLineUnlessNph) {
    const std::string cases[][2] = {
        // the header; what is left without the status line
        {kHeader, kFields},
        {"HTTP/1.0 200 OK\r\nX: 1\r\n\0hidden\r\n"s, "X: 1\r\n"},
        {"HTTP/1.0 200 OK\r\nX: " + std::string(70000, 'x') + "\r\n\r\n",
         "X: " + std::string(70000, 'x') + "\r\n\r\n"},
    };
    for (const auto& [header, fields] : cases) {
        SCOPED_TRACE(header.substr(0, 60));
        for (const bool nph : {false, true}) {
            ScriptedPeer& server = serveAlone({wire::header(header), wire::body("<p>"), wire::end()});
            const Outcome outcome = run({}, "", nph ? "/srv/cgi/nph-shop" : "/srv/cgi/shop");
            expectSuccess(outcome, (nph ? header : fields) + "<p>");
            EXPECT_EQ(answers(server), wire::acknowledgement(6) + wire::acknowledgement(4));
        }
    }
    serveAlone(kAnswer);
    expectSuccess(run({}, "", "/srv/cgi/NPH-shop"), kAnswerOutput);  // only in lower case
}

TEST_F(GatewayResponse, MessagesMayComeInAnyOrderAndNumber) {
    const std::string second = "HTTP/1.0 200 OK\r\nX: 2\r\n\r\n";
    const struct {
        std::vector<std::string> messages;
        std::string output;
    } cases[] = {
        {{wire::end()}, ""},
        {{wire::body("a"), wire::header(kHeader), wire::body("b"), wire::end()}, "a" + kFields + "b"},
        {{wire::header(kHeader), wire::header(second), wire::end()}, kFields + "X: 2\r\n\r\n"},
    };
    for (const auto& c : cases) {
        serveAlone(c.messages);
        expectSuccess(run(), c.output);
    }
}

TEST_F(GatewayResponse, FileIsSentFromWhereItsPathIsParsed) {
    const std::string content = "a\0b\r\n\x80"s;
    writeFile(folder_ / "page", content);
    const Script script = [&](Connection& connection) {
        connection.receiveRequest();
        connection.send(wire::fileRequest("..\\page"));
        connection.expect(wire::fileReply(content));
        connection.serve(kAnswer);
    };
    serveAlone(script, "PARSEFILEPATHS=Yes\n");
    expectSuccess(run(), kAnswerOutput);
}

TEST_F(GatewayResponse, PageFollowsWhatWasAlreadyWritten) {
    const std::vector<std::string> messages = {wire::header(kHeader), wire::body("half a pa"),
                                               wire::header("no status line")};
    const std::string before = "half a pa", error = " 500 Internal Server Error\n";
    ScriptedPeer& server = serveAlone(messages);
    expectPage(run({"SERVER_SOFTWARE=web/1"}), 605, "", kFields + before);
    EXPECT_EQ(answers(server),
              wire::acknowledgement(6) + wire::acknowledgement(4) + wire::acknowledgement(6));
    expectPage(run({}, "", "nph-shop"), 605, "", kHeader + before + "HTTP/1.0" + error);
    expectPage(run({"SERVER_PROTOCOL=HTTP/1.1", "SERVER_SOFTWARE=web/1 %s%n"}, "", "nph-shop"), 605, "",
               kHeader + before + "HTTP/1.1" + error + "Server: web/1 %s%n\n");
}

}  // namespace
