// What the commands of velarto-config have in common. Each command is a file of its own, which names it to
// the command line and does its work.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

// Keys stand in the order in which they were put in: the one that reads best.
using Json = nlohmann::ordered_json;

enum ExitStatus { kFine = 0, kFindings = 1, kUnusable = 2 };

// Why a command cannot go on: the text of its one line on standard error. The exit status is then kUnusable.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the command line asked for.
struct Request {
    std::string file;              // --file; empty: where the gateway looks
    bool json = false;             // --json
    std::function<int()> command;  // does it; gives the exit status
};

// Each adds its command to the command line; the command keeps a reference to the request.
void addPath(CLI::App& app, Request& request);
void addCheck(CLI::App& app, Request& request);
void addList(CLI::App& app, Request& request);
void addShow(CLI::App& app, Request& request);
void addServers(CLI::App& app, Request& request);
void addTry(CLI::App& app, Request& request);
void addEdit(CLI::App& app, Request& request);  // set, unset, add, remove
void addExport(CLI::App& app, Request& request);

// Prints a JSON document; bytes that are no UTF-8 become replacement characters.
void print(const Json& document);

// Text from the configuration or from a server, fit for a terminal: control characters as \xNN.
std::string shown(const std::string& text);

bool beginsCharacter(char c);  // no further byte of a character in UTF-8

// How many columns of a terminal the text takes (UTF-8), and the text with blanks up to that many.
std::size_t widthOf(const std::string& text);
std::string padded(const std::string& text, std::size_t width);
