// GatewayTest: runs the real gateway program with an environment, a standard input and a configuration folder
// of the test's own, and checks after every run what must never happen.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/ScriptedPeer.h"
#include "support/TempDir.h"

namespace support {

// A well-behaved answer and what the gateway, parsed-header mode, makes of it.
inline const std::vector<std::string> kAnswer = {
    wire::header("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n"), wire::body("hello"), wire::end()};
inline const std::string kAnswerOutput = "Content-Type: text/plain\r\n\r\nhello";

// "127.0.0.1,port", a server entry without an identifier.
std::string entry(std::uint16_t port);

class GatewayTest : public ::testing::Test {
  protected:
    GatewayTest();
    void TearDown() override;  // no server's script broke off

    // ---- the configuration ----
    std::string clientsFile() const { return folder_ / "configuration/clients.ini"; }
    // Sections for "shop" and "nph-shop", alike: this server list and further lines, each with its line feed.
    void configure(const std::string& servers, const std::string& lines = "");

    // ---- servers ----
    ScriptedPeer& serve(Script script, int receiveBuffer = 0);
    ScriptedPeer& serve(std::vector<std::string> messages) { return serve(answering(std::move(messages))); }
    // The same, and the server becomes the only one in the configuration.
    ScriptedPeer& serveAlone(Script script, const std::string& lines = "");
    ScriptedPeer& serveAlone(std::vector<std::string> messages, const std::string& lines = "") {
        return serveAlone(answering(std::move(messages)), lines);
    }

    // ---- running ----
    // The program under this name (its first argument), with these CGI variables ("NAME=value"). A body is
    // given on standard input, with its CONTENT_LENGTH unless the variables hold one.
    Command command(std::vector<std::string> variables = {}, const std::string& body = "",
                    const std::string& name = "/srv/cgi/shop") const;
    Outcome runCommand(Command command);
    Outcome run(std::vector<std::string> variables = {}, const std::string& body = "",
                const std::string& name = "/srv/cgi/shop") {
        return runCommand(command(std::move(variables), body, name));
    }
    // The second half of a run: waits for the end and checks what every run owes.
    Outcome finish(Process& gateway);

    static void expectSuccess(const Outcome& outcome, const std::string& output);
    static void expectPage(const Outcome& outcome, int code, const std::string& detail,
                           const std::string& before = "");

    const TempDir folder_;

  private:
    std::vector<std::unique_ptr<ScriptedPeer>> peers_;
};

}  // namespace support
