#include "client/ConfigClnt.h"

#include <algorithm>
#include <new>

#include "protocol/ServerList.h"

namespace {

bool hasServerKey(Stanza& stanza) {
    CText servers;
    stanza.getValue(key::VELARTO_SERVER.name, servers);
    return !servers.IsEmpty();
}

// Null when there is no memory for it.
Stanza* addClientStanza(ConfigFile& file, const CText& clientName) {
    auto* stanza = new (std::nothrow) Stanza(clientName.GetTextEx());
    if (stanza == nullptr) return nullptr;
    stanza->addValue(key::VELARTO_SERVER.name, kDefaultServer);
    file.addStanza(stanza, true);
    return stanza;
}

// Puts into the client's section, in memory and in the file, what it lacks: a new client's section itself, or
// the server list that an older form stands for.
ClientConfigResult completeSection(ConfigFile& file, const CText& clientName, Stanza*& stanza) {
    const MemoryWatch memory;
    if (!file.parseConfigFile()) return CLIENT_CONFIG_NO_FILE;  // whole: the write needs its directory
    bool changed = false;
    stanza = file.getStanza(clientName);
    if (stanza == nullptr) {
        stanza = addClientStanza(file, clientName);
        if (stanza == nullptr) return CLIENT_CONFIG_NOT_WRITTEN;
        changed = true;
    }
    if (!hasServerKey(*stanza)) {
        const ServerList servers(*stanza);
        if (servers.text().IsEmpty()) return CLIENT_CONFIG_NO_SERVER_LIST;
        stanza->changeValue(key::VELARTO_SERVER.name, servers.text().GetTextEx());
        changed = true;
    }
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
    stanza = file->getStanza(clientName);
    const bool isWhole = stanza != nullptr && hasServerKey(*stanza);
    return isWhole ? CLIENT_CONFIG_OK : completeSection(*file, clientName, stanza);
}

std::uint32_t ReadWriteTimeoutOf(Stanza& stanza) {
    CText seconds;
    stanza.getValue(key::CLIENTIOTIMEOUT.name, seconds);
    return std::min(seconds.GetTextAsULong(), key::CLIENTIOTIMEOUT.most) * 1000;
}
