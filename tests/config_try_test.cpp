// velarto-config's commands that talk to application servers: servers and try.
#include <netinet/in.h>

#include <map>
#include <regex>

#include "platform/osfile_impl.h"
#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
using Texts = std::vector<std::string>;

// A port of 127.0.0.1 that never answers: its listener accepts nobody and its queue is full.
struct SilentPort {
    SilentPort() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* any = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof address;
        for (Descriptor& socket : sockets)
            socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::bind(sockets[0].get(), any, size) | ::listen(sockets[0].get(), 0), 0);
        EXPECT_EQ(::getsockname(sockets[0].get(), any, &size), 0);
        port = ntohs(address.sin_port);
        for (std::size_t i = 1; i < sockets.size(); ++i)
            ::connect(sockets[i].get(), any, size);
    }

    std::uint16_t port = 0;
    std::array<Descriptor, 4> sockets;
};

// Without what differs from run to run, and however wide the columns are.
std::string squeezed(const std::string& text) {
    const std::string timeless = std::regex_replace(text, std::regex("[0-9]+\\.[0-9] ms"), "TIME");
    return std::regex_replace(timeless, std::regex("  +"), " ");
}

class ConfigTry : public GatewayTest {
  protected:
    Outcome config(const Texts& arguments, const Texts& more = {}, const std::string& input = "") const {
        Command command = this->command();
        command.program = VELARTO_CONFIG_PATH;
        command.arguments = {"velarto-config", "--file", clientsFile()};
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
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

TEST_F(ConfigTry, ServersTellsWhyAnEntryCannotBeUsed) {
    const std::string forty(40, 'h');
    const std::pair<std::string, std::string> cases[] = {
        {"s001,h,1", "s001 h 1"},
        {"h, 65535 ", "- h 65535"},
        {"h", "- h cannot be used: 1 field; an entry is host,port or sid,host,port"},
        {"a,b,c,d", "- a,b,c,d cannot be used: 4 fields; an entry is host,port or sid,host,port"},
        {"", "- cannot be used: the entry is empty"},
        {",h,1", "- ,h,1 cannot be used: the SID is empty"},
        {"h, ", "- h cannot be used: the port is empty"},
        {forty + ",1", "- " + forty + ",1 cannot be used: the host has 40 characters; at most 31"},
        {"h h,1", "- h h 1 cannot be used: the host has a blank in it"},
        {"h,0", "- h 0 cannot be used: the port 0 is not between 1 and 65535"},
        {"h,99999", "- h 99999 cannot be used: the port 99999 is not between 1 and 65535"},
        {"h,0x50", "- h 0x50 cannot be used: the port 0x50 is not between 1 and 65535"}};
    std::string list, expected;
    for (const auto& [text, line] : cases) {
        list += (expected.empty() ? "" : ":") + text;
        expected += line + "\n";
    }
    configure(list);
    const Outcome outcome = config({"servers", "shop"});
    EXPECT_EQ(squeezed(outcome.out) + std::to_string(outcome.exitStatus), expected + "1");
}

TEST_F(ConfigTry, ProbeTellsWhoAnswers) {
    const DeadPort dead;
    const SilentPort silent;
    const std::string good = "s001," + startServer();
    configure(good);
    EXPECT_EQ(config({"servers", "shop", "--probe"}).exitStatus, 0);

    configure(good + ":" + entry(dead.port()) + ":" + entry(silent.port) + ":a..b,80");
    const Outcome outcome = config({"servers", "shop", "--probe", "--timeout", "2000"});
    const std::string expected = good + " answers after TIME\n- " + entry(dead.port()) +
                                 " fails after TIME: Connection refused\n- " + entry(silent.port) +
                                 " fails after TIME: no answer within 2000 ms\n" +
                                 "- a..b,80 fails after TIME: no such host\n1 of 4 servers answer\n";
    EXPECT_EQ(squeezed(outcome.out), std::regex_replace(expected, std::regex(","), " "));
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_TRUE(contains(config({"servers", "shop", "--probe", "--json"}).out, "\"answering\": 1"));
}

TEST_F(ConfigTry, TheAnswerIsTheGateways) {
    configure(startServer());
    for (const std::string client : {"shop", "nph-shop"}) {
        const Outcome outcome = config({"try", client, "/status?code=404"});
        const Texts variables = {"PATH_INFO=/status", "QUERY_STRING=code=404",
                                 "SCRIPT_NAME=/cgi-bin/" + client, "REQUEST_METHOD=GET"};
        EXPECT_EQ(outcome.out, run(variables, "", client).out);
        EXPECT_EQ(outcome.exitStatus, 0);
    }
}

TEST_F(ConfigTry, RequestHasTheVariablesOfAWebServer) {
    writeFile(folder_ / "work/body", "a=b");
    const std::string large(200000, 'i');
    const std::pair<Texts, std::map<std::string, std::string>> cases[] = {
        {{"/x%20y/../z?q=%20"}, {{"PATH_INFO", "/z"}, {"QUERY_STRING", "q=%20"}, {"PATH_TRANSLATED", ""}}},
        {{"?q"}, {{"PATH_INFO", ""}, {"QUERY_STRING", "q"}, {"SCRIPT_NAME", "/cgi-bin/shop"}}},
        {{"/a%2e", "--document-root", "/srv/"}, {{"PATH_INFO", "/a."}, {"PATH_TRANSLATED", "/srv/a."}}},
        {{"/../../x", "--document-root", "/"}, {{"PATH_TRANSLATED", "/x"}}},
        {{"/", "--method", "PUT"}, {{"REQUEST_METHOD", "PUT"}, {"CONTENT_LENGTH", "0"}}},
        {{"/"}, {{"REQUEST_METHOD", "GET"}, {"COMMANDLINE", "shop"}, {"CONTENT_TYPE", ""}}},
        {{"/", "--data", "body"}, {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "3"}, {"", "a=b"}}},
        {{"/", "--data", "-"}, {{"CONTENT_LENGTH", "200000"}, {"", large}}},
        {{"/", "--header", "Cookie: a=1", "--header", "cookie:b=2"},
         {{"HTTP_COOKIE", "a=1; b=2; VelartoClient=shop"}}},
        {{"/", "--header", "content-TYPE: text/xml "}, {{"CONTENT_TYPE", "text/xml"}}},
        {{"/", "--header", "Accept: a", "--header", "Accept: b"}, {{"HTTP_ACCEPT", "a, b"}}}};
    for (const auto& [arguments, variables] : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        ScriptedPeer& peer = serveAlone(kAnswer);
        EXPECT_EQ(config({"try", "shop"}, arguments, large).out, kAnswerOutput);
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
    const std::string err = squeezed(config({"try", "shop", "/", "-v", "--header", "X-A: b"}).err);
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
        {{"/"}, "chosen at random"},
        {{"/?SRV=s002"}, "forced by the query"},
        {{"/", "--header", reference}, "named by the user reference"}};
    for (const auto& [arguments, how] : cases)
        EXPECT_TRUE(
            contains(config({"try", "shop", "-v"}, arguments).err, server + ", " + how + ": connected"));
}

TEST_F(ConfigTry, FailureTellsTheStepAndTheGatewaysError) {
    const DeadPort dead;
    configure(entry(dead.port()));
    EXPECT_EQ(config({"try", "shop", "/"}).err,
              "velarto-config: connect: no server could be reached: " + entry(dead.port()) +
                  ": Connection refused (the gateway's error 602)\n");
    EXPECT_TRUE(contains(config({"try", "shop", "/", "--json"}).out, "\"code\": 602"));

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
        const Outcome outcome = config({"try", "shop", "/"}, {"--data", "-"}, std::string(test.body, 'x'));
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("velarto-config: " + test.err + "\\)\n")))
            << outcome.err;
        EXPECT_EQ(outcome.exitStatus, 1);
    }
}

TEST_F(ConfigTry, WhatCannotBeSentIsOneLine) {
    configure("127.0.0.1,1");
    writeFile(folder_ / "work/huge", "");
    std::filesystem::resize_file(folder_ / "work/huge", std::uintmax_t{1} << 32);
    const std::pair<Texts, std::string> cases[] = {
        {{"shop", "/", "--data", "none"}, "the body none: No such file or directory"},
        {{"shop", "/", "--data", "."}, "the body .: Is a directory"},
        {{"shop", "/", "--data", "huge"}, "the body huge: 4 GiB are too long"},
        {{"shop", "/", "--header", "abc"}, "a header is NAME:VALUE, not 'abc'"},
        {{"shop", "/", "--header", "a b:c"}, "'a b' is no name of a header"},
        {{"shop", "/", "--header", "a:b\nc:d"}, "a header has a control character: 'a:b\\x0Ac:d'"},
        {{"shop", "/", "--header", "Content-Length: 3"},
         "the length is that of the body; no header tells it"},
        {{"shop", "/", "--method", ""}, "'' is no method"},
        {{"shop", "x"}, "the path begins with '/' or '?', not as 'x'"},
        {{"shop", "/%0"}, "'%0' in the path is no character"},
        {{"shop", "/%00"}, "'%00' in the path is no character"},
        {{"nobody", "/"}, "no client 'nobody'; there are: nph-shop, shop"}};
    for (const auto& [arguments, line] : cases) {
        const Outcome outcome = config({"try"}, arguments);
        EXPECT_EQ(outcome.err, "velarto-config: " + line + "\n");
        EXPECT_EQ(outcome.out + std::to_string(outcome.exitStatus), "2");
    }
}

TEST_F(ConfigTry, DocumentHoldsTheBodyAsTextOrBase64) {
    const std::pair<std::string, std::string> cases[] = {{"n\xC3\xA4h\n", "\"body\": \"n\xC3\xA4h\\n\""},
                                                         {"\xFF", "\"body-base64\": \"/w==\""},
                                                         {"\xFF\xFE", "\"body-base64\": \"//4=\""},
                                                         {"\xFF\xFE\x01x", "\"body-base64\": \"//4BeA==\""}};
    for (const auto& [body, field] : cases) {
        serveAlone({kAnswer[0], wire::body(body), wire::end()});
        EXPECT_TRUE(contains(config({"try", "shop", "/", "--json"}).out, field));
    }
}

TEST_F(ConfigTry, ChangesNoFile) {
    const std::string server = startServer();
    configure("", "VELARTO_HOST=127.0.0.1\nVELARTO_PORT=" + server.substr(server.find(',') + 1) + "\n");
    const std::string before = readFile(clientsFile());
    EXPECT_EQ(config({"try", "shop", "/"}).exitStatus, 0);
    EXPECT_EQ(config({"servers", "shop", "--probe"}).exitStatus, 0);
    EXPECT_EQ(config({"try", "nobody", "/"}).exitStatus, 2);
    EXPECT_EQ(readFile(clientsFile()), before);
}

}  // namespace
