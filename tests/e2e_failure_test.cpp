// End to end: application servers that misbehave. Whatever they do, the real gateway ends by itself, with the
// page of the step that failed.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "support/Gateway.h"

namespace {

namespace fs = std::filesystem;
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

enum class End { Close, Reset };

class GatewayServerDeath : public GatewayFailure, public ::testing::WithParamInterface<End> {};

TEST_P(GatewayServerDeath, AtEveryByteOffsetOfItsAnswer) {
    const std::size_t whole = kAnswer[0].size() + kAnswer[1].size() + kAnswer[2].size();
    for (std::size_t offset = 0; offset < whole; ++offset) {
        SCOPED_TRACE(offset);
        std::size_t messages = 0;
        std::size_t rest = offset;
        for (; rest >= kAnswer[messages].size(); ++messages)
            rest -= kAnswer[messages].size();
        serveAlone([&](Connection& connection) {
            serveFirst(connection, messages);
            connection.send(kAnswer[messages].substr(0, rest));
            GetParam() == End::Close ? connection.close() : connection.reset();
        });
        expectPage(run(), 605, "", outputOf(messages));
    }
}

INSTANTIATE_TEST_SUITE_P(Ends, GatewayServerDeath, ::testing::Values(End::Close, End::Reset),
                         [](const auto& tested) { return tested.param == End::Close ? "Close" : "Reset"; });

TEST_F(GatewayFailure, WrongBytesInAnyMessageEndInThePage) {
    for (std::size_t message = 0; message < kAnswer.size(); ++message) {
        const std::string& right = kAnswer[message];
        // Every byte of the frame: mark, version, type; footer.
        for (std::size_t at = 0; at < right.size(); at += at == 11 ? right.size() - 15 : 1) {
            SCOPED_TRACE(std::to_string(message) + " " + std::to_string(at));
            std::string wrong = right;
            wrong[at] = static_cast<char>(wrong[at] ^ 0x20);
            serveAlone([&](Connection& connection) {
                serveFirst(connection, message);
                connection.send(wrong);
            });
            expectPage(run(), 605, "", outputOf(message));
        }
    }
}

TEST_F(GatewayFailure, MessageTypesWithoutMeaningEndInThePage) {
    for (const std::uint32_t type : {0u, 1u, 3u, 5u, 8u, 0x04000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        serveAlone([&](Connection& connection) {
            serveFirst(connection, 1);
            connection.send(wire::message(type, wire::counted("x")));
        });
        expectPage(run(), 605, "", outputOf(1));
    }
}

TEST_F(GatewayFailure, AnswerOfAnotherProtocolEndsInThePage) {
    for (const std::string& answer :
         {"HTTP/1.0 400 Bad Request\r\n\r\n"s, std::string(100000, '\0'), "QUIL"s}) {
        serveAlone([&](Connection& connection) {
            connection.receiveRequest();
            connection.send(answer);
            connection.close();
        });
        expectPage(run(), 605, "");
    }
}

// ---- a server that is slow or does not take the request ---------------------------------------------------

TEST_F(GatewayFailure, StallEndsAtTheConfiguredTimeOut) {
    const struct {
        std::size_t messages;
        std::string begun;
        const char* timeOut;  // the server has to be faster than this before it stalls
    } cases[] = {{0, "", "1"}, {1, kAnswer[1].substr(0, 18), "3 seconds"}};
    for (const auto& c : cases) {
        serveAlone(
            [&](Connection& connection) {
                serveFirst(connection, c.messages);
                connection.send(c.begun);
                connection.stall();
            },
            "CLIENTIOTIMEOUT="s + c.timeOut + "\n");
        expectPage(run(), 605, "", outputOf(c.messages));
    }
}

class GatewaySending : public GatewayFailure, public ::testing::WithParamInterface<const char*> {};

TEST_P(GatewaySending, RequestThatIsNotTakenEndsInThePage) {
    const std::string how = GetParam();
    // A small receive buffer: most of the request has to wait for this server.
    ScriptedPeer& server = serve(
        [&](Connection& connection) {
            connection.receive(1000);
            if (how == "Stall") connection.stall();
            if (how == "Close") connection.close();
            if (how == "Reset") connection.reset();
            if (how == "ResetAfterEnd") {  // the way that makes a careless sender end by SIGPIPE
                connection.closeSending();
                connection.reset();
            }
        },
        8192);
    configure(entry(server.port()), "CLIENTIOTIMEOUT=1\n");
    expectPage(
        run({}, std::string(std::size_t{10} << 20, 'b')), 604,
        "The request was sent to the Velarto Server on IP 127.0.0.1 Port " + std::to_string(server.port()));
}

INSTANTIATE_TEST_SUITE_P(Ways, GatewaySending, ::testing::Values("Stall", "Close", "Reset", "ResetAfterEnd"),
                         [](const auto& tested) { return tested.param; });

TEST_F(GatewayFailure, ServerThatClosesAtOnceEndsInThePageOfTheStepThatSawIt) {
    for (int i = 0; i < 10; ++i) {
        serveAlone([](Connection& connection) { connection.reset(); });
        const int status = run().exitStatus;
        EXPECT_TRUE(status == (602 & 0xFF) || status == (604 & 0xFF) || status == (605 & 0xFF)) << status;
    }
}

TEST_F(GatewayFailure, NobodyListening) {
    const DeadPort nobody;
    configure(entry(nobody.port()));
    expectPage(run(), 602, "Tried connecting to Velarto Server for client shop on " + entry(nobody.port()));
}

// ---- lengths that lie -------------------------------------------------------------------------------------

TEST_F(GatewayFailure, LengthsBeyondWhatComesEndInThePage) {
    for (const std::uint32_t type : {2u, 4u, 6u}) {
        for (const std::uint32_t length : {6u, 5000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
            SCOPED_TRACE(std::to_string(type) + " " + std::to_string(length));
            serveAlone([&](Connection& connection) {
                connection.receiveRequest();
                connection.send("QUIL\xFF\xFD\xFF\xFD" + wire::number(type) + wire::number(length) + "bytes");
                connection.close();
            });
            expectPage(run(), 605, "");
        }
    }
}

// While the bytes of such a text still come, only memory for those is claimed.
TEST_F(GatewayFailure, MemoryIsClaimedForBytesNotForLengths) {
    std::promise<void> sent;
    std::promise<void> seen;
    serveAlone([&](Connection& connection) {
        connection.receiveRequest();
        connection.send("QUIL\xFF\xFD\xFF\xFD" + wire::number(4) + wire::number(0xF0000000));
        // More than fits into the buffers on the way, so most of it has been read when this returns.
        connection.send(std::string(48 << 20, 'x'));
        sent.set_value();
        seen.get_future().wait_for(20s);
        connection.close();
    });
    Process gateway(command());
    EXPECT_EQ(sent.get_future().wait_for(20s), std::future_status::ready);
    // The address sanitizer reserves terabytes at the start.
    const std::string wanted = kAddressSanitizer ? "VmHWM:" : "VmPeak:";
    std::ifstream status("/proc/" + std::to_string(gateway.pid()) + "/status");
    std::string word;
    long kilobytes = 0;
    while (status >> word) {
        if (word == wanted) status >> kilobytes;
    }
    seen.set_value();
    expectPage(finish(gateway), 605, "");
    EXPECT_GT(kilobytes, 0);
    EXPECT_LT(kilobytes, 512 * 1024);
}

TEST_F(GatewayFailure, MemoryThatRunsOutEndsInThePage) {
    if (kAddressSanitizer) GTEST_SKIP() << "the address sanitizer needs all of the address space";
    for (const std::uint32_t type : {2u, 4u, 6u}) {
        SCOPED_TRACE(type);
        serveAlone([&](Connection& connection) {
            connection.receiveRequest();
            try {
                connection.send(wire::message(type, wire::counted(std::string(60 << 20, 'x'))));
            } catch (const std::exception&) {
                // The gateway gave up before everything was sent.
            }
            connection.close();
        });
        Command command = this->command();
        command.limits = {{RLIMIT_AS, 48 << 20}};
        expectPage(runCommand(command), 605, "");
    }
}

// A file to be served that does not fit into memory is refused; the response goes on.
TEST_F(GatewayFailure, FileTooLargeForMemoryIsRefused) {
    if (kAddressSanitizer) GTEST_SKIP() << "the address sanitizer needs all of the address space";
    const std::string large = folder_ / "large";
    writeFile(large, "");
    for (const std::uintmax_t size : {std::uintmax_t{200} << 20, (std::uintmax_t{4} << 30) + 10}) {
        fs::resize_file(large, size);  // a hole: takes no disk
        serveAlone([&](Connection& connection) {
            connection.receiveRequest();
            connection.send(wire::fileRequest(large));
            connection.expect(wire::fileRefused());
            connection.serve(kAnswer);
        });
        Command command = this->command();
        command.limits = {{RLIMIT_AS, 48 << 20}};
        expectSuccess(runCommand(command), kAnswerOutput);
    }
}

// ---- the alarm --------------------------------------------------------------------------------------------

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
    std::error_code closed;
    const auto standardError = fs::read_symlink("/proc/" + std::to_string(gateway.pid()) + "/fd/2", closed);
    EXPECT_TRUE(closed || standardError == "/dev/null") << standardError;
    gateway.kill(SIGALRM);
    const Outcome outcome = gateway.wait(20s);
    EXPECT_TRUE(outcome.endedByItself);
    EXPECT_EQ(outcome.signal, SIGALRM);
    EXPECT_EQ(outcome.out, "");
}

}  // namespace
