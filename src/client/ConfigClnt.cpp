#include "client/ConfigClnt.h"

#include <algorithm>

#include "protocol/ServerList.h"

namespace {

bool hasServerKey(Stanza& stanza) {
    CText servers;
    stanza.getValue(key::VELARTO_SERVER.name, servers);
    return !servers.IsEmpty();
}

// Gives a new section a server on this machine, and one of the older form the list that it stands for. Whether it
// did; a section that has a list is left.
bool addServerList(Stanza& stanza, bool isNew) {
    if (isNew) return stanza.addValue(key::VELARTO_SERVER.name, kDefaultServer);
    if (hasServerKey(stanza)) return false;
    const ServerList servers(stanza);
    return !servers.text().IsEmpty() &&
           stanza.changeValue(key::VELARTO_SERVER.name, servers.text().GetTextEx());
}

// Puts into the client's section, in memory and in the file, what it lacks: a new client's section itself, or
// the server list that an older form stands for. Others may have completed it since it was read.
ClientConfigResult completeSection(ConfigFile& file, const CText& clientName, Stanza*& stanza) {
    const bool hasServers = stanza == nullptr || !ServerList(*stanza).text().IsEmpty();
    if (!hasServers) return CLIENT_CONFIG_NO_SERVER_LIST;
    if (!file.completeStanzaWithWrite(clientName, addServerList)) return CLIENT_CONFIG_NOT_WRITTEN;
    stanza = file.getStanza(clientName);
    return hasServerKey(*stanza) ? CLIENT_CONFIG_OK : CLIENT_CONFIG_NO_SERVER_LIST;
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
