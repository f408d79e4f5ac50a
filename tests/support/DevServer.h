// AppServer: an application server, running on a port of its own choice; DevServer: the development server.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/Process.h"

namespace support {

// A program with its arguments and an empty environment.
inline Command commandOf(std::vector<std::string> line) {
    Command command;
    command.program = line.front();
    command.arguments = std::move(line);
    return command;
}

class AppServer {
  public:
    AppServer(const std::string& program, std::vector<std::string> arguments,
              const std::string& listen = "127.0.0.1:0") {
        arguments.insert(arguments.begin(), program);
        arguments.push_back("--listen=" + listen);
        process_ = std::make_unique<Process>(commandOf(std::move(arguments)));
        EXPECT_TRUE(process_->waitForOut("\n", std::chrono::seconds(20))) << process_->err();
        const std::string out = process_->out();
        port_ = static_cast<std::uint16_t>(std::atoi(out.substr(out.rfind(':') + 1).c_str()));
    }

    std::uint16_t port() const { return port_; }         // 0 at a unix socket
    std::string out() const { return process_->out(); }  // so far

    // Ends it by SIGTERM, whatever is under way; all its complaints.
    std::string end() {
        process_->kill(SIGTERM);
        const Outcome outcome = process_->wait(std::chrono::seconds(20));
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        return outcome.err;
    }

  private:
    std::unique_ptr<Process> process_;
    std::uint16_t port_ = 0;
};

struct DevServer : AppServer {
    explicit DevServer(const std::vector<std::string>& options = {},
                       const std::string& listen = "127.0.0.1:0")
        : AppServer(VELARTO_DEVSERVER_PATH, options, listen) {}
};

}  // namespace support
