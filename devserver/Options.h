// Options: what the command line asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/Endpoint.h"

struct Options {
    Endpoint listen{"", "127.0.0.1", 18155};
    std::string sid;  // 4 characters that name this server in user references; may be empty
    std::uint32_t maxBody = 1024u * 1024 * 1024;  // bytes of a request body or a document
    std::uint32_t timeout = 300;                  // seconds that a client may stay silent
    std::uint32_t connections = 256;              // conversations at once
    std::uint32_t pieceSize = 32 * 1024;          // bytes of a piece of a response body
    bool misbehave = false;
    bool verbose = false;

    std::uint32_t timeoutMilliseconds() const { return timeout * 1000; }
};

// Reads the command line. Yields the exit status when the program is to end at once: 0 after --help, 2 after
// a mistake (told on standard error).
std::optional<int> parseOptions(int argc, char** argv, Options& options);
