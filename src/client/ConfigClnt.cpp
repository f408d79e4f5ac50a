#include "client/ConfigClnt.h"

#include <cctype>
#include <cstring>
#include <memory>

namespace {

constexpr char kServerKey[] = "VELARTO_SERVER";
constexpr char kDefaultServer[] = "127.0.0.1,18155";

Stanza* addClientStanza(ConfigFile& file, const CText& clientName) {
    auto stanza = std::make_unique<Stanza>(clientName.GetTextEx());
    stanza->addValue(kServerKey, kDefaultServer);
    Stanza* added = stanza.get();
    file.addStanza(stanza.release(), true);
    return added;
}

// The older form: one host and a value list of ports. Empty when either is missing.
CText& serverListFromHostAndPorts(Stanza& stanza, CText& list) {
    list.Clear();
    CText host;
    Attribute ports;
    stanza.getValue("VELARTO_HOST", host);
    stanza.getAttribute("VELARTO_PORT", ports);
    if (host.IsEmpty()) return list;
    for (std::uint32_t i = 0; i < ports.getValueListElementCount(); ++i) {
        CText port;
        ports.getValueListElement(i, port);
        if (i > 0) list += ':';
        list += host;
        list += ',';
        list += port;
    }
    return list;
}

// Whether the piece up to end is a host, a colon and a decimal port.
bool isHostColonPort(const char* piece, const char* end) {
    const auto* colon =
        static_cast<const char*>(std::memchr(piece, ':', static_cast<std::size_t>(end - piece)));
    if (colon == nullptr || colon == piece || colon + 1 == end) return false;
    for (const char* p = colon + 1; p < end; ++p) {
        if (std::isdigit(static_cast<unsigned char>(*p)) == 0) return false;
    }
    return true;
}

// A list written host:port,host:port is understood for this run: ":" and "," change places, in memory only.
void acceptColonInsideEntries(Stanza& stanza, CText& list) {
    for (const char* piece = list.GetTextEx();; ++piece) {
        const char* end = piece + std::strcspn(piece, ",");
        if (!isHostColonPort(piece, end)) return;
        piece = end;
        if (*piece == 0) break;
    }
    for (std::uint32_t i = 0; i < list.Length(); ++i) {
        unsigned char& c = list.GetBuffer()[i];
        if (c == ':') {
            c = ',';
        } else if (c == ',') {
            c = ':';
        }
    }
    stanza.changeValue(kServerKey, list.GetTextEx());
}

}  // namespace

ClientConfigResult ProcessClientConfig(ConfigFile* file, const CText& clientName, Stanza*& stanza) {
    if (file == nullptr) return CLIENT_CONFIG_NO_FILE;
    if (!file->parseStanza(clientName)) {
        // Another process may have mended the file meanwhile: the write reads it again.
        file->createDirectoryStanza();
        if (!file->writeFile(true)) return CLIENT_CONFIG_NO_FILE;
    }

    bool changed = false;
    stanza = file->getStanza(clientName);
    if (stanza == nullptr) {
        // A new client is entered into the directory too.
        if (!file->parseConfigFile()) return CLIENT_CONFIG_NO_FILE;
        stanza = file->getStanza(clientName);
    }
    if (stanza == nullptr) {
        stanza = addClientStanza(*file, clientName);
        changed = true;
    }

    CText servers;
    stanza->getValue(kServerKey, servers);
    if (servers.IsEmpty() && !serverListFromHostAndPorts(*stanza, servers).IsEmpty()) {
        stanza->changeValue(kServerKey, servers.GetTextEx());
        changed = true;
    }
    if (servers.IsEmpty()) return CLIENT_CONFIG_NO_SERVER_LIST;

    if (changed && !file->changeStanzaWithWrite(stanza->getStanzaName().GetTextEx()))
        return CLIENT_CONFIG_NOT_WRITTEN;
    acceptColonInsideEntries(*stanza, servers);
    return CLIENT_CONFIG_OK;
}

bool IsTrueValue(Stanza& stanza, const char* key) {
    CText value;
    return stanza.getValue(key, value) && !value.IsEmpty() &&
           std::strchr("YyTt1", *value.GetTextEx()) != nullptr;
}
