// What the client needs from its section of the configuration file.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "config/ClientKeys.h"
#include "config/ConfigFile.h"

enum ClientConfigResult {
    CLIENT_CONFIG_OK = 0,
    CLIENT_CONFIG_NO_FILE = 3,      // no usable file
    CLIENT_CONFIG_NOT_WRITTEN = 4,  // the changed section could not be written back, or made
    CLIENT_CONFIG_NO_SERVER_LIST = 5
};

constexpr char kDefaultIniFile[] = "clients.ini";
constexpr char kDirectoryStanza[] = "Velarto Client Definitions";  // lists the clients' sections
constexpr char kDefaultServer[] = "127.0.0.1,18155";               // of a section that is added

// Parses the file and finds the client's section, which the file keeps owning. A missing section is added
// with a server on this machine, and one of the older form (VELARTO_HOST, VELARTO_PORT) gets its server list;
// both are written back.
ClientConfigResult ProcessClientConfig(ConfigFile* file, const CText& clientName, Stanza*& stanza);

// The section's CLIENTIOTIMEOUT in milliseconds, 0 without one; what would not fit waits as long as can be
// counted.
std::uint32_t ReadWriteTimeoutOf(Stanza& stanza);
