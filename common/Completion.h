// Completion of command lines in a shell, told from the program's own parser of the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The words that an argument of a command may be, by the name that the help has for it and the arguments before it; none for
// any text.
using ArgumentWords = std::function<std::vector<std::string>(
    const CLI::App& command, const std::string& argument, const std::vector<std::string>& before)>;

// Answers "PROGRAM --complete WORD...", with which the scripts for the shells ask (completion.*.in): prints what the
// last word may become, each in a line. Options before it take their values as in any run.
// Returns the exit status: 0, or 1 when a file's name belongs there; nothing when the command line does not ask.
std::optional<int> complete(CLI::App& app, int argc, const char* const* argv,
                            const ArgumentWords& wordsFor = {});
