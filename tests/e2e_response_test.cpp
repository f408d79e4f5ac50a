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
    const struct {
        std::string header;
        std::string fields;  // what is left without the status line
    } cases[] = {
        {kHeader, kFields},
        {"HTTP/1.0 404 Not Found\r\n\r\n", "\r\n"},
        {"HTTP/1.0 302 \r\nLocation: /x\r\n\r\n", "Location: /x\r\n\r\n"},
        {"HTTP/1.0 200 OK\r\n", ""},
        {"HTTP/x. 500 two\nlines\r\nno field at all", "no field at all"},
        {"HTTP/1.0 200 OK\r\nX: " + std::string(70000, 'x') + "\r\n\r\n",
         "X: " + std::string(70000, 'x') + "\r\n\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header.substr(0, 60));
        for (const bool nph : {false, true}) {
            ScriptedPeer& server = serveAlone({wire::header(c.header), wire::body("<p>"), wire::end()});
            const Outcome outcome = run({}, "", nph ? "/srv/cgi/nph-shop" : "/srv/cgi/shop");
            expectSuccess(outcome, (nph ? c.header : c.fields) + "<p>");
            EXPECT_EQ(answers(server), wire::acknowledgement(6) + wire::acknowledgement(4));
        }
    }
}

TEST_F(GatewayResponse, NphModeNeedsThePrefixInLowerCase) {
    for (const char* name : {"NPH-shop", "nphshop", "nph"}) {
        SCOPED_TRACE(name);
        ScriptedPeer& server = serve(kAnswer);
        writeFile(clientsFile(), "[Velarto Client Definitions]\n\n["s + name +
                                     "]\nVELARTO_SERVER=" + entry(server.port()) + "\n");
        expectSuccess(run({}, "", name), kAnswerOutput);
    }
}

TEST_F(GatewayResponse, InvalidHeaderIsAcknowledgedAndEndsInThePage) {
    for (const std::string& header :
         {""s, "Content-Type: text/html\r\n\r\n"s, "http/1.0 200 OK\r\n\r\n"s, "HTTP/1 200 OK\r\n\r\n"s,
          "HTTP/1.0 20 OK\r\n\r\n"s, "HTTP/1.0 2000 OK\r\n\r\n"s, "HTTP/1.0 200OK\r\n\r\n"s,
          "HTTP/1.0 200 OK\n\n"s, "HTTP/1.0 200 OK\rX\r\n\r\n"s, "HTTP/"s, "HTTP/1.0 200"s,
          "\0HTTP/1.0 200 OK\r\n\r\n"s}) {
        SCOPED_TRACE(header);
        ScriptedPeer& server = serveAlone({wire::header(header)});
        expectPage(run(), 605, "");
        EXPECT_EQ(answers(server), wire::acknowledgement(6));
    }
}

TEST_F(GatewayResponse, MessagesMayComeInAnyOrderAndNumber) {
    const std::string second = "HTTP/1.0 200 OK\r\nX: 2\r\n\r\n";
    const struct {
        std::vector<std::string> messages;
        std::string output;
    } cases[] = {
        {{wire::end()}, ""},
        {{wire::header(kHeader), wire::end()}, kFields},
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
    std::string every;
    for (int byte = 0; byte < 256; ++byte)
        every.push_back(static_cast<char>(byte));
    std::vector<std::string> messages;
    std::string output;
    for (const std::size_t size : {1u, 4079u, 4080u, 4096u, 4097u, 65536u, 3000000u}) {
        std::string piece;
        while (piece.size() < size)
            piece += every;
        piece.resize(size);
        messages.push_back(wire::body(piece));
        output += piece;
    }
    messages.push_back(wire::end());
    serveAlone(messages);
    const Outcome outcome = run();
    EXPECT_TRUE(outcome.out == output) << "got " << outcome.out.size() << " of " << output.size();
    EXPECT_EQ(outcome.exitStatus, 0);
}

TEST_F(GatewayResponse, HeaderEndsAtItsFirstNulUnlessNph) {
    const std::string header = "HTTP/1.0 200 OK\r\nX: 1\r\n\0hidden\r\n"s;
    serveAlone({wire::header(header), wire::end()});
    expectSuccess(run(), "X: 1\r\n");
    serveAlone({wire::header(header), wire::end()});
    expectSuccess(run({}, "", "nph-shop"), header);
}

TEST_F(GatewayResponse, AnswerMayArriveByteByByte) {
    serveAlone([](Connection& connection) {
        connection.receiveRequest();
        for (std::size_t i = 0; i < kAnswer.size(); ++i) {
            connection.sendInPieces(kAnswer[i], 1);
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
    const std::string nothing = folder_ / "absent";
    const std::string empty = folder_ / "empty";
    const std::string binary = folder_ / "binary";
    const std::string large = folder_ / "large";
    const std::string pipe = folder_ / "pipe";
    const std::string secret = folder_ / "secret";
    const std::string link = folder_ / "link";
    const std::string largeContent(300000, 'L');
    writeFile(empty, "");
    writeFile(binary, "a\0b\r\n\x80"s);
    writeFile(large, largeContent);
    writeFile(secret, "keep");
    std::filesystem::permissions(secret, std::filesystem::perms::none);
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    std::filesystem::create_symlink("binary", link);

    const struct {
        std::string path;
        std::string answer;
    } cases[] = {
        {binary, wire::fileReply("a\0b\r\n\x80"s)},
        {link, wire::fileReply("a\0b\r\n\x80"s)},
        {large, wire::fileReply(largeContent)},
        {"../binary", wire::fileReply("a\0b\r\n\x80"s)},
        {nothing, wire::fileRefused()},
        {empty, wire::fileRefused()},
        {folder_.path(), wire::fileRefused()},
        {pipe, wire::fileRefused()},
        {"/dev/zero", wire::fileRefused()},
        {"", wire::fileRefused()},
        {binary + "/", wire::fileRefused()},
        {std::string(70000, 'p'), wire::fileRefused()},
        // Root may read everything.
        {secret, ::geteuid() == 0 ? wire::fileReply("keep") : wire::fileRefused()},
    };
    std::string expected;
    for (const auto& c : cases)
        expected += c.answer;
    ScriptedPeer& server = serveAlone([&](Connection& connection) {
        connection.receiveRequest();
        for (const auto& c : cases) {
            connection.send(wire::fileRequest(c.path));
            connection.expect(c.answer);
        }
        connection.serve(kAnswer);
    });
    expectSuccess(run(), kAnswerOutput);
    EXPECT_EQ(answers(server), expected + wire::acknowledgement(6) + wire::acknowledgement(4));
}

TEST_F(GatewayResponse, BackslashesInFilePathsAreSlashesWhenConfigured) {
    writeFile(folder_ / "page", "slash");
    writeFile(folder_ / "work\\page", "backslash");
    const struct {
        const char* setting;
        const char* content;
    } cases[] = {{"PARSEFILEPATHS=Yes\n", "slash"},
                 {"PARSEFILEPATHS=1\n", "slash"},
                 {"PARSEFILEPATHS=No\n", "backslash"},
                 {"PARSEFILEPATHS=\n", "backslash"},
                 {"", "backslash"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setting);
        serveAlone(
            [&](Connection& connection) {
                connection.receiveRequest();
                connection.send(wire::fileRequest(folder_ / "work\\..\\page"));
                connection.expect(c.content == "slash"s ? wire::fileReply("slash") : wire::fileRefused());
                connection.send(wire::fileRequest(folder_ / "work\\page"));
                connection.expect(c.content == "slash"s ? wire::fileRefused() : wire::fileReply("backslash"));
                connection.send(wire::end());
            },
            c.setting);
        expectSuccess(run(), "");
    }
}

TEST_F(GatewayResponse, PageFollowsWhatWasAlreadyWritten) {
    const std::vector<std::string> messages = {wire::header(kHeader), wire::body("half a pa"),
                                               wire::header("nonsense")};
    serveAlone(messages);
    expectPage(run({"SERVER_SOFTWARE=web/1"}), 605, "", kFields + "half a pa");
    serveAlone(messages);
    expectPage(run({"SERVER_SOFTWARE=web/1"}, "", "nph-shop"), 605, "",
               kHeader + "half a pa" + "HTTP/1.0 500 Internal Server Error\nServer: web/1\n");
}

TEST_F(GatewayResponse, NphPageHasStatusAndServerLines) {
    const struct {
        std::vector<std::string> variables;
        const char* lines;
    } cases[] = {
        {{}, "HTTP/1.0 500 Internal Server Error\n"},
        {{"SERVER_PROTOCOL=HTTP/1.1"}, "HTTP/1.1 500 Internal Server Error\n"},
        {{"SERVER_PROTOCOL="}, " 500 Internal Server Error\n"},
        {{"SERVER_SOFTWARE=web/1 %s%n"}, "HTTP/1.0 500 Internal Server Error\nServer: web/1 %s%n\n"},
    };
    const DeadPort nobody;
    configure(entry(nobody.port()));
    for (const auto& c : cases) {
        expectPage(run(c.variables, "", "/srv/nph-shop"), 602,
                   "Tried connecting to Velarto Server for client nph-shop on " + entry(nobody.port()),
                   c.lines);
        expectPage(run(c.variables), 602,
                   "Tried connecting to Velarto Server for client shop on " + entry(nobody.port()));
    }
}

}  // namespace
