// velarto-config servers: the application servers of a client, and whether they answer.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>

#include "Absence.h"
#include "Command.h"
#include "Configuration.h"
#include "Probe.h"
#include "client/ConfigClnt.h"
#include "common/Text.h"
#include "protocol/ConnectionSettings.h"

namespace {

constexpr std::uint32_t kLongestLimit = 60 * 60 * 1000;  // milliseconds

struct Options {
    std::string client;
    bool probe = false;
    std::optional<std::uint32_t> timeout;  // milliseconds; none: the section's
};

struct Result {
    std::string text;  // of the entry
    ServerEntry entry;
    std::string fault;           // of the entry
    std::optional<Probe> probe;  // none was asked for, or is possible
    std::string absence;         // that the gateways know of; empty when there is none

    bool answers() const { return probe && probe->fault.empty(); }
};

// One line that is overwritten, for whoever watches.
void showProgress(const std::string& text) {
    static const bool isWatched = isatty(STDERR_FILENO) == 1;
    if (isWatched) std::cerr << "\r\x1B[K" << text << std::flush;
}

std::vector<Result> resultsOf(const OutlineSection& section, const Options& options) {
    std::vector<Result> results;
    const ServerList servers = serversOf(section);
    Stanza stanza = stanzaOf(section);
    const ConnectionSettings settings(stanza, section.name.text.c_str());
    const Absences absences(settings);
    for (std::uint32_t i = 0; i < servers.size(); ++i) {
        const std::string text = textOf(servers, i);
        const ServerEntry entry(text.c_str());
        Result result{text, entry, faultOf(entry), std::nullopt, absences.of(entry)};
        if (options.probe && result.fault.empty()) {
            showProgress(format("probing %u of %u: ", i + 1, servers.size()) + shown(text));
            result.probe =
                probe(entry.host(), entry.port(), options.timeout.value_or(settings.connectTimeout),
                      settings.triesAllAddresses);
        }
        results.push_back(std::move(result));
    }
    showProgress("");
    return results;
}

std::string verdict(const Result& result) {
    if (!result.fault.empty()) return "cannot be used: " + shown(result.fault);
    if (!result.probe) return result.absence;
    const std::string time = textOf(result.probe->time);
    const std::string answer =
        result.answers() ? "answers after " + time : "fails after " + time + ": " + result.probe->fault;
    return answer + (result.absence.empty() ? "" : "; " + result.absence);
}

void printTable(const std::vector<Result>& results) {
    std::size_t sidWidth = 1;
    std::size_t endpointWidth = 1;
    const auto sidOf = [](const Result& result) { return shown(result.entry.sid()); };
    const auto endpointOf = [](const Result& result) {
        const std::string host = result.entry.host();
        const std::string port = result.entry.port();
        return shown(host.empty() ? result.text : host + (port.empty() ? "" : " " + port));
    };
    for (const Result& result : results) {
        sidWidth = std::max(sidWidth, widthOf(sidOf(result)));
        endpointWidth = std::max(endpointWidth, widthOf(endpointOf(result)));
    }
    for (const Result& result : results) {
        const std::string sid = sidOf(result).empty() ? "-" : sidOf(result);
        const std::string line =
            padded(sid, sidWidth) + "  " + padded(endpointOf(result), endpointWidth) + "  " + verdict(result);
        std::cout << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
    }
}

Json jsonOf(const Result& result) {
    const ServerEntry& entry = result.entry;
    Json json{{"entry", result.text}, {"sid", entry.sid()}, {"host", entry.host()}, {"port", entry.port()}};
    json["usable"] = result.fault.empty();
    if (!result.absence.empty()) json["absence"] = result.absence;
    if (!result.fault.empty()) json["fault"] = result.fault;
    if (!result.probe) return json;
    json["answers"] = result.answers();
    json["milliseconds"] = result.probe->time.count();
    if (!result.answers()) json["fault"] = result.probe->fault;
    return json;
}

int listServers(const Request& request, const Options& options) {
    const std::vector<Result> results =
        resultsOf(Snapshot::faultless(request).client(options.client), options);
    const auto fine = std::count_if(results.begin(), results.end(), [&](const Result& result) {
        return options.probe ? result.answers() : result.fault.empty();
    });
    const std::size_t n = results.size();
    if (request.json) {
        Json servers = Json::array();
        for (const Result& result : results)
            servers.push_back(jsonOf(result));
        Json document{{"client", options.client}, {"servers", servers}};
        document[options.probe ? "answering" : "usable"] = fine;
        print(document);
    } else {
        printTable(results);
        if (n == 0) {
            std::cout << "the client has no server list\n";
        } else if (options.probe) {
            std::cout << fine << " of " << n << (n == 1 ? " server answers\n" : " servers answer\n");
        }
    }
    return n != 0 && static_cast<std::size_t>(fine) == n ? kFine : kFindings;
}

}  // namespace

void addServers(CLI::App& app, Request& request) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("servers", "List a client's application servers, and try them");
    command->add_option("CLIENT", options->client, "the client")->required();
    command->add_flag("--probe", options->probe, "connect to each, one after the other; nothing is sent");
    command
        ->add_option("--timeout", options->timeout,
                     "how long a server has to answer (default: CONNECTTIMEOUT, else 1000)")
        ->type_name("MS")
        ->check(CLI::Range(std::uint32_t{1}, kLongestLimit).description(""))
        ->needs("--probe");
    command->footer(
        "Exit status 1: there is no server, an entry cannot be used, or a server does not answer.");
    command->callback([&request, options] {
        request.command = [&request, options] { return listServers(request, *options); };
    });
}
