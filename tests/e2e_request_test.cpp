// End to end: what the real gateway makes of its environment and standard input, as an application server
// sees it.
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/Gateway.h"

namespace {

using namespace std::string_literals;
using namespace support;

class GatewayRequest : public GatewayTest {
  protected:
    // The only request that reached the server; an empty one, and a failure, when there was another number.
    static wire::Request onlyRequest(ScriptedPeer& server) {
        EXPECT_EQ(server.visits().size(), 1u);
        return server.visits().empty() ? wire::Request() : server.visits().front().request;
    }

    void setFileTime(const std::string& path, std::time_t seconds) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
};

TEST_F(GatewayRequest, ConversationIsByteExact) {
    ScriptedPeer& server = serveAlone(kAnswer);
    writeFile(folder_ / "page.zml", "");
    setFileTime(folder_ / "page.zml", 0x5E0BE100);

    const Outcome outcome = run({"QUERY_STRING=a=1&b=2", "PATH_TRANSLATED=../page.zml", "REQUEST_METHOD=POST",
                                 "HTTP_COOKIE=c=3", "SOAPACTION=\"urn:x\""},
                                "x=y");
    expectSuccess(outcome, kAnswerOutput);

    ASSERT_EQ(server.visits().size(), 1u);
    // clang-format off
    EXPECT_EQ(server.visits()[0].received,
              "QUIL\377\375\377\375\0\0\0\001"
              "\136\013\341\0"
              "\0\0\0\003x=y"
              "\0\0\0\014QUERY_STRING\0\0\0\007a=1&b=2"
              "\0\0\0\011PATH_INFO\0\0\0\0"
              "\0\0\0\017PATH_TRANSLATED\0\0\0\013../page.zml"
              "\0\0\0\016REQUEST_METHOD\0\0\0\004POST"
              "\0\0\0\013REMOTE_HOST\0\0\0\0"
              "\0\0\0\014REMOTE_IDENT\0\0\0\0"
              "\0\0\0\013REMOTE_USER\0\0\0\0"
              "\0\0\0\015REMOTE_PASSWD\0\0\0\0"
              "\0\0\0\013REMOTE_NAME\0\0\0\0"
              "\0\0\0\013REMOTE_PORT\0\0\0\0"
              "\0\0\0\013SERVER_NAME\0\0\0\0"
              "\0\0\0\013SERVER_PORT\0\0\0\0"
              "\0\0\0\013SCRIPT_NAME\0\0\0\0"
              "\0\0\0\014HTTP_REFERER\0\0\0\0"
              "\0\0\0\017HTTP_USER_AGENT\0\0\0\0"
              "\0\0\0\014CONTENT_TYPE\0\0\0\0"
              "\0\0\0\016CONTENT_LENGTH\0\0\0\0013"
              "\0\0\0\006PLUGIN\0\0\0\0"
              "\0\0\0\013REMOTE_ADDR\0\0\0\0"
              "\0\0\0\013HTTP_COOKIE\0\0\0\027c=3; VelartoClient=shop"
              "\0\0\0\013COMMANDLINE\0\0\0\015/srv/cgi/shop"
              "\0\0\0\011HTTP_FROM\0\0\0\0"
              "\0\0\0\013HTTP_ACCEPT\0\0\0\0"
              "\0\0\0\012SOAPACTION\0\0\0\007\"urn:x\""
              "\0\0\0\012FULLHEADER\0\0\0\0"
              "END!"
              "QUIL\377\375\377\375\0\0\0\006\0\0\0\001END!"
              "QUIL\377\375\377\375\0\0\0\004\0\0\0\001END!"s);
    // clang-format on
}

TEST_F(GatewayRequest, EveryVariableTravelsUnderItsOwnName) {
    ScriptedPeer& server = serveAlone(kAnswer);
    std::vector<std::string> variables = {"HTTP_SOAPACTION=not read", "HTTP_PLUGIN=not read"};
    for (const std::string& name : wire::kParameters)
        variables.push_back(std::string(name).append("=value of ").append(name));
    run(variables);

    const wire::Request request = onlyRequest(server);
    for (std::size_t i = 0; i < wire::kParameters.size(); ++i) {
        const std::string& name = wire::kParameters[i];
        std::string expected = "value of " + name;
        if (name == "REMOTE_PASSWD" || name == "FULLHEADER") expected = "";
        if (name == "COMMANDLINE") expected = "/srv/cgi/shop";
        if (name == "HTTP_COOKIE") expected += "; VelartoClient=shop";
        EXPECT_EQ(request.values[i], expected) << name;
    }
}

TEST_F(GatewayRequest, BytesOfAnyKindTravelUnchanged) {
    std::string every;
    for (int byte = 1; byte < 256; ++byte)
        every.push_back(static_cast<char>(byte));
    const std::string cases[] = {"'single' \"double\" `back`", "a\r\nb\tc\\n%00%n%s", every,
                                 std::string(65536, 'q')};
    for (const std::string& value : cases) {
        SCOPED_TRACE(value.substr(0, 40));
        ScriptedPeer& server = serveAlone(kAnswer);
        run({"QUERY_STRING=" + value, "HTTP_COOKIE=" + value, "HTTP_USER_AGENT=" + value,
             "PATH_INFO=" + value, "PATH_TRANSLATED=" + value},
            value);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request.post, value);
        EXPECT_EQ(request["QUERY_STRING"], value);
        EXPECT_EQ(request["HTTP_USER_AGENT"], value);
        EXPECT_EQ(request["PATH_INFO"], value);
        EXPECT_EQ(request["PATH_TRANSLATED"], value);
        EXPECT_EQ(request["HTTP_COOKIE"], value + "; VelartoClient=shop");
    }
}

// Around the sizes at which the stream's buffer is full, and far beyond every buffer on the way.
TEST_F(GatewayRequest, BodiesOfAnySizeArriveWhole) {
    for (const std::size_t size : {1u, 4079u, 4080u, 4081u, 4095u, 4096u, 4097u, 8192u, 70000u, 10000000u}) {
        SCOPED_TRACE(size);
        std::string body(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            body[i] = static_cast<char>(i * 7 + i / 251);
        // A small receive buffer keeps the gateway waiting for the server.
        ScriptedPeer& server = serve(answering(kAnswer), 8192);
        configure(entry(server.port()));
        expectSuccess(run({}, body), kAnswerOutput);
        const wire::Request request = onlyRequest(server);
        EXPECT_TRUE(request.post == body) << "got " << request.post.size() << " bytes";
    }
}

TEST_F(GatewayRequest, ContentLengthDecidesHowMuchIsRead) {
    const struct {
        const char* contentLength;  // null: not set
        const char* body;
        const char* parameter;
    } cases[] = {
        {nullptr, "", "0"},       {"", "", ""},       {"0", "", "0"},     {"-0", "", "-0"},
        {"abc", "", "abc"},       {"0x4", "", "0x4"}, {"4", "abcd", "4"}, {" +4x", "abcd", " +4x"},
        {"0004", "abcd", "0004"}, {"3", "abc", "3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.parameter);
        ScriptedPeer& server = serveAlone(kAnswer);
        std::vector<std::string> variables;
        if (c.contentLength != nullptr) variables = {"CONTENT_LENGTH="s + c.contentLength};
        Command command = this->command(variables);
        command.input = "abcd";  // what is too much stays unread
        expectSuccess(runCommand(command), kAnswerOutput);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request.post, c.body);
        EXPECT_EQ(request["CONTENT_LENGTH"], c.parameter);
    }
}

TEST_F(GatewayRequest, LengthsThatTheBodyDoesNotMeetFailThePreparation) {
    ScriptedPeer& server = serveAlone(kAnswer);
    for (const char* length :
         {"10", "7", "-1", "-6", "-4294967290", "4294967295", "4294967296", "4294967302",
          "-9223372036854775808", "9223372036854775807", "99999999999999999999", "-99999999999999999999"}) {
        SCOPED_TRACE(length);
        expectPage(run({"CONTENT_LENGTH="s + length}, "6bytes"), 603, "");
    }
    EXPECT_TRUE(server.visits().empty()) << "something was sent";
}

TEST_F(GatewayRequest, BodyThatCannotBeReadOrHeldFailsThePreparation) {
    ScriptedPeer& server = serveAlone(kAnswer);
    Command closed = command({}, "6bytes");
    closed.in = Stream::Closed;
    expectPage(runCommand(closed), 603, "");
    if (!kAddressSanitizer) {
        Command poor = command({"CONTENT_LENGTH=1000000000"}, "6bytes");
        poor.limits = {{RLIMIT_AS, 64 << 20}};
        expectPage(runCommand(poor), 603, "");
    }
    EXPECT_TRUE(server.visits().empty()) << "something was sent";
}

TEST_F(GatewayRequest, FileTimeIsThatOfPathTranslated) {
    writeFile(folder_ / "work/../page", "");
    setFileTime(folder_ / "page", 1234567890);
    std::filesystem::create_directory(folder_ / "docs");
    setFileTime(folder_ / "docs", 1);
    const struct {
        std::string path;
        std::uint32_t time;
    } cases[] = {{folder_ / "page", 1234567890}, {folder_ / "docs", 1}, {folder_ / "absent", 0}, {"", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ScriptedPeer& server = serveAlone(kAnswer);
        run({"PATH_TRANSLATED=" + c.path});
        EXPECT_EQ(onlyRequest(server).fileTime, c.time);
    }
}

TEST_F(GatewayRequest, ProgramPathNamesTheClientAndTravelsWhole) {
    const struct {
        const char* path;
        const char* client;
    } cases[] = {{"shop", "shop"}, {"./shop", "shop"}, {"/a b//nph-shop", "nph-shop"}, {"/x/SHOP", "SHOP"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ScriptedPeer& server = serveAlone(kAnswer);
        EXPECT_EQ(run({}, "", c.path).exitStatus, 0);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request["COMMANDLINE"], c.path);
        EXPECT_EQ(request["HTTP_COOKIE"], "VelartoClient="s + c.client);
    }
}

// With a standard descriptor closed, a socket or a file may get its number: nothing may be mixed up then.
TEST_F(GatewayRequest, ClosedDescriptorsChangeNothingElse) {
    for (int closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        ScriptedPeer& server = serveAlone(kAnswer);
        Command command = this->command();
        if ((closed & 1) != 0) command.in = Stream::Closed;
        if ((closed & 2) != 0) command.out = Stream::Closed;
        if ((closed & 4) != 0) command.err = Stream::Closed;
        expectSuccess(runCommand(command), (closed & 2) != 0 ? "" : kAnswerOutput);

        wire::Request request = onlyRequest(server);
        EXPECT_EQ(server.visits()[0].received,
                  wire::encode(request) + wire::acknowledgement(6) + wire::acknowledgement(4));
    }
}

}  // namespace
