// velarto-config's commands that talk to application servers: servers and try.
#include <map>
#include <regex>

#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
using Texts = std::vector<std::string>;

// Without what differs from run to run, and however wide the columns are.
std::string squeezed(const std::string& text) {
    const std::string timeless = std::regex_replace(text, std::regex("[0-9]+\\.[0-9] ms"), "TIME");
    return std::regex_replace(timeless, std::regex("  +"), " ");
}

class ConfigTry : public GatewayTest {
  protected:
    Outcome config(const std::string& name, const Texts& more = {}, const std::string& input = "") const {
        Command command = this->command();
        command.program = VELARTO_CONFIG_PATH;
        command.arguments = {"velarto-config", "--file", clientsFile(), name, "shop"};
        command.arguments.insert(command.arguments.end(), more.begin(), more.end());
        command.input = input;
        return support::run(std::move(command), 20s);
    }

    // Starts the development server; its entry.
    std::string startServer() {
        server_ = std::make_unique<DevServer>();
        return entry(server_->port());
    }

  private:
    std::unique_ptr<DevServer> server_;
};

TEST_F(ConfigTry, ServersTellsWhatAnEntryIsAndWhoAnswers) {
    const std::string forty(40, 'h'), cannot = " cannot be used: ";
    const std::pair<std::string, std::string> cases[] = {
        {"s001,h,1", "s001 h 1"},
        {"h, 65535 ", "- h 65535"},
        {"h", "- h" + cannot + "1 field; an entry is host,port or sid,host,port"},
        {"a,b,c,d", "- a,b,c,d" + cannot + "4 fields; an entry is host,port or sid,host,port"},
        {"", "-" + cannot + "the entry is empty"},
        {",h,1", "- ,h,1" + cannot + "the SID is empty"},
        {forty + ",1", "- " + forty + ",1" + cannot + "the host has 40 characters; at most 31"},
        {"h h,1", "- h h 1" + cannot + "the host has a blank in it"},
        {"h,0x50", "- h 0x50" + cannot + "the port 0x50 is not between 1 and 65535"}};
    std::string list, expected;
    for (const auto& [text, line] : cases) {
        list += (expected.empty() ? "" : ":") + text;
        expected += line + "\n";
    }
    configure(list);
    const Outcome plain = config("servers");
    EXPECT_EQ(squeezed(plain.out) + std::to_string(plain.exitStatus), expected + "1");

    const DeadPort dead;
    const std::string good = startServer(), port = good.substr(good.find(',') + 1);
    configure("s001," + good + ":" + entry(dead.port()) + ":a..b,80");
    const Outcome probed = config("servers", {"--probe"});
    EXPECT_EQ(squeezed(probed.out), "s001 127.0.0.1 " + port + " answers after TIME\n- 127.0.0.1 " +
                                        std::to_string(dead.port()) +
                                        " fails after TIME: Connection refused\n- a..b 80 fails after TIME: "
                                        "no such host\n1 of 3 servers answer\n");
    EXPECT_EQ(probed.exitStatus, 1);
    EXPECT_TRUE(contains(config("servers", {"--probe", "--json"}).out, "\"answering\": 1"));
    configure(good);
    EXPECT_EQ(config("servers", {"--probe"}).exitStatus, 0);
}

TEST_F(ConfigTry, TheAnswerIsTheGatewaysAndNoFileChanges) {
    const std::string server = startServer();
    configure("", "VELARTO_HOST=127.0.0.1\nVELARTO_PORT=" + server.substr(server.find(',') + 1) + "\n");
    const std::string before = readFile(clientsFile());
    const Outcome outcome = config("try", {"/status?code=404"});
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(readFile(clientsFile()), before);
    EXPECT_EQ(outcome.out, run({"PATH_INFO=/status", "QUERY_STRING=code=404", "SCRIPT_NAME=/cgi-bin/shop",
                                "REQUEST_METHOD=GET"})
                               .out);
}

TEST_F(ConfigTry, RequestHasTheVariablesOfAWebServer) {
    writeFile(folder_ / "work/body", "a=b");
    const std::string large(200000, 'i');
    const std::pair<Texts, std::map<std::string, std::string>> cases[] = {
        {{"/x%20y/../z?q=%20"}, {{"PATH_INFO", "/z"}, {"QUERY_STRING", "q=%20"}, {"PATH_TRANSLATED", ""}}},
        {{"?q"}, {{"PATH_INFO", ""}, {"QUERY_STRING", "q"}, {"REQUEST_METHOD", "GET"}}},
        {{"/../a%2e", "--document-root", "/srv/"}, {{"PATH_INFO", "/a."}, {"PATH_TRANSLATED", "/srv/a."}}},
        {{"/", "--method", "PUT"}, {{"REQUEST_METHOD", "PUT"}, {"CONTENT_LENGTH", "0"}}},
        {{"/", "--data", "body"}, {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "3"}, {"", "a=b"}}},
        {{"/", "--data", "-"}, {{"CONTENT_LENGTH", "200000"}, {"", large}}},
        {{"/", "--header", "Cookie: a=1", "--header", "cookie:b=2"},
         {{"HTTP_COOKIE", "a=1; b=2; VelartoClient=shop"}}},
        {{"/", "--header", "content-TYPE: text/xml "}, {{"CONTENT_TYPE", "text/xml"}}}};
    for (const auto& [arguments, variables] : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        ScriptedPeer& peer = serveAlone(kAnswer);
        EXPECT_EQ(config("try", arguments, large).out, kAnswerOutput);
        wire::Request request = peer.visits().at(0).request;
        for (const auto& [name, value] : variables)  // no name: the body
            EXPECT_EQ(name.empty() ? request.post : request[name], value) << name;
    }
}

TEST_F(ConfigTry, VerboseTellsTheSteps) {
    writeFile(folder_ / "work/page", "12345");
    const ScriptedPeer& peer = serveAlone([](Connection& connection) {
        connection.receiveRequest();
        connection.send(wire::fileRequest("page"));
        connection.expect(wire::fileReply("12345"));
        connection.send(wire::fileRequest("none"));
        connection.expect(wire::fileRefused());
        connection.serve(kAnswer);
    });
    const std::string err = squeezed(config("try", {"/", "-v", "--header", "X-A: b"}).err);
    EXPECT_TRUE(contains(err, " TIME variable HTTP_X_A=b (the gateway does not pass it on)\n"));
    EXPECT_TRUE(contains(err, " TIME variable PATH_INFO=/\n"));
    EXPECT_TRUE(contains(
        err,
        " TIME connect " + entry(peer.port()) +
            ", the only one: connected in TIME\n TIME sent 585 "
            "bytes\n TIME file page: 5 bytes\n TIME file none: refused; it is missing, unreadable, empty or "
            "no file\n TIME header 45 bytes, status 200\n TIME piece 5 bytes\n TIME end the answer is "
            "complete\n TIME total 674 bytes sent, 154 received\n"));
}

TEST_F(ConfigTry, VerboseTellsHowTheServerWasChosen) {
    const std::string server = startServer();
    configure("s001," + server + ":s002," + server, "FORCE_SERVER_ARG_NAME=SRV\n");
    const std::string reference = "Cookie: Velarto_UserReference=s001" + std::string(24, '0');
    const std::pair<Texts, std::string> cases[] = {
        {{"-v", "/"}, "chosen at random"},
        {{"-v", "/?SRV=s002"}, "forced by the query"},
        {{"-v", "/", "--header", reference}, "named by the user reference"}};
    for (const auto& [arguments, how] : cases)
        EXPECT_TRUE(contains(config("try", arguments).err, server + ", " + how + ": connected"));
}

TEST_F(ConfigTry, FailureTellsTheStepAndTheGatewaysError) {
    const DeadPort dead;
    configure(entry(dead.port()));
    EXPECT_EQ(config("try", {"/"}).err,
              "velarto-config: connect: no server could be reached: " + entry(dead.port()) +
                  ": Connection refused (the gateway's error 602)\n");
    EXPECT_TRUE(contains(config("try", {"/", "--json"}).out, "\"code\": 602"));

    const struct {
        Script script;
        std::string err;
        std::string lines;
        std::size_t body;
    } cases[] = {
        {[](Connection& c) { c.receive(100), c.reset(); }, "send: the request could not be sent: .* 604", "",
         20000000},
        {[](Connection& c) { c.receiveRequest(), c.close(); }, "answer: .* closed the connection .* 605", "",
         1},
        {[](Connection& c) { c.receiveRequest(), c.send(wire::header("HTTP/1.0 ok")); },
         "answer: .* no valid status line .* 605", "", 1},
        {[](Connection& c) { c.receiveRequest(), c.send("GET / HTTP/1.0"); },
         "answer: .* is no message .* 605", "", 1},
        {[](Connection& c) { c.stall(); }, "answer: .* time of CLIENTIOTIMEOUT .* 605", "CLIENTIOTIMEOUT=1\n",
         1},
    };
    for (const auto& test : cases) {
        serveAlone(test.script, test.lines);
        const Outcome outcome = config("try", {"/", "--data", "-"}, std::string(test.body, 'x'));
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("velarto-config: " + test.err + "\\)\n")))
            << outcome.err;
        EXPECT_EQ(outcome.exitStatus, 1);
    }
}

TEST_F(ConfigTry, WhatCannotBeSentIsOneLine) {
    configure("127.0.0.1,1");
    const std::pair<Texts, std::string> cases[] = {
        {{"/", "--data", "none"}, "the body none: No such file or directory"},
        {{"/", "--data", "."}, "the body .: Is a directory"},
        {{"/", "--header", "abc"}, "a header is NAME:VALUE, not 'abc'"},
        {{"/", "--header", "a:b\nc:d"}, "a header has a control character: 'a:b\\x0Ac:d'"},
        {{"/", "--header", "Content-Length: 3"}, "the length is that of the body; no header tells it"},
        {{"/", "--method", ""}, "'' is no method"},
        {{"x"}, "the path begins with '/' or '?', not as 'x'"},
        {{"/%00"}, "'%00' in the path is no character"}};
    for (const auto& [arguments, line] : cases) {
        const Outcome outcome = config("try", arguments);
        EXPECT_EQ(outcome.err, "velarto-config: " + line + "\n");
        EXPECT_EQ(outcome.out + std::to_string(outcome.exitStatus), "2");
    }
}

TEST_F(ConfigTry, DocumentHoldsTheBodyAsTextOrBase64) {
    const std::pair<std::string, std::string> cases[] = {{"n\xC3\xA4h\n", "\"body\": \"n\xC3\xA4h\\n\""},
                                                         {"\xFF\xFE\x01x", "\"body-base64\": \"//4BeA==\""}};
    for (const auto& [body, field] : cases) {
        serveAlone({kAnswer[0], wire::body(body), wire::end()});
        EXPECT_TRUE(contains(config("try", {"/", "--json"}).out, field));
    }
}

}  // namespace
