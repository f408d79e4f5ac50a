// ServerEntry: one entry of a client's server list, taken apart and judged as the gateway would.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct ServerEntry {
    std::string text;
    std::size_t offset = 0;  // of its first character in the list
    std::string sid;         // may be empty
    std::string host;        // host and port are empty when the entry cannot be taken apart
    std::string port;
    std::string fault;  // why no connection can come of it, for people; empty when nothing is wrong
};

// The entries of a server list in its order, an empty one between or after colons included; none for an empty
// list.
std::vector<ServerEntry> entriesOf(const std::string& list);
