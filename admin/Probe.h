// Probe: one connection to a server, made as the gateway makes it and given up at once; nothing is sent.
#pragma once

#include <cstdint>
#include <string>

#include "Milliseconds.h"

struct Probe {
    Milliseconds time;
    std::string fault;  // why there is no connection; empty when there is one
};

// Host and port, or a path and "", as ServerEntry has them. Ends within the limit, in milliseconds, the look-up of a name
// included. With all it tries each address of a name.
Probe probe(const std::string& host, const std::string& port, std::uint32_t limit, bool all);

// The fault of a connection that did not stand in time.
std::string tooLate(std::uint32_t limit);
