#include "Configuration.h"

#include <cstring>

#include "client/ConfigClnt.h"

namespace {

std::string ruleText(ConfigPathRule rule) {
    switch (rule) {
        case ConfigPathRule::kVariable:
            return "the environment variable VELARTO_PATH";
        case ConfigPathRule::kProfile:
            return "VELARTO_PATH in .profile or .cshrc of the user velarto";
        default:
            return "the default: VELARTO_PATH is set neither in the environment nor by the user velarto";
    }
}

std::string namesOfSections(ConfigFile& file) {
    std::string names;
    CText name;
    for (std::uint32_t i = 0; file.getStanzaInformationIndex(i, name); ++i)
        names += (names.empty() ? "" : ", ") + shown(name.GetTextEx());
    return names.empty() ? "none" : names;
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

std::unique_ptr<ConfigFile> load(const std::string& path) {
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
    if (section == nullptr)
        throw Failure("no client '" + shown(client) + "'; there are: " + namesOfSections(file));
    return *section;
}
