#include "client/ConfigClnt.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>

namespace {

// Null when there is no memory for it.
Stanza* addClientStanza(ConfigFile& file, const CText& clientName) {
    auto* stanza = new (std::nothrow) Stanza(clientName.GetTextEx());
    if (stanza == nullptr) return nullptr;
    stanza->addValue(key::VELARTO_SERVER.name, kDefaultServer);
    file.addStanza(stanza, true);
    return stanza;
}

// The older form: one host and a value list of ports. Empty when either is missing.
CText& serverListFromHostAndPorts(Stanza& stanza, CText& list) {
    list.Clear();
    CText host;
    Attribute ports;
    stanza.getValue(key::VELARTO_HOST.name, host);
    stanza.getAttribute(key::VELARTO_PORT.name, ports);
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

// A list written host:port,host:port is understood for this run: ":" and "," change places. False, and the
// list as it was, when it is not written so.
bool acceptColonInsideEntries(CText& list) {
    for (const char* piece = list.GetTextEx();; ++piece) {
        const char* end = piece + std::strcspn(piece, ",");
        if (!isHostColonPort(piece, end)) return false;
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
    return true;
}

// Puts into the client's section, in memory and in the file, what it lacks: a new client's section itself, or
// the server list that an older form stands for.
ClientConfigResult completeSection(ConfigFile& file, const CText& clientName, Stanza*& stanza,
                                   CText& servers) {
    const MemoryWatch memory;
    if (!file.parseConfigFile()) return CLIENT_CONFIG_NO_FILE;  // whole: the write needs its directory
    bool changed = false;
    stanza = file.getStanza(clientName);
    if (stanza == nullptr) {
        stanza = addClientStanza(file, clientName);
        if (stanza == nullptr) return CLIENT_CONFIG_NOT_WRITTEN;
        changed = true;
    }
    stanza->getValue(key::VELARTO_SERVER.name, servers);
    if (servers.IsEmpty() && !serverListFromHostAndPorts(*stanza, servers).IsEmpty()) {
        stanza->changeValue(key::VELARTO_SERVER.name, servers.GetTextEx());
        changed = true;
    }
    if (servers.IsEmpty()) return CLIENT_CONFIG_NO_SERVER_LIST;
    if (!changed) return CLIENT_CONFIG_OK;
    const bool written = !memory.ranOut() && file.changeStanzaWithWrite(stanza->getStanzaName().GetTextEx());
    return written ? CLIENT_CONFIG_OK : CLIENT_CONFIG_NOT_WRITTEN;
}

// Reads the client's section. Another process may be changing the file: one that could not be read is read
// once more, and one with a fault in it is left to the write, which reads it again.
bool readSection(ConfigFile& file, const CText& clientName) {
    if (file.parseStanza(clientName)) return true;
    if (file.lastParseError().line == 0) return file.parseStanza(clientName);
    file.createDirectoryStanza();
    return file.writeFile(true);
}

}  // namespace

ClientConfigResult ProcessClientConfig(ConfigFile* file, const CText& clientName, Stanza*& stanza) {
    if (file == nullptr || !readSection(*file, clientName)) return CLIENT_CONFIG_NO_FILE;
    CText servers;
    stanza = file->getStanza(clientName);
    if (stanza != nullptr) stanza->getValue(key::VELARTO_SERVER.name, servers);
    if (servers.IsEmpty()) {
        const ClientConfigResult result = completeSection(*file, clientName, stanza, servers);
        if (result != CLIENT_CONFIG_OK) return result;
    }
    if (acceptColonInsideEntries(servers)) stanza->changeValue(key::VELARTO_SERVER.name, servers.GetTextEx());
    return CLIENT_CONFIG_OK;
}

CText& ServerListOf(Stanza& stanza, CText& list) {
    stanza.getValue(key::VELARTO_SERVER.name, list);
    if (list.IsEmpty()) serverListFromHostAndPorts(stanza, list);
    acceptColonInsideEntries(list);
    return list;
}

std::uint32_t ReadWriteTimeoutOf(Stanza& stanza) {
    CText seconds;
    stanza.getValue(key::CLIENTIOTIMEOUT.name, seconds);
    return std::min(seconds.GetTextAsULong(), key::CLIENTIOTIMEOUT.most) * 1000;
}
