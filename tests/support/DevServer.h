// DevServer: the development application server, running on a port of its own choice.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/Process.h"

namespace support {

class DevServer {
  public:
    explicit DevServer(const std::vector<std::string>& options = {})
        : process_(command("127.0.0.1:0", options)) {
        EXPECT_TRUE(process_.waitForOut("\n", std::chrono::seconds(20))) << process_.err();
        const std::string out = process_.out();
        port_ = static_cast<std::uint16_t>(std::atoi(out.substr(out.rfind(':') + 1).c_str()));
    }

    static Command command(const std::string& listen, const std::vector<std::string>& options) {
        Command command;
        command.program = VELARTO_DEVSERVER_PATH;
        command.arguments = {command.program, "--listen", listen};
        command.arguments.insert(command.arguments.end(), options.begin(), options.end());
        command.environment = currentEnvironment();
        return command;
    }

    Process& process() { return process_; }
    std::uint16_t port() const { return port_; }

  private:
    Process process_;
    std::uint16_t port_ = 0;
};

}  // namespace support
