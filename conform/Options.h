// Options: what the command line asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "Connection.h"

struct Options {
    std::string server;  // HOST,PORT
    std::string path = "/";
    std::string query;
    std::string document = "/velarto-conform.zhtml";  // a page that asks for a file
    std::string echo;                                 // a page that answers with the body; may be empty
    std::string login;                                // a page that gives a user reference; empty: path
    std::uint32_t connections = 1000;                 // in turn
    double timeout = 5;                               // seconds
    double pause = 1;                                 // seconds
    std::set<std::string> only;                       // rules; empty: all
    bool list = false;
    bool json = false;
};

// Reads the command line. Yields the exit status when the program is to end at once: 0 after --help, 2 after
// a mistake (told on standard error).
std::optional<int> parseOptions(int argc, char** argv, Options& options);
