// velarto-config list and show: the sections, and what holds for one client.
#include <iostream>
#include <memory>

#include "Command.h"
#include "Configuration.h"
#include "Keys.h"
#include "client/ConfigClnt.h"

namespace {

// ---- list ----

int list(const Request& request) {
    const Snapshot file = Snapshot::faultless(request);
    const Outline& outline = file.outline();
    const OutlineSection* directory = outline.find(kDirectoryStanza);
    Json clients = Json::array();
    for (const OutlineSection& section : outline.sections()) {
        if (!isClient(outline, section)) continue;
        const bool isListed = directory != nullptr && directory->find(section.name.text) != nullptr;
        const std::uint32_t servers = serversOf(section).size();
        clients.push_back({{"client", section.name.text},
                           {"line", section.name.place.line},
                           {"servers", servers},
                           {"listed", isListed}});
        if (request.json) continue;
        std::cout << padded(shown(section.name.text), 24) << ' ' << servers
                  << (servers == 1 ? " server, " : " servers, ") << lineOf(section.name)
                  << (isListed ? "" : ", not in the list of clients") << '\n';
    }
    if (request.json) print(clients);
    return kFine;
}

// ---- show ----

struct Setting {
    std::string key;
    std::string value;
    std::string origin;  // where it was set; "default"; or why nobody reads it
};

// What the gateway makes of a value.
std::string meaningOf(const OutlineSection& section, const ClientKey& key, const std::string& value) {
    Stanza stanza("");
    stanza.addValue(key.name, value.c_str());
    switch (key.kind) {
        case KeyKind::kServers:
            return serversOf(section).text().GetTextEx();
        case KeyKind::kTruth:
            return IsTrueValue(stanza, key) ? "yes" : "no";
        case KeyKind::kNumber: {
            if (&key != &key::CLIENTIOTIMEOUT) return NumberValue(stanza, key) != 0 ? value : key.byDefault;
            const std::uint32_t seconds = ReadWriteTimeoutOf(stanza) / 1000;
            return seconds != 0 ? std::to_string(seconds) : key.byDefault;
        }
        default:
            return value;
    }
}

Setting settingOf(const OutlineSection& section, const ClientKey& key) {
    const OutlineAttribute* own = section.find(key.name);
    if (own != nullptr && !own->value.text.empty()) {
        const std::string& text = own->value.text;
        const std::string meaning = meaningOf(section, key, text);
        return {key.name, meaning, lineOf(own->key) + (meaning != text ? ", '" + text + "'" : "")};
    }
    if (key.kind == KeyKind::kServers) {
        const std::string servers = serversOf(section).text().GetTextEx();
        return {key.name, servers, servers.empty() ? "missing" : "from VELARTO_HOST and VELARTO_PORT"};
    }
    return {key.name, key.byDefault, own == nullptr ? "default" : "empty on " + lineOf(own->key)};
}

std::vector<Setting> settingsOf(const OutlineSection& section) {
    std::vector<Setting> settings;
    for (const ClientKey* key : kClientKeys)
        settings.push_back(settingOf(section, *key));
    for (const OutlineAttribute& attribute : section.attributes) {
        if (findKey(attribute.key.text) == nullptr)
            settings.push_back(
                {attribute.key.text, attribute.value.text, lineOf(attribute.key) + ", nothing reads it"});
    }
    return settings;
}

int show(const Request& request, const std::string& client) {
    const Snapshot file = Snapshot::faultless(request);
    const OutlineSection& section = file.client(client);
    Json json = Json::array();
    for (const Setting& setting : settingsOf(section)) {
        json.push_back({{"key", setting.key}, {"value", setting.value}, {"origin", setting.origin}});
        if (request.json) continue;
        std::cout << padded(shown(setting.key), 22) << ' '
                  << (setting.value.empty() ? "-" : shown(setting.value)) << "  (" << shown(setting.origin)
                  << ")\n";
    }
    if (request.json) print({{"path", file.path()}, {"client", section.name.text}, {"settings", json}});
    return kFine;
}

}  // namespace

void addList(CLI::App& app, Request& request) {
    app.add_subcommand("list", "List the clients")->callback([&request] {
        request.command = [&request] { return list(request); };
    });
}

void addShow(CLI::App& app, Request& request) {
    CLI::App* command = app.add_subcommand("show", "Show what holds for a client, and where it was set");
    const auto client = std::make_shared<std::string>();
    command->add_option("CLIENT", *client, "the client")->required();
    command->callback(
        [&request, client] { request.command = [&request, client] { return show(request, *client); }; });
}
