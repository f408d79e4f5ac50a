#include "Options.h"

#include <CLI/CLI.hpp>
#include <map>
#include <stdexcept>

#include "client/Velarto.h"
#include "common/Completion.h"
#include "common/EndpointOption.h"

namespace {

constexpr int kUsageError = 2;
constexpr unsigned kMostThreads =
    240;  // with four descriptors each they stay below the 1024 that libfcgi can take

constexpr const char* kFooter =
    "Without --listen it serves the socket that it is given: systemd's (LISTEN_FDS), or descriptor 0, as "
    "spawn-fcgi\n"
    "and lighttpd start it. The servers and all else stand in NAME's section of clients.ini, which it "
    "follows.\n"
    "\n"
    "Signals: SIGHUP reads clients.ini again; SIGTERM and SIGINT end it when the requests under way have "
    "ended, within\n"
    "30 seconds.\n"
    "\n"
    "Exit status: 0 after SIGTERM or SIGINT, 1 when it cannot start, 2 for a wrong command line, 78 when "
    "clients.ini\n"
    "cannot be used.";

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app("A FastCGI server between a web server and Velarto application servers.", "velarto-fcgi");
    app.set_version_flag("--version", std::string("velarto-fcgi (Velarto) ") + VeClientGetBuildVersion());
    app.get_formatter()->column_width(34);
    app.footer(kFooter);

    options.program = argc > 0 ? argv[0] : "velarto-fcgi";
    options.client = options.program.substr(options.program.rfind('/') + 1);
    app.add_option("NAME", options.client,
                   "the client, a section of clients.ini (default: the program's own name)");
    addEndpoint(app, "--listen", options.listen,
                "for the web server: unix:PATH, HOST:PORT or [ADDRESS]:PORT");
    addEndpoint(app, "--status", options.status,
                "for people and Prometheus: /, /metrics and /status.json over HTTP");
    app.add_option("--threads", options.threads, "requests at a time")
        ->type_name("N")
        ->check(CLI::Range(1u, kMostThreads))
        ->capture_default_str();
    unsigned seconds = static_cast<unsigned>(options.requestTimeout.count());
    app.add_option("--request-timeout", seconds, "the longest that a request may take")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 86400u))
        ->capture_default_str();
    app.add_option("--max-body", options.maxBody, "the largest request body; 413 beyond it")
        ->type_name("BYTES")
        ->transform(CLI::AsSizeValue(false))
        ->capture_default_str();
    std::string log = "failures";
    app.add_option("--log", log, "the requests that get a line on standard error")
        ->type_name("failures|all")
        ->check(CLI::IsMember({"failures", "all"}))
        ->capture_default_str();
    app.add_flag("--check", options.checks, "only tell whether the command line and clients.ini can be used");

    const auto wordsFor = [](const CLI::App&, const std::string& argument,
                             const std::vector<std::string>&) -> std::vector<std::string> {
        if (argument == "failures|all") return {"failures", "all"};
        return {};
    };
    if (const std::optional<int> asked = complete(app, argc, argv, wordsFor)) return asked;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    }
    options.requestTimeout = std::chrono::seconds(seconds);
    options.logsAll = log == "all";
    return {};
}
