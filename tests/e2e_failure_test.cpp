// End to end: application servers that misbehave. Whatever they do, the real gateway ends by itself, with the
// page of the step that failed.
#include <signal.h>

#include <future>

#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace support;

class GatewayFailure : public GatewayTest {
  protected:
    // Serves the first messages of the answer; the script goes on with one of its own.
    static void serveFirst(Connection& connection, std::size_t count) {
        connection.receiveRequest();
        connection.serve({kAnswer.begin(), kAnswer.begin() + static_cast<std::ptrdiff_t>(count)});
    }

    // What the gateway has written after the first messages of the answer.
    static std::string outputOf(std::size_t messages) {
        if (messages == 0) return "";
        return messages == 1 ? "Content-Type: text/plain\r\n\r\n" : kAnswerOutput;
    }
};

TEST_F(GatewayFailure, AnswerThatBreaksOffOrIsWrongEndsInThePage) {
    for (std::size_t message = 0; message < kAnswer.size(); ++message) {
        const std::string& right = kAnswer[message];
        std::vector<std::string> answers;
        for (const std::size_t size : {std::size_t{0}, std::size_t{5}, right.size() - 1})
            answers.push_back(right.substr(0, size));
        for (const std::size_t at : {std::size_t{0}, std::size_t{7}, std::size_t{9}, right.size() - 1})
            answers.push_back(std::string(right).replace(at, 1, "?"));  // in mark, version, type and footer
        for (const std::string& answer : answers) {
            for (const bool resets : {false, true}) {
                SCOPED_TRACE(::testing::PrintToString(answer) + (resets ? " reset" : ""));
                serveAlone([&](Connection& connection) {
                    serveFirst(connection, message);
                    connection.send(answer);
                    resets ? connection.reset() : connection.closeSending();
                });
                expectPage(run(), 605, "", outputOf(message));
            }
        }
    }
}

TEST_F(GatewayFailure, NonsenseEndsInThePage) {
    std::vector<std::string> answers = {"HTTP/1.0 400 Bad Request\r\n\r\n", std::string(100000, '\0')};
    for (const std::uint32_t type : {0u, 1u, 0x04000000u})
        answers.push_back(wire::message(type, wire::counted("x")));
    for (const std::uint32_t length : {6u, 0x80000000u, 0xFFFFFFFFu})  // beyond what comes
        answers.push_back(wire::message(4).substr(0, 12) + wire::number(length) + "bytes");
    for (const std::string& answer : answers) {
        SCOPED_TRACE(::testing::PrintToString(answer.substr(0, 30)));
        serveAlone([&](Connection& connection) {
            connection.receiveRequest();
            connection.send(answer);
            connection.closeSending();
        });
        expectPage(run(), 605, "");
    }
}

TEST_F(GatewayFailure, StallEndsAtTheConfiguredTimeOut) {
    for (const bool inBody : {false, true}) {
        serveAlone(
            [&](Connection& connection) {
                serveFirst(connection, inBody ? 1 : 0);
                if (inBody) connection.send(kAnswer[1].substr(0, 18));
                connection.stall();
            },
            inBody ? "CLIENTIOTIMEOUT=3 seconds\n" : "CLIENTIOTIMEOUT=1\n");
        expectPage(run(), 605, "", outputOf(inBody ? 1 : 0));
    }
}

TEST_F(GatewayFailure, RequestThatIsNotTakenEndsInThePage) {
    const Script ways[] = {
        [](Connection& connection) { connection.stall(); },
        [](Connection& connection) { connection.close(); },
        [](Connection& connection) { connection.reset(); },
        // The way that makes a careless sender end by SIGPIPE.
        [](Connection& connection) { connection.closeSending(), connection.reset(); },
    };
    for (const Script& way : ways) {
        const Script script = [&](Connection& connection) { connection.receive(1000), way(connection); };
        ScriptedPeer& server = serve(script, 8192);  // most of the request has to wait
        configure(entry(server.port()), "CLIENTIOTIMEOUT=1\n");
        expectPage(run({}, std::string(10 << 20, 'b')), 604,
                   "The request was sent to the Velarto Server on IP 127.0.0.1 Port " +
                       std::to_string(server.port()));
    }
}

// The alarm must end a gateway that hangs, whatever the web server did with that signal.
TEST_F(GatewayFailure, AlarmEndsTheGatewayEvenWhereItWasIgnored) {
    std::promise<void> connected;
    serveAlone([&](Connection& connection) {
        connection.receiveRequest();
        connected.set_value();
        connection.stall();
    });
    Command command = this->command();
    command.ignoredSignals = {SIGALRM, SIGPIPE};
    Process gateway(command);
    EXPECT_EQ(connected.get_future().wait_for(20s), std::future_status::ready);
    gateway.kill(SIGALRM);
    const Outcome outcome = gateway.wait(20s);
    EXPECT_TRUE(outcome.endedByItself);
    EXPECT_EQ(outcome.signal, SIGALRM);
    EXPECT_EQ(outcome.out, "");
}

}  // namespace
