#include "Configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "client/ConfigClnt.h"
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

std::string namesOfSections(ConfigFile& file) {
    std::string names;
    CText name;
    for (std::uint32_t i = 0; file.getStanzaInformationIndex(i, name); ++i)
        names += (names.empty() ? "" : ", ") + shown(name.GetTextEx());
    return names.empty() ? "none" : names;
}

// Only a regular file: opening a pipe would wait for somebody to write into it.
void requireRegularFile(const std::string& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) throw Failure(shown(path) + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw Failure(shown(path) + ": is not a regular file");
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

std::unique_ptr<ConfigFile> load(const std::string& path) {
    requireRegularFile(path);
    auto file = std::make_unique<ConfigFile>(path.c_str(), kDirectoryStanza);
    if (file->parseConfigFile()) return file;
    const ParseError error = file->lastParseError();
    std::string text = shown(path) + ":";
    if (error.line != 0) text += std::to_string(error.line) + ":" + std::to_string(error.column) + ":";
    text += std::string(" ") + error.reason;
    if (error.systemError != 0) text += std::string(": ") + std::strerror(error.systemError);
    throw Failure(text);
}

Stanza& sectionOf(ConfigFile& file, const std::string& client) {
    Stanza* section = file.getStanza(client.c_str());
    if (section == nullptr || sameName(client, kDirectoryStanza))
        throw Failure("no client '" + shown(client) + "'; there are: " + namesOfSections(file));
    return *section;
}

std::string serverListOf(const OutlineSection& section) {
    Stanza stanza(section.name.text.c_str());
    for (const OutlineAttribute& attribute : section.attributes)
        stanza.addValue(attribute.key.text.c_str(), attribute.value.text.c_str());
    CText list;
    return ServerListOf(stanza, list).GetTextEx();
}
