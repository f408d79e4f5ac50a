// Probe: one connection to a server, made as the gateway makes it and given up at once; nothing is sent.
#pragma once

#include <cstdint>
#include <string>

#include "Milliseconds.h"

constexpr std::uint32_t kConnectLimit = 1000;  // milliseconds that the gateway gives a connection

struct Probe {
    Milliseconds time;
    std::string fault;  // why there is no connection; empty when there is one
};

// Ends within the limit, in milliseconds, the look-up of a name included.
Probe probe(const std::string& host, const std::string& port, std::uint32_t limit);

// The fault of a connection that did not stand in time.
std::string tooLate(std::uint32_t limit);
