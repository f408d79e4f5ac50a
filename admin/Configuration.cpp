#include "Configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "client/ConfigClnt.h"
#include "common/Text.h"
#include "config/LockedFile.h"

namespace {

std::string ruleText(ConfigPathRule rule) {
    switch (rule) {
        case ConfigPathRule::kVariable:
            return "the environment variable VELARTO_PATH";
        case ConfigPathRule::kProfile:
            return "VELARTO_PATH in .profile or .cshrc of the user velarto";
        default:
            return "the default: VELARTO_PATH is set nowhere";
    }
}

std::string namesOfClients(const Outline& outline) {
    constexpr std::size_t kMost = 20;
    const std::vector<std::string> clients = clientsIn(outline);
    std::string names;
    for (std::size_t i = 0; i < clients.size() && i < kMost; ++i)
        names += (i == 0 ? "" : ", ") + shown(clients[i]);
    if (clients.size() > kMost) names += " and " + std::to_string(clients.size() - kMost) + " more";
    return names.empty() ? "none" : names;
}

// Only a regular file: opening a pipe would wait for somebody to write into it.
void requireRegularFile(const std::string& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) throw Failure(shown(path) + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw Failure(shown(path) + ": is not a regular file");
}

std::string contentOf(const std::string& path) {
    requireRegularFile(path);
    const CText name(path.c_str());
    LockedFile file(name);
    CData content;
    FileFault fault = file.open(LockedFile::kRead);
    if (fault == FileFault::kNone) fault = file.read(content, ConfigFile::kMaxFileSize + 1);
    if (fault != FileFault::kNone)
        throw Failure(shown(path) + ": " + fileFaultText(fault) + ": " + std::strerror(errno));
    if (content.GetDataSize() == 0) throw Failure(shown(path) + ": the file is empty");
    if (content.GetDataSize() > ConfigFile::kMaxFileSize)
        throw Failure(shown(path) + ": the file is larger than " + std::to_string(ConfigFile::kMaxFileSize) +
                      " bytes, which the gateway refuses");
    return {reinterpret_cast<const char*>(content.GetBuffer()), content.GetDataSize()};
}

}  // namespace

Location locate(const Request& request) {
    if (!request.file.empty()) return {request.file, "the option --file"};
    CText path;
    ConfigPathRule rule;
    if (!ConfigFile::buildConfigPath(kDefaultIniFile, path, &rule))
        throw Failure("the configuration's folder has too long a name");
    return {path.GetTextEx(), ruleText(rule)};
}

Snapshot::Snapshot(const Location& location) : path_(location.path), outline_(contentOf(path_)) {}

Snapshot Snapshot::faultless(const Request& request) {
    Snapshot snapshot(locate(request));
    for (const SyntaxError& error : snapshot.outline_.errors())
        throw Failure(faultText(snapshot.path_, error.place, error.reason));
    return snapshot;
}

const OutlineSection& Snapshot::client(const std::string& name) const {
    const OutlineSection* section = outline_.find(name);
    if (section == nullptr || !isClient(outline_, *section))
        throw Failure("no client '" + shown(name) + "'; there are: " + namesOfClients(outline_));
    return *section;
}

bool isClient(const Outline& outline, const OutlineSection& section) {
    const std::string& name = section.name.text;
    return !name.empty() && outline.find(name) == &section && !sameName(name, kDirectoryStanza);
}

std::vector<std::string> clientsIn(const Outline& outline) {
    std::vector<std::string> names;
    for (const OutlineSection& section : outline.sections()) {
        if (isClient(outline, section)) names.push_back(section.name.text);
    }
    return names;
}

std::string faultText(const std::string& path, Place place, const std::string& reason) {
    const std::string where = place.line != 0 ? format("%u:%u:", place.line, place.column) : "";
    return shown(path) + ":" + where + " " + reason;
}

Stanza stanzaOf(const OutlineSection& section) {
    AttributeList attributes;
    for (const OutlineAttribute& attribute : section.attributes)
        attributes.addAttribute(attribute.key.text.c_str(), attribute.value.text.c_str());
    return Stanza(section.name.text.c_str(), attributes);
}

ServerList serversOf(const OutlineSection& section) {
    Stanza stanza = stanzaOf(section);
    return ServerList(stanza);
}

std::string textOf(const ServerList& servers, std::uint32_t entry) {
    CText text;
    return servers.getEntry(entry, text).GetTextEx();
}

std::string faultOf(const ServerEntry& entry) {
    CText text;
    return entry.describeFault(text).GetTextEx();
}

std::string endpointOf(const std::string& host, const std::string& port) {
    return port.empty() ? host : host + "," + port;
}
