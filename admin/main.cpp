// velarto-config: the administrator's program; tells what the gateway makes of its configuration, and changes
// it.
#include <csignal>
#include <iostream>

#include "Command.h"
#include "Configuration.h"
#include "Keys.h"
#include "client/Velarto.h"
#include "common/Completion.h"
#include "common/Text.h"
#include "config/ClientKeys.h"

namespace {

int runCommand(const Request& request) {
    try {
        const int status = request.command();
        if (!std::cout.flush()) throw Failure("the output cannot be written");
        return status;
    } catch (const std::exception& error) {
        std::cerr << "velarto-config: " << error.what() << '\n';
        return kUnusable;
    }
}

// What a shell may offer for an argument.
std::vector<std::string> wordsFor(const Request& request, const std::string& command,
                                  const std::string& argument, const std::vector<std::string>& before) {
    std::vector<std::string> words;
    if (argument == "KEY") {
        for (const ClientKey* key : kClientKeys)
            words.emplace_back(key->name);
    } else if (argument == "VALUE") {
        const ClientKey* key = findKey(before.back());
        if (key != nullptr && key->kind == KeyKind::kTruth) return {"no", "yes"};
        if (key != nullptr && key->kind == KeyKind::kWord) words = split(key->words, '|');
    } else if (argument == "CLIENT" && command != "add") {
        try {
            words = clientsIn(Snapshot(locate(request)).outline());
        } catch (const Failure&) {  // no file, no clients
        }
    }
    return words;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // a reader who has gone is an error like a full disk
    Request request;
    CLI::App app("Checks, shows and changes the gateway's configuration, and tries the servers in it.",
                 "velarto-config");
    app.set_version_flag("--version", std::string("velarto-config (Velarto) ") + VeClientGetBuildVersion());
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--file", request.file,
                   "the configuration file; by default the one that the gateway reads")
        ->type_name("PATH")
        ->check([](const std::string& path) { return std::string(path.empty() ? "names no file" : ""); });
    app.add_flag("--json", request.json, "print JSON");
    app.footer(
        "Exit status: 0 when all is well, 1 when something was found wrong, 2 for a wrong command line or a "
        "file\n"
        "that cannot be used.");
    for (const auto add : {addPath, addCheck, addList, addShow, addServers, addTry, addEdit, addExport})
        add(app, request);
    const auto words = [&request](const CLI::App& command, const std::string& argument,
                                  const std::vector<std::string>& before) {
        return wordsFor(request, command.get_name(), argument, before);
    };
    if (const auto status = complete(app, argc, argv, words)) return *status;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) {
            const std::vector<std::string> unknown = app.remaining();
            const bool isWrongCommand = app.get_subcommands().empty() && !unknown.empty();
            const std::string reason = isWrongCommand ? "no command '" + unknown.front() + "'" : error.what();
            std::cerr << "velarto-config: " << shown(reason) << "; --help tells how it is done\n";
            return kUnusable;
        }
        app.exit(error);  // prints the help
        return std::cout.flush() ? kFine : kUnusable;
    }
    return runCommand(request);
}
