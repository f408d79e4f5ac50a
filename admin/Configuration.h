// The configuration file that a command works on.
#pragma once

#include <memory>
#include <string>

#include "Command.h"
#include "Outline.h"
#include "config/ConfigFile.h"
#include "protocol/ServerList.h"

struct Location {
    std::string path;
    std::string rule;  // by which it was found, for people
};

// --file, else where the gateway looks.
Location locate(const Request& request);

// The file's bytes. Failure: it cannot be read, or has a size that the gateway refuses.
std::string contentOf(const std::string& path);

// The file, parsed. Failure: it cannot be read or the gateway would refuse it; the text tells where and why.
std::unique_ptr<ConfigFile> load(const std::string& path);

// The file's outline. Failure: the file cannot be read or has an error, so that what stands in it cannot be
// told for sure.
Outline faultlessOutline(const std::string& path);

// Whether the section is the one that a client uses: named, the first of its name, and not the directory.
bool isClient(const Outline& outline, const OutlineSection& section);

// What is wrong at that place of the file, after "path:line:column:"; line 0: with the file as a whole.
std::string faultText(const std::string& path, Place place, const std::string& reason);

// The client's section, owned by the file from that path. Failure: there is none; the text names those there
// are.
Stanza& sectionOf(ConfigFile& file, const std::string& path, const std::string& client);

ServerList serversOf(const OutlineSection& section);

// An entry of a server list, for people: as it is written, and why it can never be reached (empty when nothing is
// wrong).
std::string textOf(const ServerList& servers, std::uint32_t entry);
std::string faultOf(const ServerEntry& entry);
