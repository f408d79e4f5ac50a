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

using GatewayRequest = GatewayTest;

TEST_F(GatewayRequest, EveryVariableTravelsUnderItsOwnName) {
    ScriptedPeer& server = serveAlone(kAnswer);
    writeFile(folder_ / "value of PATH_TRANSLATED", "");
    const timespec times[2] = {{0x5E0BE100, 0}, {0x5E0BE100, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder_ / "value of PATH_TRANSLATED").c_str(), times, 0), 0);
    wire::Request expected;
    expected.fileTime = 0x5E0BE100;
    expected.post = "x=y";
    std::vector<std::string> variables = {"HTTP_SOAPACTION=not read", "HTTP_PLUGIN=not read",
                                          "CONTENT_LENGTH=3", "PATH_TRANSLATED=../value of PATH_TRANSLATED"};
    for (const std::string& name : wire::kParameters) {
        expected[name] = "value of " + name;
        variables.push_back(std::string(name).append("=value of ").append(name));
    }
    expected["CONTENT_LENGTH"] = "3";
    expected["PATH_TRANSLATED"] = "../value of PATH_TRANSLATED";
    expected["REMOTE_PASSWD"] = expected["FULLHEADER"] = "";  // these do not travel
    expected["COMMANDLINE"] = "/srv/cgi/shop";
    expected["HTTP_COOKIE"] += "; VelartoClient=shop";

    expectSuccess(run(variables, "x=y"), kAnswerOutput);
    EXPECT_EQ(server.onlyVisit().received,
              wire::encode(expected) + wire::acknowledgement(6) + wire::acknowledgement(4));
}

TEST_F(GatewayRequest, BytesOfAnyKindTravelUnchanged) {
    std::string every(65536, 'q');
    for (std::size_t byte = 1; byte < 256; ++byte)
        every[byte] = static_cast<char>(byte);
    ScriptedPeer& server = serveAlone(kAnswer);
    run({"QUERY_STRING=" + every, "HTTP_COOKIE=" + every}, every);
    wire::Request request = server.onlyVisit().request;
    EXPECT_EQ(request.post, every);
    EXPECT_EQ(request["QUERY_STRING"], every);
    EXPECT_EQ(request["HTTP_COOKIE"], every + "; VelartoClient=shop");
}

// Far beyond every buffer on the way; a small one at the server keeps the gateway waiting.
TEST_F(GatewayRequest, LargeBodyArrivesWhole) {
    std::string body(10000000, '\0');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>(i * 7 + i / 251);
    ScriptedPeer& server = serve(answering(kAnswer), 8192);
    configure(entry(server.port()));
    expectSuccess(run({}, body), kAnswerOutput);
    EXPECT_TRUE(server.onlyVisit().request.post == body);
}

TEST_F(GatewayRequest, ContentLengthDecidesHowMuchIsRead) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""}, {"0", ""}, {"-0", ""}, {"abc", ""}, {"4", "abcd"}, {" +4x", "abcd"}, {"3", "abc"}};
    for (const auto& [length, body] : cases) {
        SCOPED_TRACE(length);
        ScriptedPeer& server = serveAlone(kAnswer);
        // What is too much stays unread.
        expectSuccess(run({"CONTENT_LENGTH="s + length}, "abcd"), kAnswerOutput);
        wire::Request request = server.onlyVisit().request;
        EXPECT_EQ(request.post, body);
        EXPECT_EQ(request["CONTENT_LENGTH"], length);
    }
}

TEST_F(GatewayRequest, BodyThatCannotBeReadFailsThePreparation) {
    ScriptedPeer& server = serveAlone(kAnswer);
    for (const char* length :
         {"7", "-6", "-4294967290", "4294967295", "4294967302", "99999999999999999999"}) {
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
        wire::Request request = server.onlyVisit().request;
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
        const std::string request = wire::encode(server.onlyVisit().request);
        EXPECT_EQ(server.onlyVisit().received, request + wire::acknowledgement(6) + wire::acknowledgement(4));
    }
}

}  // namespace
