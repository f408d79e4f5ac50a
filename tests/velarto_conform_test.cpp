// velarto-conform: servers that behave, the development server in each of its wrong ways, and servers that break one
// rule each.
#include <functional>
#include <memory>
#include <regex>
#include <set>

#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
using Texts = std::vector<std::string>;

Outcome conform(const std::string& server, Texts arguments, const std::string& timeout = "20") {
    arguments.insert(arguments.begin(), {VELARTO_CONFORM_PATH, server, "--pause=0.1", "--timeout", timeout});
    return run(commandOf(std::move(arguments)), 60s);
}

std::set<std::string> brokenIn(const std::string& out) {
    const std::regex broken("\nnot ok [0-9]+ - ([a-z-]+): ");
    std::set<std::string> rules;
    for (std::sregex_iterator found(out.begin(), out.end(), broken), end; found != end; ++found)
        rules.insert(found->str(1));
    return rules;
}

TEST(Conform, AllRulesHoldForTheDevelopmentServer) {
    const TempDir folder;
    const std::string path = folder / "app";
    for (const bool isLocal : {false, true}) {
        DevServer server({"--sid=s001"}, isLocal ? "unix:" + path : "127.0.0.1:0");
        const Outcome outcome =
            conform(isLocal ? path : entry(server.port()), {"--echo=/echo", "--login=/login"});
        EXPECT_EQ(outcome.out.find("TAP version 13\n1..54\nok 1 - whole-request: "), 0u) << outcome.out;
        EXPECT_FALSE(contains(outcome.out, "# SKIP"));
        EXPECT_EQ(brokenIn(outcome.out), std::set<std::string>());
        EXPECT_EQ(outcome.exitStatus, 0);
        server.end();
    }
}

TEST(Conform, ProveReadsWhatHoldsForTheExample) {
    AppServer server("/usr/bin/python3", {VELARTO_EXAMPLES_PATH "/appserver.py"});
    const Outcome outcome =
        run(commandOf({"/usr/bin/prove", "--exec", VELARTO_CONFORM_PATH " --pause=0.1 --timeout=20",
                       entry(server.port())}),
            60s);
    EXPECT_TRUE(contains(outcome.out, "Tests=54")) << outcome.err;
    EXPECT_TRUE(contains(outcome.out, "\nResult: PASS\n")) << outcome.err;
    server.end();
}

TEST(Conform, FindsEachWayToMisbehave) {
    const struct {
        const char* query;
        std::string rule;
    } cases[] = {
        {"how=close-now", "end"},
        {"how=close-after-header", "end"},
        {"how=close-in-piece", "whole-message"},
        {"how=reset", "end"},
        {"how=wrong-mark", "frame-mark"},
        {"how=wrong-version", "version"},
        {"how=wrong-footer", "footer"},
        {"how=unknown-type", "type"},
        {"how=absurd-length", "length"},
        {"how=bad-status-line", "status-line"},
        {"how=extra-bytes", "one-at-a-time"},
        {"how=extra-bytes&at=end", "nothing-after-end"},
        {"how=wait", "in-time"},
        {"how=flood", "end"},
        {"cut=30", "whole-message"},
    };
    DevServer server({"--misbehave"});
    for (const auto& [query, rule] : cases) {
        const Outcome outcome =
            conform(entry(server.port()), {"--path=/misbehave", std::string("--query=") + query},
                    rule == "in-time" ? "0.5" : "20");
        EXPECT_EQ(brokenIn(outcome.out), std::set<std::string>{rule}) << query << '\n' << outcome.out;
        EXPECT_EQ(outcome.exitStatus, 1) << query;
    }
    server.end();
}

std::string header(const std::string& fields, const std::string& status = "200 OK") {
    return wire::header("HTTP/1.0 " + status + "\r\n" + fields + "\r\n");
}

TEST(Conform, FindsServersThatBreakOneRule) {
    const std::string page = header(""), end = wire::end(), text = wire::body("hello");
    const auto reference = [&](const std::string& value) {
        return answering({header("Set-Cookie: Velarto_UserReference=" + value + "; Path=/\r\n"), end});
    };
    const std::string own = "abcdefghijklmnopqrstuvwx";
    const Script impatient = [&](Connection& connection) {
        connection.receiveRequest();
        connection.send(page + text + end);
    };
    const Script hasty = [&](Connection& connection) {
        connection.send(page);
        connection.receiveRequest();
        connection.receive(20);
        connection.send(end);
    };
    const Script careless = [&](Connection& connection) {  // reads an acknowledgement without a look
        connection.receiveRequest();
        connection.send(page);
        connection.receive(20);
        connection.send(end);
    };
    const Script unlucky = [&](Connection& connection) {  // takes 1 alone for true
        connection.receiveRequest();
        connection.send(page);
        if (connection.receive(20) == wire::acknowledgement(6)) connection.send(end);
    };
    const Script forgiving = [&](Connection& connection) {  // takes an end of file for the request's
        try {
            connection.receiveRequest();
            connection.serve({page, end});
        } catch (const std::runtime_error&) {
            connection.send(page);
        }
    };
    const auto closing = [&](const std::function<bool(const wire::Request&)>& on) -> Script {
        return [=](Connection& connection) {
            connection.receiveRequest();
            if (!on(connection.request())) connection.serve({page, end});
        };
    };
    const auto has = [&](const char* name, const char* part) {
        return closing(
            [=](const wire::Request& request) { return request.at(name).find(part) != std::string::npos; });
    };
    const auto served = std::make_shared<int>(0);
    const Script pathless = [&](Connection& connection) {
        connection.receiveRequest();
        connection.send(wire::fileRequest(""));
        connection.receive(connection.request().at("PATH_INFO") == "/" ? 20 : 27);
        connection.serve({page, end});
    };
    const struct {
        const char* rule;
        Script script;
        const char* finding;
    } cases[] = {
        {"whole-request", hasty, "sends before the request's last byte"},
        {"one-at-a-time", impatient, "byte 39 of the answer: 51 55 49 4C FF FD FF FD 00 00 00 04"},
        {"closes", answering({page, end}), "does not close within 2000 ms after the end"},
        {"order", answering({text, page, end}), "message 1 is a piece of the body; the header comes first"},
        {"order", answering({end}), "message 1 is the end; no header came"},
        {"header-fields", answering({wire::header("HTTP/1.0 200 OK\r\nA: b\r\n"), end}),
         "the empty line at the end"},
        {"header-fields", answering({header("A b\r\n"), end}), "the line \\\"A b\\\" is no field"},
        {"status-field", answering({header("", "404 Not Found"), end}), "there is no field Status"},
        {"content-length", answering({header("Content-Length: 6\r\n"), text, end}),
         "is 6, the body has 5 bytes"},
        {"content-length", answering({header("", "204 No Content"), text, end}), "status 204 has a body"},
        {"head", answering({page, text, end}), "the answer to HEAD has a body of 5 bytes"},
        {"echo", answering({page, text, end}), "a body of 0 bytes comes back as 5 others"},
        {"start-page", closing([](const auto& request) { return request.at("PATH_INFO").empty(); }),
         "an empty"},
        {"methods", has("REQUEST_METHOD", "PROPFIND"), "PROPFIND: message 1"},
        {"empty-values", closing([](const auto& request) { return request.at("SERVER_NAME").empty(); }),
         "22 empty"},
        {"long-values", closing([](const auto& request) { return request.at("HTTP_ACCEPT").size() > 65536; }),
         "four values of 131056 bytes: message 1"},
        {"any-bytes", has("HTTP_REFERER", "\xC0"), "bytes FF to 01 in parameter 13"},
        {"marks-inside", has("HTTP_USER_AGENT", "END!"), "marks and footers in"},
        {"stated-length", has("CONTENT_LENGTH", "99999"), "3 bytes with the CONTENT_LENGTH \\\"99999\\\""},
        {"body-sizes", closing([](const auto& request) { return request.post.size() > 65536; }),
         "of 65537 bytes"},
        {"cookies", has("HTTP_COOKIE", "a=\""), "the cookies"},
        {"in-turn", closing([served](const auto&) { return ++*served > 5; }), "conversation 5 of 1000"},
        {"truth", unlucky, "results of FF FF FF FF"},
        {"cut-request", forgiving, "the first 1 of the request's"},
        {"user-reference", reference("s001" + own + "x"), "has 29 characters, not 28 or 36"},
        {"user-reference", reference("s001" + own.substr(1) + "-"),
         "other characters than letters and digits"},
        {"user-reference", reference("7F0000010000" + own), "does not begin with 7F000001"},
        {"forged-route", reference("0A0B0C0D1234" + own),
         "Velarto_CGIIP=0A0B0C0D1234; VelartoClient=conform"},
        {"file-path", pathless, "the path of a file request is empty"},
        {"refusal", careless, "goes on with 51 55 49 4C FF FD FF FD 00 00 00 07"},
        {"wrong-acknowledgement", careless, "of type 4 for the header: the server goes on"},
    };
    for (const auto& [rule, script, finding] : cases) {
        // A server closes when it has sent the end; a script that does not is closed for.
        const bool stays = std::string(rule) == "closes";
        ScriptedPeer peer([script = script, stays](Connection& connection) {
            script(connection);
            if (!stays) connection.close();
        });
        const Outcome outcome =
            conform(entry(peer.port()), {"--only", rule, "--echo=/echo"}, stays ? "2" : "20");
        EXPECT_EQ(brokenIn(outcome.out), std::set<std::string>{rule}) << outcome.out;
        EXPECT_TRUE(contains(outcome.out, finding));
    }
}

TEST(Conform, SaysWhyItCannotTryAServer) {
    const DeadPort dead;
    const struct {
        Texts arguments;
        const char* reason;
    } cases[] = {
        {{entry(dead.port())}, "cannot be reached: Connection refused"},
        {{}, "HOST,PORT is required"},
        {{"127.0.0.1:18155"}, "wants HOST,PORT or PATH: 1 field"},
        {{"h,1", "--only=foot"}, "there is no rule 'foot'"},
        {{"h,1", "--path=x"}, "a path that begins with /, not x"},
        {{"h,1", "--timeout=0"}, "--timeout: Value 0 not in range"},
    };
    for (const auto& [arguments, reason] : cases) {
        Texts line = arguments;
        line.insert(line.begin(), VELARTO_CONFORM_PATH);
        const Outcome outcome = run(commandOf(line), 20s);
        EXPECT_EQ(outcome.exitStatus, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(contains(outcome.err, reason));
    }
}

// A rule, as the program lists it, is a row of its document, with a section that the protocol has.
TEST(Conform, ListsTheRulesOfItsDocument) {
    const std::string folder = VELARTO_EXAMPLES_PATH "/../docs/";
    const std::string document = readFile(folder + "velarto-conform.md"),
                      protocol = readFile(folder + "protocol.md");
    const std::string list = run(commandOf({VELARTO_CONFORM_PATH, "--list"}), 20s).out;
    const std::regex line("([a-z-]+) +(.*) \\((.*)\\)\n");
    std::ptrdiff_t count = 0;
    for (std::sregex_iterator rule(list.begin(), list.end(), line), end; rule != end; ++rule, ++count) {
        EXPECT_TRUE(
            contains(document, "| `" + rule->str(1) + "` | " + rule->str(2) + " | " + rule->str(3) + " |"));
        EXPECT_NE(protocol.find("# " + rule->str(3) + "\n"), std::string::npos) << rule->str();
    }
    EXPECT_EQ(count, std::count(list.begin(), list.end(), '\n'));
}

TEST(Conform, TellsInJson) {
    DevServer server({"--misbehave"});
    const std::string out = conform(entry(server.port()), {"--path=/misbehave", "--query=how=wrong-version",
                                                           "--json", "--only=version", "--only=closes"})
                                .out;
    const std::string expected =
        "    {\n"
        "      \"id\": \"version\",\n"
        "      \"title\": \"the version follows the mark\",\n"
        "      \"section\": \"docs/protocol.md#messages\",\n"
        "      \"verdict\": \"broken\",\n"
        "      \"reason\": \"message 1, byte 4 of the answer: the version is FF FD FF FC, not FF FD FF "
        "FD\",\n"
        "      \"remedy\": \"write FF FD FF FD after the mark, before the type\"\n    },\n";
    EXPECT_TRUE(contains(out, expected));
    EXPECT_TRUE(contains(out, "\"verdict\": \"skipped\""));
    server.end();
}

}  // namespace
