// GatewayTest: runs the real gateway program with an environment, a standard input and a configuration folder
// of the test's own, and checks after every run what must never happen.
#pragma once

#include <deque>

#include "support/Process.h"
#include "support/ScriptedPeer.h"

namespace support {

// A well-behaved answer and what the gateway, parsed-header mode, makes of it.
inline const std::vector<std::string> kAnswer = {
    wire::header("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n"), wire::body("hello"), wire::end()};
inline const std::string kAnswerOutput = "Content-Type: text/plain\r\n\r\nhello";

// "127.0.0.1,port", a server entry without an identifier.
inline std::string entry(std::uint16_t port) {
    return "127.0.0.1," + std::to_string(port);
}

class GatewayTest : public ::testing::Test {
  protected:
    GatewayTest() {
        for (const char* name : {"configuration", "log", "work"})
            std::filesystem::create_directory(folder_ / name);
    }

    // ---- the configuration ----
    std::string clientsFile() const { return folder_ / "configuration/clients.ini"; }
    // Sections for "shop" and "nph-shop", alike: this server list and further lines, each with its line feed.
    virtual void configure(const std::string& servers, const std::string& lines = "") {
        const std::string section = "]\nVELARTO_SERVER=" + servers + "\n" + lines;
        writeFile(clientsFile(), "[Velarto Client Definitions]\nnph-shop=\nshop=\n\n[nph-shop" + section +
                                     "\n[shop" + section);
    }

    // ---- servers ----
    ScriptedPeer& serve(Script script) { return peers_.emplace_back(std::move(script)); }
    // The same, and the server becomes the only one in the configuration.
    ScriptedPeer& serveAlone(Script script, const std::string& lines = "") {
        ScriptedPeer& peer = serve(std::move(script));
        configure(entry(peer.port()), lines);
        return peer;
    }
    ScriptedPeer& serveAlone(std::vector<std::string> messages, const std::string& lines = "") {
        return serveAlone(answering(std::move(messages)), lines);
    }

    // ---- running ----
    // The program under this name (its first argument), with these CGI variables ("NAME=value"). A body is
    // given on standard input, with its CONTENT_LENGTH unless the variables hold one.
    Command command(std::vector<std::string> variables = {}, const std::string& body = "",
                    const std::string& name = "/srv/cgi/shop") const {
        // Of two variables of one name the first counts: the test's own.
        variables.push_back("VELARTO_PATH=" + folder_.path());
        if (!body.empty()) variables.push_back("CONTENT_LENGTH=" + std::to_string(body.size()));
        for (const char* sanitizer : {"ASAN", "UBSAN", "LSAN", "TSAN"})
            variables.push_back(sanitizer + ("_OPTIONS=log_path=" + folder_.path()) + "/log/san");
        return {VELARTO_CGI_PATH, {name}, std::move(variables), folder_ / "work", body};
    }
    Outcome run(std::vector<std::string> variables = {}, const std::string& body = "",
                const std::string& name = "/srv/cgi/shop") {
        Process gateway(command(std::move(variables), body, name));
        return finish(gateway);
    }
    // The second half of a run: waits for the end and checks what every run owes.
    Outcome finish(Process& gateway) {
        Outcome outcome = gateway.wait(std::chrono::seconds(20));
        for (ScriptedPeer& peer : peers_) {  // their scripts use what the test is about to leave
            const std::vector<Visit>& visits = peer.visits();
            if (outcome.exitStatus == 0 && !visits.empty()) {
                EXPECT_FALSE(visits.back().isReset);
            }
        }
        EXPECT_TRUE(outcome.endedByItself);
        EXPECT_EQ(outcome.signal, 0);
        EXPECT_EQ(outcome.err, "");
        for (const char* folder : {"configuration", "log", "work"}) {
            for (const auto& file : std::filesystem::directory_iterator(folder_ / folder)) {
                if (file.path() != clientsFile()) ADD_FAILURE() << file << ":\n" << readFile(file.path());
            }
        }
        return outcome;
    }

    static void expectSuccess(const Outcome& outcome, const std::string& output) {
        EXPECT_EQ(outcome.out, output);
        EXPECT_EQ(outcome.exitStatus, 0);
    }

    const TempDir folder_;

  private:
    std::deque<ScriptedPeer> peers_;
};

}  // namespace support
