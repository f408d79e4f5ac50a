#include "Report.h"

#include <prometheus/text_serializer.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "client/Velarto.h"
#include "common/Text.h"
#include "config/ClientKeys.h"
#include "protocol/ConnectionSettings.h"
#include "protocol/ServerState.h"

namespace {

// For machines, or for people.
std::string utc(std::time_t time, const char* form = "%Y-%m-%dT%H:%M:%SZ") {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, form, &parts);
    return text;
}

// The servers of the section as it is now, whatever was counted for others.
std::vector<ServerReport> reportServers(const std::string& client, Stanza& section, Metrics& metrics) {
    const ConnectionSettings settings(section, client.c_str());
    ServerState state;
    if (settings.retryAfter != 0) state.open(settings.statePath.GetTextEx(), ServerState::kRead);
    const ServerList list(section);
    std::vector<ServerReport> servers;
    for (std::uint32_t i = 0; i < list.size(); ++i) {
        CText text;
        list.getEntry(i, text);
        ServerMetrics& server = metrics.server(text.GetTextEx());
        ServerReport report{server.entry,
                            Metrics::countOf(*server.attempts),
                            metrics.failedAttempts(server),
                            Metrics::countOf(*server.inFlight),
                            false,
                            0,
                            ""};
        ServerState::Absence absence{};
        if (state.getAbsence(ServerEntry(text.GetTextEx()), absence)) {
            report.isOut = true;
            report.outSeconds = static_cast<double>(absence.milliseconds) / 1e3;
            report.outFor =
                absence.reason == ServerState::kNoSuchHost ? "no such host" : std::strerror(absence.reason);
        }
        servers.push_back(report);
    }
    return servers;
}

prometheus::Family<prometheus::Gauge>& gauges(Metrics& metrics, const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(metrics.registry());
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string cell(const std::string& label, const std::string& text) {
    return "<td data-label=\"" + label + "\">" + escaped(text) + "</td>";
}

// Bytes that are no UTF-8 must not keep a report from being written.
std::string dumped(const nlohmann::json& json) {
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

constexpr char kForPeople[] = "%Y-%m-%d %H:%M:%S UTC";

constexpr char kPageHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="refresh" content="10">
<style>
:root { color-scheme: light dark; --line: #8884; --quiet: #767676; --bad: #b3261e; --good: #1b7a3d; }
@media (prefers-color-scheme: dark) { :root { --quiet: #a0a0a0; --bad: #ff8a80; --good: #6fd694; } }
body { font: 16px/1.45 system-ui, sans-serif; max-width: 60rem; margin: 0 auto; padding: 1rem; }
h1 { font-size: 1.4rem; margin: .2rem 0; }
h2 { font-size: 1.1rem; margin: 1.6rem 0 .4rem; }
p, dl { margin: .4rem 0; }
.quiet { color: var(--quiet); }
.bad { color: var(--bad); }
.good { color: var(--good); }
dl { display: grid; grid-template-columns: repeat(auto-fit, minmax(8rem, 1fr)); gap: .5rem; }
dl div { border: 1px solid var(--line); border-radius: .5rem; padding: .5rem .7rem; }
dt { font-size: .8rem; color: var(--quiet); }
dd { margin: 0; font-size: 1.3rem; font-variant-numeric: tabular-nums; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: .4rem .5rem; border-bottom: 1px solid var(--line); overflow-wrap: anywhere; }
th { font-size: .8rem; color: var(--quiet); font-weight: normal; }
@media (max-width: 40rem) {
  thead { display: none; }
  tr { display: block; border: 1px solid var(--line); border-radius: .5rem; margin: .5rem 0; padding: .2rem; }
  td { display: flex; justify-content: space-between; gap: 1rem; border: 0; padding: .15rem .5rem; }
  td::before { content: attr(data-label); color: var(--quiet); font-size: .8rem; flex: none; }
}
</style>
)";

}  // namespace

Report::Report(const std::string& client, std::time_t started, const Host& host,
               const CurrentConfiguration& configuration, Metrics& metrics)
    : client_(client),
      started_(started),
      threads_(host.threads()),
      busyThreads_(host.busyThreads()),
      connections_(host.connections()),
      configuration_(configuration.condition()),
      metrics_(metrics),
      servers_(reportServers(client, configuration.get()->section(), metrics)) {}

std::string Report::metrics() const {
    const auto set = [this](const char* name, const char* help, double value) {
        gauges(metrics_, name, help).Add({}).Set(value);
    };
    set("velarto_threads", "Threads that serve requests.", threads_);
    set("velarto_threads_busy", "Threads that are at work on a request.", busyThreads_);
    set("velarto_connections", "Open connections of the web server.", connections_);
    set("velarto_start_time_seconds", "When the host was started, since 1970.",
        static_cast<double>(started_));
    set("velarto_config_reloads", "States of clients.ini that were taken since the start.",
        configuration_.reloads);
    set("velarto_config_refusals", "States of clients.ini that were not.", configuration_.refusals);
    set("velarto_config_good", "1 when the file as it is now is in use.",
        configuration_.fault.empty() ? 1 : 0);
    set("velarto_config_load_time_seconds", "When the state in use was loaded, since 1970.",
        static_cast<double>(configuration_.loaded));
    auto& out =
        gauges(metrics_, "velarto_server_out_seconds", "How long a server has been left out; 0: it is not.");
    for (const ServerReport& server : servers_)
        out.Add({{"server", server.entry}}).Set(server.outSeconds);
    return prometheus::TextSerializer().Serialize(metrics_.registry().Collect());
}

std::string Report::json() const {
    nlohmann::json servers = nlohmann::json::array();
    for (const ServerReport& server : servers_) {
        nlohmann::json one = {{"entry", server.entry},
                              {"attempts", server.attempts},
                              {"failed_attempts", server.failures},
                              {"requests_in_flight", server.inFlight},
                              {"out", server.isOut}};
        if (server.isOut) {
            one["out_seconds"] = server.outSeconds;
            one["out_for"] = server.outFor;
        }
        servers.push_back(one);
    }
    nlohmann::json failures = nlohmann::json::array();
    for (const FailedRequest& failure : metrics_.failures()) {
        failures.push_back({{"time", utc(failure.time)},
                            {"request", failure.request},
                            {"method", failure.method},
                            {"path", failure.path},
                            {"server", failure.server},
                            {"code", failure.code},
                            {"status", failure.status},
                            {"seconds", failure.seconds}});
    }
    return dumped({{"client", client_},
                   {"version", VeClientGetBuildVersion()},
                   {"started", utc(started_)},
                   {"threads", threads_},
                   {"threads_busy", busyThreads_},
                   {"connections", connections_},
                   {"requests_answered", metrics_.answers()},
                   {"requests_failed", metrics_.pages()},
                   {"requests_in_flight", metrics_.requestsInFlight()},
                   {"configuration",
                    {{"loaded", utc(configuration_.loaded)},
                     {"reloads", configuration_.reloads},
                     {"refusals", configuration_.refusals},
                     {"fault", configuration_.fault}}},
                   {"servers", servers},
                   {"failures", failures}});
}

std::string Report::html() const {
    std::string page = kPageHead;
    page += "<title>" + escaped(client_) + " – velarto-fcgi</title>\n</head>\n<body>\n";
    page += "<h1>" + escaped(client_) + "</h1>\n<p class=\"quiet\">velarto-fcgi " +
            VeClientGetBuildVersion() + ", since " + utc(started_, kForPeople) + "</p>\n";
    page += configuration_.fault.empty()
                ? "<p class=\"good\">clients.ini in use since " + utc(configuration_.loaded, kForPeople) +
                      "</p>\n"
                : "<p class=\"bad\">clients.ini cannot be used: " + escaped(configuration_.fault) +
                      ". In use is the state of " + utc(configuration_.loaded, kForPeople) + ".</p>\n";
    page += "<dl>";
    const auto figure = [&page](const char* name, const std::string& value) {
        page += std::string("<div><dt>") + name + "</dt><dd>" + value + "</dd></div>";
    };
    figure("answered", std::to_string(metrics_.answers()));
    figure("failed", std::to_string(metrics_.pages()));
    figure("in flight", std::to_string(metrics_.requestsInFlight()));
    figure("threads busy", format("%u of %u", busyThreads_, threads_));
    page +=
        "</dl>\n<h2>Servers</h2>\n<table><thead><tr><th>server</th><th>state</th><th>in flight</th>"
        "<th>attempts</th><th>failed</th></tr></thead><tbody>\n";
    for (const ServerReport& server : servers_) {
        const std::string state =
            server.isOut
                ? "<td data-label=\"state\" class=\"bad\">" +
                      escaped(format("out for %.0f s: ", server.outSeconds) + server.outFor) + "</td>"
                : cell("state", "in");
        page += "<tr>" + cell("server", server.entry) + state +
                cell("in flight", std::to_string(server.inFlight)) +
                cell("attempts", std::to_string(server.attempts)) +
                cell("failed", std::to_string(server.failures)) + "</tr>\n";
    }
    page += "</tbody></table>\n<h2>Last failures</h2>\n";
    const std::vector<FailedRequest> failures = metrics_.failures();
    if (failures.empty()) return page + "<p class=\"quiet\">None since the start.</p>\n</body>\n</html>\n";
    page +=
        "<table><thead><tr><th>time</th><th>request</th><th>what</th><th>server</th><th>code</th><th>took</"
        "th>"
        "</tr></thead><tbody>\n";
    for (const FailedRequest& failure : failures) {
        page += "<tr>" + cell("time", utc(failure.time, kForPeople)) + cell("request", failure.request) +
                cell("what", failure.method + " " + failure.path) + cell("server", failure.server) +
                cell("code", format("%d, status %d", failure.code, failure.status)) +
                cell("took", format("%.1f ms", failure.seconds * 1e3)) + "</tr>\n";
    }
    return page + "</tbody></table>\n</body>\n</html>\n";
}
