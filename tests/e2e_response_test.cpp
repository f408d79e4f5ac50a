// End to end: what the real gateway writes for what an application server answers, and the local files that
// it serves meanwhile.
#include <sys/stat.h>

#include <filesystem>

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
        EXPECT_EQ(server.visits().size(), 1u);
        if (server.visits().empty()) return "";
        const ScriptedPeer::Visit& visit = server.visits().front();
        return visit.received.substr(wire::encode(visit.request).size());
    }
};

TEST_F(GatewayResponse, HeaderLosesItsStatusLineUnlessNph) {
    const std::string cases[][2] = {
        // the header; what is left without the status line
        {kHeader, kFields},
        {"HTTP/1.0 404 Not Found\r\n\r\n", "\r\n"},
        {"HTTP/1.0 302 \r\nLocation: /x\r\n\r\n", "Location: /x\r\n\r\n"},
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
        {{wire::body(""), wire::body("x"), wire::body(""), wire::end()}, "x"},
    };
    for (const auto& c : cases) {
        serveAlone(c.messages);
        expectSuccess(run(), c.output);
    }
}

TEST_F(GatewayResponse, BodyBytesOfAnyKindAndNumberPassUnchanged) {
    std::string bytes;
    while (bytes.size() < 3000000)
        bytes.push_back(static_cast<char>(bytes.size() * 7 + bytes.size() / 251));
    std::vector<std::string> messages;
    std::string output;
    for (const std::size_t size : {1u, 4079u, 4080u, 4096u, 4097u, 65536u, 3000000u}) {
        messages.push_back(wire::body(bytes.substr(0, size)));
        output += bytes.substr(0, size);
    }
    messages.push_back(wire::end());
    serveAlone(messages);
    const Outcome outcome = run();
    EXPECT_TRUE(outcome.out == output) << "got " << outcome.out.size() << " of " << output.size();
    EXPECT_EQ(outcome.exitStatus, 0);
}

TEST_F(GatewayResponse, AnswerMayArriveByteByByte) {
    serveAlone([](Connection& connection) {
        connection.receiveRequest();
        for (std::size_t i = 0; i < kAnswer.size(); ++i) {
            for (const char byte : kAnswer[i])
                connection.send(std::string(1, byte));
            if (i < 2) connection.expect(wire::acknowledgement(i == 0 ? 6 : 4));
        }
    });
    expectSuccess(run(), kAnswerOutput);
}

// Acknowledgements have no room between messages that are already there; the response comes through all the
// same.
TEST_F(GatewayResponse, ServerNeedNotWaitForAcknowledgements) {
    ScriptedPeer& server = serveAlone([](Connection& connection) {
        connection.receiveRequest();
        connection.send(kAnswer[0] + kAnswer[1] + kAnswer[2]);
    });
    expectSuccess(run(), kAnswerOutput);
    EXPECT_EQ(answers(server), "");
}

TEST_F(GatewayResponse, FilesAreServedAndRefused) {
    const std::string binary = "a\0b\r\n\x80"s;
    const std::string large(300000, 'L');
    writeFile(folder_ / "empty", "");
    writeFile(folder_ / "binary", binary);
    writeFile(folder_ / "large", large);
    writeFile(folder_ / "secret", "keep");
    std::filesystem::permissions(folder_ / "secret", std::filesystem::perms::none);
    ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    writeFile(folder_ / "huge", "");
    std::filesystem::resize_file(folder_ / "huge", (std::uintmax_t{4} << 30) + 10);  // a hole: takes no disk
    const std::string cases[][2] = {
        {folder_ / "binary", wire::fileReply(binary)},
        {folder_ / "large", wire::fileReply(large)},
        {"..\\binary", wire::fileReply(binary)},
        {folder_ / "huge", wire::fileRefused()},
        {folder_ / "absent", wire::fileRefused()},
        {folder_ / "empty", wire::fileRefused()},
        {folder_.path(), wire::fileRefused()},
        {folder_ / "pipe", wire::fileRefused()},
        {"/dev/zero", wire::fileRefused()},
        {"", wire::fileRefused()},
        {std::string(70000, 'p'), wire::fileRefused()},
        // Root may read everything.
        {folder_ / "secret", ::geteuid() == 0 ? wire::fileReply("keep") : wire::fileRefused()},
    };
    std::string expected;
    const Script script = [&](Connection& connection) {
        connection.receiveRequest();
        for (const auto& [path, answer] : cases) {
            connection.send(wire::fileRequest(path));
            connection.expect(answer);
            expected += answer;
        }
        connection.serve(kAnswer);
    };
    ScriptedPeer& server = serveAlone(script, "PARSEFILEPATHS=Yes\n");
    expectSuccess(run(), kAnswerOutput);
    EXPECT_EQ(answers(server), expected + wire::acknowledgement(6) + wire::acknowledgement(4));
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
