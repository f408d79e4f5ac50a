// End to end: what the real gateway makes of its name, environment, standard input and configuration, and of
// what an application server sends.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdio>
#include <deque>
#include <filesystem>
#include <future>
#include <map>
#include <regex>
#include <set>
#include <tuple>

#include "client/QuilClientError.h"
#include "net/Socket.h"
#include "protocol/ServerSelection.h"
#include "support/Gateway.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace support;
using Texts = std::vector<std::string>;

class Gateway : public GatewayTest {
  protected:
    static void expectPage(const Outcome& outcome, int code, const std::string& detail,
                           const std::string& before = "") {
        QuilClientError error;
        error.SetError(static_cast<std::uint32_t>(code), detail.c_str());
        const std::string page = error.GetErrorHtml(error.code());
        EXPECT_EQ(outcome.out, before + "Content-type: text/html\r\n\r\n" + page);
        EXPECT_EQ(outcome.exitStatus, code & 0xFF);
    }

    std::string parseMessage(const std::string& client) const {
        return "An error occurred while parsing the config file " + clientsFile() + " for client " + client +
               ". Check the file format is correct and the owner of the http process has file permissions to "
               "read the file.";
    }

    // A shell that becomes the gateway, after something else or with redirections.
    static Command inShell(Command command, const std::string& before, const std::string& redirections) {
        const std::string script = before + " exec -a \"$0\" \"$1\" " + redirections;
        command.arguments = {"bash", "-c", script, command.arguments[0], command.program};
        command.program = "/bin/bash";
        return command;
    }
    Outcome runCommand(const Command& command) {
        Process gateway(command);
        return finish(gateway);
    }
};

// ---- the request ----

// More than what lies between the gateway and its server holds. The body comes through a pipe, in pieces.
TEST_F(Gateway, LargeRequestOfEveryByteArrivesWhole) {
    std::string body(20000000, '\0'), text(65536, 'q');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>(i * 7 + i / 251);
    for (std::size_t byte = 1; byte < 256; ++byte)
        text[byte - 1] = static_cast<char>(byte);
    ScriptedPeer& server = serveAlone(kAnswer);
    const Command command = this->command({"QUERY_STRING=" + text, "HTTP_COOKIE=" + text}, body);
    expectSuccess(runCommand(inShell(command, "cat |", "")), kAnswerOutput);
    wire::Request request = server.onlyVisit().request;
    EXPECT_TRUE(request.post == body);
    EXPECT_EQ(request["QUERY_STRING"], text);
    EXPECT_EQ(request["HTTP_COOKIE"], text + "; VelartoClient=shop");
}

TEST_F(Gateway, ProgramPathNamesTheClientAndTheMode) {
    const std::string whole = "HTTP/1.0 200 OK\r\n" + kAnswerOutput;
    const std::pair<std::string, std::string> cases[] = {
        {"./SHOP", kAnswerOutput}, {"/x/NPH-shop", kAnswerOutput}, {"/a b//nph-shop", whole}};
    for (const auto& [path, output] : cases) {
        ScriptedPeer& server = serveAlone(kAnswer);
        expectSuccess(run({}, "", path), output);
        wire::Request request = server.onlyVisit().request;
        EXPECT_EQ(request["COMMANDLINE"], path);
        EXPECT_EQ(request["CONTENT_LENGTH"], "0");
        EXPECT_EQ(request["HTTP_COOKIE"], "VelartoClient=" + path.substr(path.rfind('/') + 1));
    }
}

// With a standard descriptor closed, a socket or a file may get its number: nothing may be mixed up then.
TEST_F(Gateway, ClosedDescriptorsChangeNothingElse) {
    for (const std::string closed : {"0<&-", "1>&-", "2>&-", "0<&- 1>&-", "0<&- 2>&-", "0<&- 1>&- 2>&-"}) {
        SCOPED_TRACE(closed);
        ScriptedPeer& server = serveAlone(kAnswer);
        const Outcome outcome = runCommand(inShell(command(), "", closed));
        expectSuccess(outcome, closed.find('1') != std::string::npos ? "" : kAnswerOutput);
        const std::string request = wire::encode(server.onlyVisit().request);
        EXPECT_EQ(server.onlyVisit().received, request + wire::acknowledgement(6) + wire::acknowledgement(4));
    }
}

TEST_F(Gateway, BodyThatIsNotThereEndsInThePage) {
    serveAlone(kAnswer);
    for (const std::string length : {"7", "-4", "4294967300", "99999999999999999999"})
        expectPage(run({"CONTENT_LENGTH=" + length}, "abcd"), 603, "");
    expectPage(runCommand(inShell(command({}, "body"), "", "0<&-")), 603, "");
}

// The standard ones, the second of them leading nowhere, what stood there before, and the connection. The
// alarm must end a gateway that hangs, whatever the web server did with that signal. A crash may not leave
// the body in a core dump.
TEST_F(Gateway, HoldsFiveDescriptorsUntilTheAlarmEndsIt) {
    std::promise<void> asked;
    serveAlone([&](Connection& connection) {
        connection.receiveRequest();
        asked.set_value();
        connection.stall();
    });
    sigset_t blocked, before;
    ::sigfillset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);  // of the child, too
    Process gateway(inShell(command({}, "secret"), "trap '' ALRM PIPE; ulimit -c unlimited;", ""));
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(asked.get_future().wait_for(20s), std::future_status::ready);
    const fs::path process = "/proc/" + std::to_string(gateway.pid());
    EXPECT_NE(readFile(process / "limits").find("Max core file size        1                    1  "),
              std::string::npos);
    std::map<std::string, std::string> open;
    for (const auto& file : fs::directory_iterator(process / "fd"))
        open[file.path().filename()] = fs::read_symlink(file.path());
    EXPECT_EQ(open.size(), 5u) << ::testing::PrintToString(open);
    EXPECT_EQ(open["2"], "/dev/null");
    EXPECT_EQ(open["4"].substr(0, 7), "socket:");
    gateway.kill(SIGALRM);
    EXPECT_EQ(gateway.wait(20s).signal, SIGALRM);
}

// ---- the answer ----

const std::string kFields = "Content-Type: text/plain\r\n\r\n";

TEST_F(Gateway, MessagesMayComeInAnyOrderAndNumber) {
    const std::string second = "X: " + std::string(70000, 'x') + "\r\n\r\n", bytes = "\0\n%s\xFF"s;
    const std::pair<Texts, std::string> cases[] = {
        {{wire::end()}, ""},
        {{wire::body(bytes), kAnswer[0], wire::body(second), wire::end()}, bytes + kFields + second},
        {{kAnswer[0], wire::header("HTTP/1.1 404 No\r\n" + second), wire::end()}, kFields + second}};
    for (const auto& [messages, output] : cases) {
        serveAlone(messages);
        expectSuccess(run(), output);
    }
}

TEST_F(Gateway, FileIsSentFromWhereItsPathIsParsed) {
    writeFile(folder_ / "page", "a\0b\r\n\x80"s);
    const Script script = [](Connection& connection) {
        connection.receiveRequest();
        connection.send(wire::fileRequest("..\\page"));
        connection.expect(wire::fileReply("a\0b\r\n\x80"s));
        connection.serve(kAnswer);
    };
    serveAlone(script, "PARSEFILEPATHS=Yes\n");
    expectSuccess(run(), kAnswerOutput);
}

bool hasLandlock() {
    return ::syscall(444, nullptr, 0, 1) > 0;  // landlock_create_ruleset(), asked for its version
}

TEST_F(Gateway, FilesAreSentFromBelowTheirRootsAlone) {
    const std::string docs = folder_ / "docs";
    for (const char* folder : {"docs", "docs2", "docs/sub"})
        fs::create_directory(folder_ / folder);
    for (const char* file : {"secret", "docs2/secret", "docs/page"})
        writeFile(folder_ / file, "content");
    writeFile(docs + "/large", "content!");
    writeFile(docs + "/huge", "");
    fs::resize_file(docs + "/huge", 800'000'000);
    fs::create_symlink("page", docs + "/inside");
    fs::create_symlink("../secret", docs + "/outside");
    fs::create_symlink(docs + "/page", docs + "/absolute");
    ASSERT_EQ(::mkfifo((docs + "/pipe").c_str(), 0600), 0);
    const std::pair<std::string, bool> files[] = {
        {docs + "/page", true},
        {docs + "/sub/../page", true},
        {docs + "/inside", true},
        {docs + "//page", true},
        {docs + "/../secret", false},
        {docs + "/sub/../../secret", false},
        {folder_ / "secret", false},
        {folder_ / "docs2/secret", false},
        {docs + "/outside", false},
        {docs + "/absolute", false},
        {"/proc/self/environ", false},
        {docs + "/pipe", false},
        {docs, false},
        {docs + "/", false},
        {"page", false},
        {docs + "/large", false},
        {docs + "/huge", false},
        {"/dev/zero", false},
    };
    std::promise<pid_t> started;
    std::string status;
    serveAlone(
        [&](Connection& connection) {
            connection.receiveRequest();
            status = readFile("/proc/" + std::to_string(started.get_future().get()) + "/status");
            for (const auto& [path, isSent] : files) {
                connection.send(wire::fileRequest(path));
                connection.expect(isSent ? wire::fileReply("content") : wire::fileRefused());
            }
            fs::rename(docs, docs + "-renamed");
            for (const std::string& path : {docs + "/page", docs + "-renamed/page"}) {
                connection.send(wire::fileRequest(path));
                connection.expect(wire::fileRefused());
            }
            connection.serve(kAnswer);
        },
        "CLIENTLOG=stderr\nFILELIMIT=7\nFILEROOT=/none:" + docs + "\n");
    Process gateway(command());
    started.set_value(gateway.pid());
    const Outcome outcome = gateway.wait(20s);
    expectSuccess(outcome, kAnswerOutput);
    EXPECT_NE(outcome.err.find(" no_file=\"" + docs + "/../secret\""), std::string::npos) << outcome.err;
    EXPECT_EQ(status.find("NoNewPrivs:\t1") != std::string::npos, hasLandlock()) << status;
}

TEST_F(Gateway, AnswerThatBreaksOffOrIsWrongEndsInThePage) {
    const std::string header = kAnswer[0], body = kAnswer[1];
    const struct {
        Texts messages;
        std::string rest;
        std::string output;
    } cases[] = {
        {{}, "", ""},
        {{}, header.substr(0, 5), ""},
        {{}, header.substr(0, header.size() - 1), ""},
        {{}, header.substr(0, header.size() - 1) + "?", ""},
        {{}, "HTTP/1.0 400 Bad Request\r\n\r\n", ""},
        {{}, wire::message(1, wire::counted("x")), ""},
        {{}, wire::message(4).substr(0, 12) + wire::number(0x80000000) + "bytes", ""},
        {{header}, "", kFields},
        {{header}, body.substr(0, body.size() - 1), kFields},
        {{header, body}, "", kAnswerOutput},
        {{header, body, wire::header("no status line")}, "", kAnswerOutput},
    };
    for (const auto& c : cases) {
        for (const bool resets : {false, true}) {
            SCOPED_TRACE(::testing::PrintToString(c.rest) + c.output + (resets ? " reset" : ""));
            serveAlone([&](Connection& connection) {
                connection.receiveRequest();
                connection.serve(c.messages);
                connection.send(c.rest);
                resets ? connection.reset() : connection.closeSending();
            });
            expectPage(run(), 605, "", c.output);
        }
    }
}

TEST_F(Gateway, StalledServerEndsItAtTheTimeOutAndALostOneAtOnce) {
    const std::pair<int, Script> cases[] = {
        {605, [](Connection& c) { c.receiveRequest(), c.stall(); }},
        {605, [](Connection& c) { c.receiveRequest(), c.send(kAnswer[0].substr(0, 18)), c.stall(); }},
        {604, [](Connection& c) { c.receive(1000), c.stall(); }},
        {604, [](Connection& c) { c.receive(1000), c.reset(); }},
        // The way that makes a careless sender end by SIGPIPE.
        {604, [](Connection& c) { c.receive(1000), c.closeSending(), c.reset(); }}};
    for (const auto& [code, script] : cases) {
        ScriptedPeer& server = serveAlone(script, "CLIENTIOTIMEOUT=1\n");
        const std::string detail = "The request was sent to the Velarto Server on IP 127.0.0.1 Port ";
        expectPage(run({}, std::string(20 << 20, 'b')), code,
                   code == 604 ? detail + std::to_string(server.port()) : "");
    }
}

// ---- failures, told honestly by keys of the section ----

TEST_F(Gateway, StatusOfAnAnswerReachesTheWebServer) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"HTTP/1.0 404 Not Found\r\nA: b\r\n\r\n", "Status: 404 Not Found\r\nA: b\r\n\r\n", "shop"},
        {"HTTP/1.1 200 \r\n\r\n", "Status: 200 \r\n\r\n", "shop"},
        {"HTTP/1.0 302 Found\r\nLocation: /x\r\n\r\n", "Status: 302 Found\r\nLocation: /x\r\n\r\n", "shop"},
        {"HTTP/1.0 200 OK\r\nA: b\r\nlocation: /x\r\n\r\n", "A: b\r\nlocation: /x\r\n\r\n", "shop"},
        {"HTTP/1.0 200 OK\r\nStatus: 201 Made\r\n\r\n", "Status: 201 Made\r\n\r\n", "shop"},
        {"HTTP/1.0 404 No\r\n\r\n", "HTTP/1.0 404 No\r\n\r\n", "nph-shop"},
    };
    for (const auto& [header, output, name] : cases) {
        serveAlone({wire::header(header), wire::body("x"), wire::end()}, "HTTPSTATUS=yes\n");
        expectSuccess(run({}, "", name), output + "x");
    }
}

TEST_F(Gateway, StatusOfAFailureReachesTheWebServer) {
    const DeadPort dead;
    const struct {
        std::string line;
        int code;
        Script script;  // none: nobody listens
        Texts variables;
    } cases[] = {
        {"400 Bad Request", 603, [](Connection&) {}, {"CONTENT_LENGTH=9"}},
        {"411 Length Required", 603, [](Connection&) {}, {"HTTP_TRANSFER_ENCODING=chunked"}},
        {"413 Content Too Large", 603, [](Connection&) {}, {"CONTENT_LENGTH=4294967296"}},
        {"502 Bad Gateway", 605, [](Connection& c) { c.receiveRequest(), c.closeSending(); }, {}},
        {"503 Service Unavailable\r\nRetry-After: 10", 602, nullptr, {}},
        {"504 Gateway Timeout", 605, [](Connection& c) { c.receiveRequest(), c.stall(); }, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const std::string lines = "HTTPSTATUS=1\nNEEDLENGTH=1\nCLIENTIOTIMEOUT=1\n";
        c.script ? static_cast<void>(serveAlone(c.script, lines)) : configure(entry(dead.port()), lines);
        const Outcome plain = run(c.variables), nph = run(c.variables, "", "nph-shop");
        EXPECT_EQ(plain.out.rfind("Status: " + c.line + "\r\nContent-type: text/html\r\n\r\n<html>", 0), 0u)
            << plain.out;
        const std::string begin = "HTTP/1.0 " + c.line.substr(0, c.line.find('\r')) + "\n";
        EXPECT_EQ(nph.out.rfind(begin, 0), 0u) << nph.out;
        EXPECT_EQ(plain.exitStatus, c.code & 0xFF);
        EXPECT_EQ(nph.exitStatus, c.code & 0xFF);
    }
}

TEST_F(Gateway, BrokenAnswerIsCutOnceSomethingHasGoneOut) {
    const std::string page = "Content-type: text/html\r\n\r\n<html>";
    const std::pair<Texts, std::string> cases[] = {
        {{}, page}, {{kAnswer[0]}, page}, {{kAnswer[0], kAnswer[1]}, kAnswerOutput}};
    for (const auto& [messages, output] : cases) {
        serveAlone(
            [pieces = messages](Connection& connection) {
                connection.receiveRequest();
                connection.serve(pieces);
                connection.closeSending();
            },
            "BROKENANSWER=cut\n");
        const Outcome outcome = run();
        EXPECT_EQ(outcome.out.substr(0, output == page ? page.size() : std::string::npos), output);
        EXPECT_EQ(outcome.exitStatus, 605 & 0xFF);
    }
}

TEST_F(Gateway, EndsABrokenAnswerThatCannotBeWritten) {
    for (const bool cuts : {false, true}) {
        serveAlone(kAnswer, cuts ? "BROKENANSWER=cut\n" : "");
        EXPECT_EQ(runCommand(inShell(command(), "", ">/dev/full")).exitStatus, cuts ? 605 & 0xFF : 0);
    }
}

TEST_F(Gateway, ErrorPageOfTheOperatorIsFilledIn) {
    const DeadPort dead;
    const std::string page = folder_ / "page.html";
    const std::string fields =
        "Status: 503 Service Unavailable\r\nRetry-After: 10\r\nContent-type: text/html\r\n\r\n";
    writeFile(page, "{{CODE}}: {{STATUS}} ({{REQUEST}}) {{OTHER}}");
    configure(entry(dead.port()), "HTTPSTATUS=yes\nERRORPAGE=" + page + "\n");
    EXPECT_EQ(run({"UNIQUE_ID=aZ-_@9"}).out, fields + "602: 503 Service Unavailable (aZ-_@9) {{OTHER}}");
    const std::string made = run({"UNIQUE_ID=<b>"}).out;
    EXPECT_TRUE(std::regex_search(made, std::regex("\\([0-9a-f]{16}\\)"))) << made;
    fs::remove(page);
    const std::string builtIn = run().out;
    EXPECT_NE(builtIn.find("Tried connecting to Velarto Server"), std::string::npos) << builtIn;
}

// Nobody could put more than one field, or one line, into the log.
TEST_F(Gateway, LogHasALineForEachFailureOrRequest) {
    const DeadPort dead;
    ScriptedPeer& server = serve(answering(kAnswer));
    const auto logOf = [this](const std::string& servers, const std::string& lines) {
        configure(servers, "HTTPSTATUS=1\n" + lines);
        Process gateway(
            command({"PATH_INFO=/a\" code=0\nb\\", "REQUEST_METHOD=POST", "UNIQUE_ID=id"}, "body"));
        return gateway.wait(20s).err;
    };
    const std::string start =
        " client=\"shop\" request=\"id\" method=\"POST\" path=\"/a\\\" code=0\\x0Ab\\\\\" server=";
    const std::string up = entry(server.port()), down = entry(dead.port());
    const std::string refused = "\"" + down + "\" choice=only failed=\"" + down + ": Connection refused\"";
    const std::tuple<std::string, std::string, Texts> cases[] = {
        {down, "CLIENTLOG=stderr\n", {start + refused, " code=602 status=503 waiting_for=connection\n"}},
        {up,
         "CLIENTLOG=stderr,all\n",
         {"\"" + up + "\" choice=only connect_ms=", " bytes_in=4 bytes_out=", " code=0\n"}},
        {up, "CLIENTLOG=stderr\nSERVERCHOICE=best\n", {" code=0 ignored=\"SERVERCHOICE\"\n"}},
        {down, "CLIENTLOG=stderr\nERRORPAGE=/no\n", {" unreadable=\"/no\"\n"}},
    };
    for (const auto& [servers, lines, parts] : cases) {
        const std::string log = logOf(servers, lines);
        EXPECT_TRUE(std::regex_search(log, std::regex("^time=[0-9]{4}-[0-9-]{5}T[0-9:]{8}\\.[0-9]{3}Z ")))
            << log;
        EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
        for (const std::string& part : parts)
            EXPECT_NE(log.find(part), std::string::npos) << part << log;
    }
    for (const char* lines : {"", "CLIENTLOG=off\n", "CLIENTLOG=loud\n"})
        EXPECT_EQ(logOf(down, lines), "") << lines;
    EXPECT_EQ(logOf(up, "CLIENTLOG=stderr\n"), "");
}

TEST_F(Gateway, WaitsAsLongAsTheSectionSays) {
    const DeadPort dead;
    ScriptedPeer& stalled =
        serve([](Connection& connection) { connection.receiveRequest(), connection.stall(); });
    const std::string up = entry(stalled.port());
    const std::pair<std::string, std::string> cases[] = {
        {up, "ANSWERTIMEOUT=1\n"},
        {entry(dead.port()) + ":" + entry(dead.port()) + ":" + up, "CLIENTIOTIMEOUT=1\nKEEPIOTIMEOUT=1\n"},
    };
    for (const auto& [servers, lines] : cases) {
        configure(servers, lines);
        EXPECT_EQ(run().exitStatus, 605 & 0xFF) << lines;
    }
    configure(up, "REQUESTTIMEOUT=1\nHTTPSTATUS=1\nCLIENTLOG=stderr\n");
    const Outcome late = Process(command()).wait(20s);
    EXPECT_EQ(late.out.rfind("Status: 504 Gateway Timeout\r\nContent-type: text/html\r\n\r\n<html>", 0), 0u)
        << late.out;
    EXPECT_EQ(late.exitStatus, 605 & 0xFF);
    EXPECT_NE(late.err.find(" code=605 status=504 "), std::string::npos) << late.err;
    // A queue that is full: nobody takes the connections.
    const LoopbackPort deaf;
    ASSERT_EQ(::listen(deaf.get(), 0), 0);
    std::deque<Socket> waiting;
    while (waiting.empty() || waiting.back().IsActive()) {
        waiting.emplace_back().CreateSocket(AF_INET, nullptr, nullptr);
        waiting.back().Connect("127.0.0.1", deaf.port(), 100);
    }
    configure(entry(deaf.port()), "CONNECTTIMEOUT=50\nCLIENTLOG=stderr\n");
    const std::string log = Process(command()).wait(20s).err;
    EXPECT_NE(log.find(": no answer in 50 ms\""), std::string::npos) << log;
}

TEST_F(Gateway, OrderOfServersDiffersWithinASecondWhereItIsRandom) {
    std::string list = ",0";
    for (int i = 1; i < 50; ++i)
        list += ":," + std::to_string(i);
    configure(list, "SERVERCHOICE=random\n");
    std::set<std::string> pages;
    for (int i = 0; i < 6; ++i)
        pages.insert(run().out);
    EXPECT_GT(pages.size(), 1u);  // the same page six times has a chance of one in 300 million
}

// The user's server is left out by the gateways that come after the one that did not reach it.
TEST_F(Gateway, ServerThatWasNotReachedIsLeftOut) {
    const DeadPort dead;
    ScriptedPeer& server = serve(answering(kAnswer));
    const std::string servers = "s001," + entry(dead.port()) + ":s002," + entry(server.port());
    configure(servers, "CLIENTLOG=stderr,all\nSERVERRETRY=3600\nSTATEPATH=" + folder_ / "state\n");
    const std::string failed = " failed=\"s001," + entry(dead.port()) + ": Connection refused\"";
    for (const bool isFirst : {true, false, false}) {
        const Outcome outcome =
            Process(command({"HTTP_COOKIE=Velarto_UserReference=s001" + std::string(24, 'x')})).wait(20s);
        EXPECT_EQ(outcome.out, kAnswerOutput);
        EXPECT_EQ(outcome.err.find(failed) != std::string::npos, isFirst) << outcome.err;
    }
    server.visits();
}

TEST_F(Gateway, CookiesOfItsNamesAreItsOwnWhereTheSectionSaysSo) {
    const std::pair<std::string, std::string> cases[] = {
        {"a=1; VelartoClient=x;velarto_cgiip = 1 ; b=2", "a=1; b=2; VelartoClient=shop"},
        {"VelartoClient; VelartoClients=x", " VelartoClients=x; VelartoClient=shop"},
        {"VelartoClient=x", "VelartoClient=shop"},
    };
    for (const auto& [cookies, expected] : cases) {
        ScriptedPeer& server = serveAlone(kAnswer, "OWNCOOKIES=yes\n");
        expectSuccess(run({"HTTP_COOKIE=" + cookies}), kAnswerOutput);
        EXPECT_EQ(server.onlyVisit().request["HTTP_COOKIE"], expected);
    }
}

TEST_F(Gateway, FailedHeadOfAnNphProgramHasNoBody) {
    const DeadPort dead;
    configure(entry(dead.port()));
    const std::string head = "HTTP/1.0 500 Internal Server Error\nContent-type: text/html\r\n\r\n";
    EXPECT_EQ(run({"REQUEST_METHOD=HEAD"}, "", "nph-shop").out, head);
    EXPECT_NE(run({"REQUEST_METHOD=GET"}, "", "nph-shop").out, head);
}

// ---- a person in a shell ----

TEST_F(Gateway, TellsAPersonWhatItIsAndARequestNothing) {
    serveAlone(kAnswer);
    const std::string before = readFile(clientsFile());
    const auto runWith = [this](const Texts& arguments, Texts variables) {
        Command command = this->command(std::move(variables));
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        return runCommand(command);
    };
    expectSuccess(runWith({"--version"}, {}), "velarto-cgi (Velarto) 5.5.020\n");
    EXPECT_EQ(runWith({"--help"}, {}).out.rfind("Usage: velarto-cgi", 0), 0u);
    for (const char* variable : {"REQUEST_METHOD=GET", "GATEWAY_INTERFACE=CGI/1.1"})
        expectSuccess(runWith({"--version"}, {variable}), kAnswerOutput);
    expectSuccess(runWith({"--version", "--help"}, {}), kAnswerOutput);
    EXPECT_EQ(readFile(clientsFile()), before);
    fs::remove(clientsFile());
    Command terminal = command();
    terminal.arguments = {"script", "-qec", "exec " VELARTO_CGI_PATH, "/dev/null"};
    terminal.program = "/usr/bin/script";
    EXPECT_EQ(runCommand(terminal).out.rfind("Usage: velarto-cgi", 0), 0u);
}

// ---- the configuration ----

TEST_F(Gateway, UnusableFileIsToldAndLeft) {
    const std::string section = "[Velarto Client Definitions]\nshop=\n\n[shop]\n";
    for (const std::string& bad : {""s, std::string(1000, '\0'), section + "VELARTO_SERVER=a,1\nwhat\n",
                                   section + "VELARTO_SERVER=\n", section + "VELARTO_HOST=127.0.0.1\n"}) {
        writeFile(clientsFile(), bad);
        expectPage(run(), 601, parseMessage("shop"));
        EXPECT_EQ(readFile(clientsFile()), bad);
    }
    fs::remove(clientsFile());
    expectPage(run({}, "", "/srv/cgi/" + std::string(65536, 'n')), 601, parseMessage(std::string(255, 'n')));
    EXPECT_FALSE(fs::exists(clientsFile()));
    for (const char* name : {"", "/", "/srv/shop/"})
        expectPage(run({}, "", name), 601, "No client name defined");
}

const std::string kHead = "[Velarto Client Definitions]\nshop=\n\n";
const std::string kBefore =
    "; by hand\n[Velarto Client Definitions]\nshop=\nAdmin=\n\n[shop]\nb=2\nA=1\n\n[Admin]\nx=y";
const std::string kAfter =
    "[Velarto Client Definitions]\nAdmin=\nnew=\nshop=\n\n[shop]\nA=1\nb=2\n\n[Admin]\nx=y\n\n[new]\n"
    "VELARTO_SERVER=127.0.0.1,18155\n\n";

TEST_F(Gateway, FirstRunAddsTheSectionAndKeepsAllElse) {
    writeFile(clientsFile(), kBefore);
    fs::permissions(clientsFile(), fs::perms(0640));
    for (const char* name : {"/srv/cgi/new", "NEW"})  // the second one finds the section
        run({}, "", name);                            // whoever listens on that port
    EXPECT_EQ(readFile(clientsFile()), kAfter);
    EXPECT_EQ(fs::status(clientsFile()).permissions(), fs::perms(0640));
}

TEST_F(Gateway, FirstRunInAReadOnlyFolderNeedsTheRightToWriteTheFile) {
    const std::string program = folder_ / "new";  // where everybody can go
    fs::copy_file(VELARTO_CGI_PATH, program);
    Command command = this->command();
    command.program = "/usr/bin/setpriv";
    command.arguments = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program};
    if (::geteuid() != 0) command.arguments = {"setpriv", program};  // modes do not bind root

    writeFile(clientsFile(), kBefore);
    fs::permissions(folder_.path(), fs::perms(0755));
    fs::permissions(folder_ / "configuration", fs::perms(0555));
    fs::permissions(clientsFile(), fs::perms(0444));
    expectPage(runCommand(command), 601, parseMessage("new"));
    EXPECT_EQ(readFile(clientsFile()), kBefore);
    fs::permissions(clientsFile(), fs::perms(0666));
    runCommand(command);
    EXPECT_EQ(readFile(clientsFile()), kAfter);
}

// Whether the process waits for a lock on a file.
bool waitsForALock(pid_t process) {
    const std::string locks = readFile("/proc/locks");
    const std::regex waiting("-> POSIX +ADVISORY +WRITE " + std::to_string(process) + " ");
    return std::regex_search(locks, waiting);
}

TEST_F(Gateway, FirstRunLeavesASectionThatSomebodyElseHasWrittenMeanwhile) {
    ScriptedPeer& server = serve(answering(kAnswer));
    const std::string finished =
        "; by hand\n" + kHead + "[shop]\nVELARTO_SERVER=" + entry(server.port()) + "\n";
    writeFile(clientsFile(), kHead);
    const Descriptor reader(::open(clientsFile().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(LockOSFile(reader.get(), false));
    Process gateway(command());
    while (gateway.running() && !waitsForALock(gateway.pid()))
        ::usleep(1000);
    writeFile(folder_ / "finished", finished);
    fs::rename(folder_ / "finished", clientsFile());
    UnLockOSFile(reader.get());
    expectSuccess(finish(gateway), kAnswerOutput);
    EXPECT_EQ(readFile(clientsFile()), finished);
}

// ---- the choice of a server ----

TEST_F(Gateway, ForcedServerHasNoSubstituteAndAnNphPageHasAStatusLine) {
    const DeadPort dead;
    ScriptedPeer& live = serve(answering(kAnswer));
    const std::string forced = "s001," + entry(dead.port()), query = "QUERY_STRING=srv=s001";
    const std::string error = " 500 Internal Server Error\n", software = "web/1 %s%n";
    const auto detailFor = [&](const std::string& client) {
        return "Tried connecting to Velarto Server for client " + client + " on " + forced;
    };
    configure(forced + ":s002," + entry(live.port()), "FORCE_SERVER_ARG_NAME=srv\n");
    expectPage(run({query}), 602, detailFor("shop"));
    expectPage(run({query, "SERVER_SOFTWARE=" + software}, "", "nph-shop"), 602, detailFor("nph-shop"),
               "HTTP/1.0" + error + "Server: " + software + "\n");
    expectPage(run({query, "SERVER_PROTOCOL=HTTP/1.1"}, "", "nph-shop"), 602, detailFor("nph-shop"),
               "HTTP/1.1" + error);
    EXPECT_TRUE(live.visits().empty());
}

// As the library does, whatever random() the gateway's C library has. The page names the server tried last.
TEST_F(Gateway, ServersAreTriedInTheOrderOfTheSecond) {
    std::string list = ",0";
    for (int i = 1; i < 50; ++i)
        list += ":," + std::to_string(i);
    configure(list);
    Stanza section("");
    section.addValue("VELARTO_SERVER", list.c_str());
    const ServerList servers(section);
    CText last;
    Outcome outcome;
    using Clock = std::chrono::system_clock;  // glibc's time() is some milliseconds behind musl's
    for (std::time_t second = 0; second != Clock::to_time_t(Clock::now());) {
        second = std::time(nullptr);
        servers.getEntry((ServerSelection(servers, {}, static_cast<std::uint32_t>(second)).end() - 1)->entry,
                         last);
        outcome = run();
    }
    expectPage(outcome, 602, "Tried connecting to Velarto Server for client shop on "s + last.GetTextEx());
}

// Whatever is wrong with the others, the good one is found. The port is taken modulo 65536; the route names
// the one really connected to. Of the file only the older form is changed.
TEST_F(Gateway, TheServerThatListensIsFoundInAnyForm) {
    const DeadPort dead;
    ScriptedPeer& server = serve(answering(kAnswer));
    const std::string down = std::to_string(dead.port()), up = std::to_string(server.port());
    const std::string good = ":localhost," + std::to_string(server.port() + 65536);
    const std::string list = "VELARTO_SERVER=127.0.0.1," + down + ":127.0.0.1," + up + "\n";
    const std::string older = "VELARTO_HOST=127.0.0.1\nVELARTO_PORT=" + down + "::" + up + ":\n";
    const Texts sections[] = {
        {"VELARTO_SERVER=127.0.0.1,x:,,:a..b,80:" + std::string(3000, ',') + good + "\n"},
        {"VELARTO_SERVER=127.0.0.1:" + down + ",127.1:" + up + "\n"},
        {older, older + list + "\n"}};
    const std::string start = "[Velarto Client Definitions]\nshop=\n\n[shop]\n";
    for (const Texts& section : sections) {
        SCOPED_TRACE(section.front());
        writeFile(clientsFile(), start + section.front());
        expectSuccess(run(), kAnswerOutput);
        EXPECT_EQ(readFile(clientsFile()), start + section.back());
        char route[16];
        std::snprintf(route, sizeof route, "7F000001%04X", server.port());
        EXPECT_EQ(server.visits().back().request["HTTP_COOKIE"],
                  "VelartoClient=shop; Velarto_CGIIP="s + route);
    }
}

}  // namespace
