// The configuration file that a command works on.
#pragma once

#include <string>
#include <vector>

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

// The file as it was when the command began: read once, whatever becomes of it meanwhile.
class Snapshot {
  public:
    // Failure: the file cannot be read, or has a size that the gateway refuses.
    explicit Snapshot(const Location& location);
    // The same; also a failure: it has an error, so that what stands in it cannot be told for sure.
    static Snapshot faultless(const Request& request);

    const std::string& path() const { return path_; }
    const Outline& outline() const { return outline_; }

    // The section that the client uses. Failure: there is none; the text names those there are.
    const OutlineSection& client(const std::string& name) const;

  private:
    std::string path_;
    Outline outline_;
};

// Whether the section is the one that a client uses: named, the first of its name, and not the directory.
bool isClient(const Outline& outline, const OutlineSection& section);

std::vector<std::string> clientsIn(const Outline& outline);

// What is wrong at that place of the file, after "path:line:column:"; line 0: with the file as a whole.
std::string faultText(const std::string& path, Place place, const std::string& reason);

// A section as the library has it.
Stanza stanzaOf(const OutlineSection& section);

ServerList serversOf(const OutlineSection& section);

// An entry of a server list, for people: as it is written, and why it can never be reached (empty when nothing is
// wrong).
std::string textOf(const ServerList& servers, std::uint32_t entry);
std::string faultOf(const ServerEntry& entry);

// "HOST,PORT", or "PATH", of its parts.
std::string endpointOf(const std::string& host, const std::string& port);
