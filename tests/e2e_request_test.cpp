// End to end: what the real gateway makes of its environment and standard input, as an application server
// sees it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>

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
};

TEST_F(GatewayRequest, ConversationIsByteExact) {
    ScriptedPeer& server = serveAlone(kAnswer);
    writeFile(folder_ / "page.zml", "");
    const timespec times[2] = {{0x5E0BE100, 0}, {0x5E0BE100, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder_ / "page.zml").c_str(), times, 0), 0);

    expectSuccess(run({"QUERY_STRING=a=1&b=2", "PATH_TRANSLATED=../page.zml", "REQUEST_METHOD=POST",
                       "HTTP_COOKIE=c=3", "SOAPACTION=\"urn:x\""},
                      "x=y"),
                  kAnswerOutput);
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
    for (const std::string& value : {"a\r\nb\tc\\n%00%n%s"s, every, std::string(65536, 'q')}) {
        SCOPED_TRACE(value.substr(0, 40));
        ScriptedPeer& server = serveAlone(kAnswer);
        run({"QUERY_STRING=" + value, "HTTP_COOKIE=" + value, "PATH_TRANSLATED=" + value}, value);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request.post, value);
        EXPECT_EQ(request.fileTime, 0u);
        EXPECT_EQ(request["QUERY_STRING"], value);
        EXPECT_EQ(request["PATH_TRANSLATED"], value);
        EXPECT_EQ(request["HTTP_COOKIE"], value + "; VelartoClient=shop");
    }
}

// Around the sizes at which the stream's buffer is full, and far beyond every buffer on the way.
TEST_F(GatewayRequest, BodiesOfAnySizeArriveWhole) {
    for (const std::size_t size : {1u, 4079u, 4080u, 4081u, 4096u, 70000u, 10000000u}) {
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
    const std::pair<const char*, const char*> cases[] = {
        {"", ""}, {"0", ""}, {"-0", ""}, {"abc", ""}, {"4", "abcd"}, {" +4x", "abcd"}, {"3", "abc"}};
    for (const auto& [length, body] : cases) {
        SCOPED_TRACE(length);
        ScriptedPeer& server = serveAlone(kAnswer);
        // What is too much stays unread.
        expectSuccess(run({"CONTENT_LENGTH="s + length}, "abcd"), kAnswerOutput);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request.post, body);
        EXPECT_EQ(request["CONTENT_LENGTH"], length);
    }
}

TEST_F(GatewayRequest, BodyThatCannotBeReadFailsThePreparation) {
    ScriptedPeer& server = serveAlone(kAnswer);
    for (const char* length :
         {"10", "7", "-1", "-6", "-4294967290", "4294967295", "4294967296", "4294967302",
          "-9223372036854775808", "9223372036854775807", "99999999999999999999", "-99999999999999999999"}) {
        SCOPED_TRACE(length);
        expectPage(run({"CONTENT_LENGTH="s + length}, "6bytes"), 603, "");
    }
    Command closed = command({}, "6bytes");
    closed.closed = {0};
    expectPage(runCommand(closed), 603, "");
    EXPECT_TRUE(server.visits().empty()) << "something was sent";
}

TEST_F(GatewayRequest, ProgramPathNamesTheClientAndTravelsWhole) {
    for (const std::string path : {"shop", "./shop", "/a b//nph-shop", "/x/SHOP"}) {
        SCOPED_TRACE(path);
        ScriptedPeer& server = serveAlone(kAnswer);
        EXPECT_EQ(run({}, "", path).exitStatus, 0);
        wire::Request request = onlyRequest(server);
        EXPECT_EQ(request["COMMANDLINE"], path);
        EXPECT_EQ(request["HTTP_COOKIE"], "VelartoClient=" + path.substr(path.rfind('/') + 1));
    }
}

// While it serves, the gateway holds the standard descriptors, the second of them leading nowhere, what stood
// there before, and its connection.
TEST_F(GatewayRequest, HoldsFiveDescriptors) {
    std::atomic<pid_t> gatewayPid{0};
    std::map<std::string, std::string> open;
    serveAlone([&](Connection& connection) {
        connection.receiveRequest();
        while (gatewayPid == 0)
            usleep(1000);
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(gatewayPid) + "/fd"))
            open[entry.path().filename()] = std::filesystem::read_symlink(entry.path());
        connection.serve(kAnswer);
    });
    Process gateway(command());
    gatewayPid = gateway.pid();
    expectSuccess(finish(gateway), kAnswerOutput);
    EXPECT_EQ(open.size(), 5u) << ::testing::PrintToString(open);
    EXPECT_EQ(open["2"], "/dev/null");
    EXPECT_EQ(open["3"].find("pipe:"), 0u);
    EXPECT_EQ(open["4"].find("socket:"), 0u);
}

// With a standard descriptor closed, a socket or a file may get its number: nothing may be mixed up then.
TEST_F(GatewayRequest, ClosedDescriptorsChangeNothingElse) {
    for (const std::set<int>& closed :
         std::vector<std::set<int>>{{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}}) {
        SCOPED_TRACE(::testing::PrintToString(closed));
        ScriptedPeer& server = serveAlone(kAnswer);
        Command command = this->command();
        command.closed = closed;
        expectSuccess(runCommand(command), closed.count(1) != 0 ? "" : kAnswerOutput);
        const std::string request = wire::encode(onlyRequest(server));
        EXPECT_EQ(server.visits()[0].received, request + wire::acknowledgement(6) + wire::acknowledgement(4));
    }
}

}  // namespace
