#include "support/Gateway.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace support {
namespace {

namespace fs = std::filesystem;
constexpr std::chrono::seconds kLimit{20};
const std::string kCheckServer = "  Check the application server process is running.";

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& file : fs::directory_iterator(folder))
        names.push_back(file.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The built-in error page, with the line that introduces it.
std::string errorPage(int code, const std::string& detail) {
    static const std::map<int, std::string> texts = {
        {601, "Unable to initialize the client's environment."},
        {602, "Unable to connect to the application server." + kCheckServer},
        {603, "Unable to prepare an application server request."},
        {604, "Unable to send a request to the application server." + kCheckServer},
        {605,
         "The client encountered problems in communicating with the application server. "
         "Please check velartoevents.log for further information."},
    };
    return "Content-type: text/html\r\n\r\n"
           "<html><head><title>Client Error</title></head><body><h3>Client/Plug-in Error</h3>Error Code: " +
           std::to_string(code) + "<br /><p>" + texts.at(code) + "</p><p>" + detail + "</p></body></html>";
}

}  // namespace

std::string entry(std::uint16_t port) {
    return "127.0.0.1," + std::to_string(port);
}

GatewayTest::GatewayTest() {
    // Open to everybody: some tests run the gateway as another user.
    for (const char* name : {"", "configuration", "log", "work"}) {
        fs::create_directories(folder_ / name);
        fs::permissions(folder_ / name, fs::perms::all);
    }
}

void GatewayTest::TearDown() {
    for (const auto& peer : peers_) {
        for (const auto& visit : peer->visits())
            EXPECT_EQ(visit.fault, "");
    }
}

void GatewayTest::configure(const std::string& servers, const std::string& lines) {
    std::string content = "[Velarto Client Definitions]\nnph-shop=\nshop=\n";
    for (const char* client : {"nph-shop", "shop"}) {
        content.append("\n[").append(client).append("]\nVELARTO_SERVER=").append(servers);
        content.append("\n").append(lines);
    }
    writeFile(clientsFile(), content);
}

ScriptedPeer& GatewayTest::serve(Script script, int receiveBuffer) {
    peers_.push_back(std::make_unique<ScriptedPeer>(std::move(script), receiveBuffer));
    return *peers_.back();
}

ScriptedPeer& GatewayTest::serveAlone(Script script, const std::string& lines) {
    ScriptedPeer& peer = serve(std::move(script));
    configure(entry(peer.port()), lines);
    return peer;
}

Command GatewayTest::command(std::vector<std::string> variables, const std::string& body,
                             const std::string& name) const {
    Command command;
    command.program = VELARTO_CGI_PATH;
    command.arguments = {name};
    command.directory = folder_ / "work";
    command.input = body;
    // Of two variables of one name the first counts: the test's own.
    command.environment = std::move(variables);
    command.environment.push_back("VELARTO_PATH=" + folder_.path());
    if (!body.empty()) command.environment.push_back("CONTENT_LENGTH=" + std::to_string(body.size()));
    for (const char* sanitizer : {"ASAN", "UBSAN", "LSAN", "TSAN"})
        command.environment.push_back(sanitizer + ("_OPTIONS=log_path=" + folder_.path()) + "/log/san");
    return command;
}

Outcome GatewayTest::runCommand(Command command) {
    const std::vector<std::string> before = namesIn(folder_ / "configuration");
    Process gateway(std::move(command));
    Outcome outcome = finish(gateway);
    EXPECT_EQ(namesIn(folder_ / "configuration"), before) << "a file was left or lost";
    return outcome;
}

Outcome GatewayTest::finish(Process& gateway) {
    Outcome outcome = gateway.wait(kLimit);
    for (const auto& peer : peers_)
        peer->visits();  // their scripts use what the test is about to leave
    EXPECT_TRUE(outcome.endedByItself) << "still running after " << kLimit.count() << " s";
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(namesIn(folder_ / "work"), std::vector<std::string>{});
    for (const std::string& report : namesIn(folder_ / "log")) {
        ADD_FAILURE() << readFile(folder_ / "log/" + report);
        fs::remove(folder_ / "log/" + report);
    }
    return outcome;
}

void GatewayTest::expectSuccess(const Outcome& outcome, const std::string& output) {
    EXPECT_EQ(outcome.out, output);
    EXPECT_EQ(outcome.exitStatus, 0);
}

void GatewayTest::expectPage(const Outcome& outcome, int code, const std::string& detail,
                             const std::string& before) {
    EXPECT_EQ(outcome.out, before + errorPage(code, detail));
    EXPECT_EQ(outcome.exitStatus, code & 0xFF);
}

}  // namespace support
