// What velarto-fcgi is told on its command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "common/Endpoint.h"

struct Options {
    std::string program;             // as it was started
    std::string client;              // NAME
    std::optional<Endpoint> listen;  // none: what the host is given
    std::optional<Endpoint> status;
    unsigned threads = 64;
    std::chrono::seconds requestTimeout{300};
    std::uint32_t maxBody = 1u << 30;  // bytes
    bool logsAll = false;
    bool checks = false;
};

// Fills the options. An exit status when the program is to end at once: after the help, the version, a completion, or a
// wrong command line, which it has told.
std::optional<int> parseOptions(int argc, char** argv, Options& options);
