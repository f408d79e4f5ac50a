#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "Rules.h"
#include "client/Velarto.h"
#include "common/Text.h"
#include "protocol/ServerList.h"

namespace {

constexpr int kUsageError = 2;
constexpr std::uint32_t kMostConnections = 1'000'000;

std::string faultOfServer(const std::string& text) {
    const ServerEntry entry(text.c_str());
    CText fault;
    return entry.describeFault(fault).IsEmpty()
               ? ""
               : "wants HOST,PORT or PATH: " + std::string(fault.GetTextEx());
}

std::string faultOfRule(const std::string& id) {
    const std::vector<Rule> rules = allRules();
    const bool known =
        std::any_of(rules.begin(), rules.end(), [&](const Rule& rule) { return id == rule.id; });
    return known ? "" : "there is no rule '" + id + "'; --list shows them";
}

std::string faultOfPath(const std::string& path) {
    return path.empty() || path[0] == '/' ? "" : "wants a path that begins with /, not " + path;
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app(
        "Plays the gateway against an application server, and tells which rules of the protocol hold.",
        "velarto-conform");
    app.set_version_flag("--version", std::string("velarto-conform (Velarto) ") + VeClientGetBuildVersion());
    app.get_formatter()->column_width(30);
    app.footer(
        "It prints TAP (version 13), which prove reads. A rule that cannot be seen at this server is "
        "skipped.\n"
        "Try it on a server without users: what is asked for is asked for thousands of times, and cut off "
        "anywhere.\n"
        "\nExit status: 0 when no rule is broken, 1 when one is, 2 for a wrong command line or a server that "
        "cannot\n"
        "be reached.");

    app.add_option("SERVER", options.server, "the server, as in clients.ini")
        ->type_name("HOST,PORT|PATH")
        ->check(faultOfServer);
    const auto addPath = [&app](const char* name, std::string& path, const char* purpose) {
        app.add_option(name, path, purpose)->type_name("PATH")->check(faultOfPath);
    };
    addPath("--path", options.path, "PATH_INFO of the usual request (default /)");
    app.add_option("--query", options.query, "QUERY_STRING of every request")->type_name("TEXT");
    addPath("--document", options.document,
            "PATH_INFO of a page that asks for a file (default /velarto-conform.zhtml)");
    addPath("--echo", options.echo, "PATH_INFO of a page that answers with the request's body");
    addPath("--login", options.login, "PATH_INFO of a page that gives a user reference");
    app.add_option("--connections", options.connections, "conversations in turn (default 1000)")
        ->type_name("N")
        ->check(CLI::Range(1U, kMostConnections).description(""));
    app.add_option("--timeout", options.timeout, "how long each wait for the server may take (default 5)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 300.0).description(""));
    app.add_option("--pause", options.pause, "how long a slow gateway pauses (default 1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 300.0).description(""));
    app.add_option("--only", options.only, "this rule alone; may be repeated")
        ->type_name("RULE")
        ->allow_extra_args(false)
        ->check(faultOfRule);
    app.add_flag("--list", options.list, "list the rules and end");
    app.add_flag("--json", options.json, "print JSON");

    try {
        app.parse(argc, argv);
        if (options.server.empty() && !options.list) throw CLI::RequiredError("HOST,PORT");
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // prints the help
        std::cerr << "velarto-conform: " << error.what() << "; --help tells how it is done\n";
        return kUsageError;
    }
    return std::nullopt;
}
