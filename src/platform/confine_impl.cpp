#include "platform/confine_impl.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "Server/Common_Classes/UText.h"
#include "platform/osfile_impl.h"

namespace {

// The kernel's own interface, for which musl has no header: landlock(7), its first version.
struct RulesetAttributes {
    std::uint64_t handled;  // what needs a rule from now on
};
struct [[gnu::packed]] PathRule {
    std::uint64_t allowed;
    std::int32_t place;
};
constexpr int kPathBeneath = 1;
constexpr std::uint64_t kReadFile = 1 << 2;
constexpr std::uint64_t kAll = (1 << 13) - 1;  // executing, writing, reading, listing, removing and making

// A place that is not there needs no rule.
void allow(int rules, const char* path) {
    const Descriptor place(open(path, O_PATH | O_CLOEXEC));
    if (place.get() == -1) return;
    const PathRule rule{kReadFile, place.get()};
    syscall(SYS_landlock_add_rule, rules, kPathBeneath, &rule, 0);
}

}  // namespace

bool ConfineFiles(const char* folders, const char* file) {
    const RulesetAttributes attributes{kAll};
    const Descriptor rules(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
    if (rules.get() == -1) return false;
    for (const char* next = folders; *next != '\0';) {
        const std::size_t length = std::strcspn(next, ":");
        allow(rules.get(), CText(next, static_cast<std::uint32_t>(length)).GetTextEx());
        next += length + (next[length] == ':' ? 1 : 0);
    }
    if (file != nullptr && *file != '\0') allow(rules.get(), file);
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_landlock_restrict_self, rules.get(), 0) == 0;
}
