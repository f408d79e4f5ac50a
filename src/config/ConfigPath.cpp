// Where the configuration lies: the environment, the velarto user's shell profile, the default.
#include <pwd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Server/Common_Classes/MemoryWatch.h"
#include "config/ConfigFile.h"

namespace {

constexpr char kVariable[] = "VELARTO_PATH";
constexpr char kUser[] = "velarto";
constexpr char kDefaultBase[] = "/usr/local/VelartoServer/5.5";
constexpr char kFolder[] = "/configuration/";

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Empty when there is no such user. The look-up loads the name service's modules, which costs more than the
// rest of a start: only for a caller who has no other way to the base. Not inlined, because everybody would
// pay for the buffer on the stack.
[[gnu::noinline]] CText homeOfVelartoUser() {
    char buffer[16384];
    passwd entry;
    passwd* found = nullptr;
    if (::getpwnam_r(kUser, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) return CText();
    return CText(found->pw_dir);
}

File openProfile(const CText& home) {
    for (const char* name : {"/.profile", "/.cshrc"}) {
        CText path(home);
        path += name;
        File profile(std::fopen(path.GetTextEx(), "rte"));
        if (profile != nullptr) return profile;
    }
    return nullptr;
}

// The base that the first line with the variable gives: what follows its name and one more character, a "="
// or a blank. A line that gives nothing is passed over.
CText baseFromProfile(std::FILE* profile) {
    char line[4096];
    while (std::fgets(line, sizeof line, profile) != nullptr) {
        line[std::strcspn(line, "\n")] = '\0';
        const char* variable = std::strstr(line, kVariable);
        if (variable == nullptr) continue;
        const char* rest = variable + std::strlen(kVariable);
        if (rest[0] != '\0' && rest[1] != '\0') return CText(rest + 1);
    }
    return CText();
}

// The base that somebody set; empty when nobody did.
CText configuredBase(ConfigPathRule& rule) {
    rule = ConfigPathRule::kVariable;
    const CText base(std::getenv(kVariable));
    if (!base.IsEmpty()) return base;
    rule = ConfigPathRule::kProfile;
    const CText home = homeOfVelartoUser();
    if (home.IsEmpty()) return CText();
    const File profile = openProfile(home);
    return profile != nullptr ? baseFromProfile(profile.get()) : CText();
}

}  // namespace

bool ConfigFile::getPlatformConfigPath(char* buffer, int size, ConfigPathRule* rule) {
    const MemoryWatch memory;  // a base that is lost must not lead to the default's files
    ConfigPathRule found;
    CText path = configuredBase(found);
    std::uint32_t spare = 1;  // for the terminator
    if (path.IsEmpty()) {
        found = ConfigPathRule::kDefault;
        path = kDefaultBase;
    } else {
        if (path[path.Length() - 1] == '/') path.SetUsableDataSize(path.Length() - 1);
        spare = 3;  // a configured base leaves two characters unused
    }
    path += kFolder;
    if (memory.ranOut() || size < 0 || path.Length() + spare > static_cast<std::uint32_t>(size)) return false;
    std::memcpy(buffer, path.GetTextEx(), path.GetDataSize());
    if (rule != nullptr) *rule = found;
    return true;
}

bool ConfigFile::buildConfigPath(const char* fileName, CText& path, ConfigPathRule* rule) {
    constexpr int kMaxPath = 255;
    char folder[kMaxPath];
    if (!getPlatformConfigPath(folder, kMaxPath, rule)) return false;
    const MemoryWatch memory;
    path = folder;
    path += fileName;
    return !memory.ranOut();
}
