// velarto-config export: a client's application servers for a program that stands in front of them, HAProxy.
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "Command.h"
#include "Configuration.h"
#include "common/Text.h"
#include "config/ClientKeys.h"
#include "platform/AddressFamily.h"

namespace {

struct Options {
    std::string client;
    std::string bind = "127.0.0.1:18155";
};

struct Server {
    std::string name;     // of its own among those of the client
    std::string id;       // that user references carry; empty: none does
    std::string address;  // HOST:PORT, [ADDRESS]:PORT or unix@PATH
};

// Where gateways connect to.
struct Listener {
    std::string name;
    std::string id;  // its users; empty: the common one
    std::string host;
    std::uint64_t port = 0;
};

constexpr std::size_t kIdLength = 4;  // of those that user references carry
constexpr std::uint64_t kHighestPort = 65535;

// HAProxy takes these characters in a name, and none of them means anything to it in an address.
const std::string& checked(const std::string& text, const char* what) {
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    const bool isPath = text[0] == '/';
    if (text.empty() || text.find_first_not_of(allowed + (isPath ? "/" : "")) != std::string::npos)
        throw Failure("HAProxy takes only letters, digits, '_', '.' and '-' in " + std::string(what) +
                      ", not '" + shown(text) + "'");
    return text;
}

bool isAddress6(const std::string& host) {
    return AddressFamily(host.c_str()) == AF_INET6;
}

// The address as HAProxy takes it.
std::string addressFor(const ServerEntry& entry) {
    const std::string host = entry.host();
    if (AddressFamily(host.c_str()) == AF_UNIX) return "unix@" + checked(host, "a path");
    return (isAddress6(host) ? "[" + host + "]" : checked(host, "a host")) + ":" + entry.port();
}

std::vector<Server> serversIn(const OutlineSection& section) {
    const ServerList list = serversOf(section);
    if (list.size() == 0) throw Failure("client '" + shown(section.name.text) + "' has no server list");
    std::vector<Server> servers;
    for (std::uint32_t i = 0; i < list.size(); ++i) {
        const std::string text = textOf(list, i);
        const ServerEntry entry(text.c_str());
        const std::string fault = faultOf(entry);
        if (!fault.empty()) throw Failure("server '" + shown(text) + "' cannot be used: " + fault);
        const std::string id = std::string(entry.sid()).size() == kIdLength ? entry.sid() : "";
        std::string name = !id.empty()            ? checked(id, "an id")
                           : entry.isBeyondIPv4() ? "server"
                                                  : entry.host();
        const auto hasName = [&name](const Server& server) { return server.name == name; };
        if (std::any_of(servers.begin(), servers.end(), hasName)) name += format("-%u", i + 1);
        servers.push_back({name, id, addressFor(entry)});
    }
    return servers;
}

// The common one, and one for each id where there is a choice.
std::vector<Listener> listenersFor(const std::vector<Server>& servers, const Options& options) {
    const std::size_t colon = std::min(options.bind.rfind(':'), options.bind.size());
    const std::string host = options.bind.substr(0, colon);
    const std::string portText = options.bind.substr(std::min(colon + 1, options.bind.size()));
    if (ServerEntry((host + "," + portText).c_str()).fault() != EntryFault::kNone)
        throw Failure("--bind takes ADDRESS:PORT, not '" + shown(options.bind) + "'");
    std::uint64_t port = *parseNumber(portText);
    const bool isInBrackets = host.front() == '[';
    std::vector<Listener> listeners = {
        {options.client, "", isInBrackets ? host : checked(host, "an address"), port}};
    for (const Server& server : servers) {
        const bool isKnown = std::any_of(listeners.begin(), listeners.end(), [&](const Listener& listener) {
            return sameName(listener.id, server.id);  // which holds for a server without an id, too
        });
        if (servers.size() > 1 && !isKnown)
            listeners.push_back({options.client + "-" + server.id, server.id, host, ++port});
    }
    if (port > kHighestPort)
        throw Failure("--bind leaves too few ports up to " + std::to_string(kHighestPort));
    return listeners;
}

// HAProxy would serve itself.
void requireOthers(const std::vector<Server>& servers, const std::vector<Listener>& listeners) {
    for (const Server& server : servers) {
        for (const Listener& listener : listeners) {
            if (server.address == listener.host + ":" + std::to_string(listener.port))
                throw Failure("a server is at " + server.address +
                              ", where HAProxy would listen; give another --bind");
        }
    }
}

// What the gateways connect to, as their VELARTO_SERVER. The common one is the last, because that is where a
// request goes that forces a server which is not there.
std::string gatewaysListOf(const std::vector<Listener>& listeners) {
    std::string list;
    for (std::size_t i = 1; i <= listeners.size(); ++i) {
        const Listener& listener = listeners[i % listeners.size()];
        list += (i == 1 ? "" : ":") + (listener.id.empty() ? "" : listener.id + ",") + listener.host + "," +
                std::to_string(listener.port);
    }
    return list;
}

std::string hex(const std::string& text) {
    std::string digits;
    for (const char c : text)
        digits += format("%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
    return digits;
}

// Gateways bring a request of nobody's to any listener. The listener of an id knows such a request by what is not in it.
// It can tell only when it has the request whole, to the footer of the message, in its buffer; else the request stays.
std::string rulesAgainstStrangers(const std::string& common, const std::string& forcingArgument) {
    constexpr char kFooter[] = "END!";
    constexpr char kReference[] = "UserReference";  // in the cookie's name and the argument's
    constexpr unsigned kMost = 8000;                // bytes; the digits of more do not fit into a buffer
    std::string marks = hex(kReference);
    if (!forcingArgument.empty()) marks += " " + hex(forcingArgument);
    return "    # Nobody's is what ends in END! and neither has a UserReference nor forces a server.\n"
           "    tcp-request inspect-delay 5s\n"
           "    acl is_whole req.payload(0,0),hex -m end " +
           hex(kFooter) + "\n    acl is_for_somebody req.payload(0,0),hex -m sub " + marks +
           "\n    tcp-request content accept if is_whole or { req.len gt " + std::to_string(kMost) +
           " }\n    use_backend " + common + " if is_whole !is_for_somebody\n";
}

// A server is looked at where its own users come in; elsewhere it counts as up when it is up there.
std::string serverLine(const Server& server, const Listener& listener, const std::vector<Listener>& all) {
    const auto home = std::find_if(all.begin(), all.end(),
                                   [&](const Listener& other) { return sameName(other.id, server.id); });
    const std::string& where = home != all.end() ? home->name : all.front().name;
    const bool isBackup = !listener.id.empty() && !sameName(listener.id, server.id);
    return "    server " + server.name + " " + server.address +
           (where == listener.name ? " check" : " track " + where + "/" + server.name) +
           (isBackup ? " backup\n" : "\n");
}

std::string configurationOf(const std::vector<Server>& servers, const std::vector<Listener>& listeners,
                            const std::string& forcingArgument) {
    const std::string& common = listeners.front().name;
    std::string text = "# velarto-config export haproxy " + common +
                       "\n# The gateways' list: VELARTO_SERVER=" + gatewaysListOf(listeners) + "\n";
    for (const Listener& listener : listeners) {
        text += "\nlisten " + listener.name + "\n    bind " + listener.host + ":" +
                std::to_string(listener.port) + "\n";
        if (!listener.id.empty()) text += rulesAgainstStrangers(common, forcingArgument);
        for (const Server& server : servers)
            text += serverLine(server, listener, listeners);
    }
    return text;
}

int exportHaproxy(const Request& request, const Options& options) {
    const Snapshot snapshot = Snapshot::faultless(request);
    const OutlineSection& section = snapshot.client(checked(options.client, "a client's name"));
    const OutlineAttribute* forcing = section.find(key::FORCE_SERVER_ARG_NAME.name);
    const std::vector<Server> servers = serversIn(section);
    const std::vector<Listener> listeners = listenersFor(servers, options);
    requireOthers(servers, listeners);
    const std::string text =
        configurationOf(servers, listeners, forcing != nullptr ? forcing->value.text : "");
    if (request.json) {
        print({{"client", options.client},
               {"VELARTO_SERVER", gatewaysListOf(listeners)},
               {"configuration", text}});
    } else {
        std::cout << text;
    }
    return kFine;
}

}  // namespace

void addExport(CLI::App& app, Request& request) {
    const auto options = std::make_shared<Options>();
    CLI::App* group = app.add_subcommand("export", "Write a client's servers for another program");
    group->require_subcommand(1);
    CLI::App* command = group->add_subcommand("haproxy", "HAProxy between gateways and servers");
    command->add_option("CLIENT", options->client, "the client")->required();
    command
        ->add_option("--bind", options->bind,
                     "where HAProxy listens; each id of a server has one of the ports behind this one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    command->footer("The first lines tell which list the gateways need instead of the servers.");
    command->callback([&request, options] {
        request.command = [&request, options] { return exportHaproxy(request, *options); };
    });
}
