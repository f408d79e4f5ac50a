#include "platform/FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Server/Common_Classes/UText.h"
#include "platform/memory_impl.h"
#include "platform/osfile_impl.h"

namespace {

constexpr int kLook = O_PATH | O_CLOEXEC;
constexpr int kRead = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// Opens for reading what was found. Without /proc only the path leads there: then what is opened is compared with what
// was found, and a named pipe that took its place cannot hold the request up.
template <class Open>
bool openFound(Open openWith, int found, const struct stat& status, Descriptor& file) {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", found);
    file.reset(open(link, kRead));
    if (file.get() != -1) return true;

    file.reset(openWith(kRead));
    struct stat opened {};
    return file.get() != -1 && fstat(file.get(), &opened) == 0 && opened.st_dev == status.st_dev &&
           opened.st_ino == status.st_ino;
}

// openWith(flags) opens the file, wherever it lies.
template <class Open>
bool readContent(Open openWith, CData& content, std::uint32_t& size, std::uint32_t limit) {
    // A look before the opening: to open a named pipe wakes its writer, whose data is then lost.
    const Descriptor found(openWith(kLook));
    struct stat status {};
    if (found.get() == -1 || fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (status.st_size > off_t{limit}) return false;
    Descriptor file;
    if (!openFound(openWith, found.get(), status, file)) return false;

    size = static_cast<std::uint32_t>(status.st_size);
    if (!content.SetBufferSize(size)) return false;
    AdviseHugePages(content.GetBuffer(), size);
    const std::int64_t got = ReadOSFile(file.get(), content.GetBuffer(), size);
    if (got < 0) return false;
    content.SetDataSize(static_cast<std::uint32_t>(got));
    return true;
}

// The kernel's own interface, for which musl has no header: openat2(2).
struct OpenHow {
    std::uint64_t flags;
    std::uint64_t mode;
    std::uint64_t resolve;
};
constexpr std::uint64_t kNoMagicLinks = 0x02;
constexpr std::uint64_t kBeneath = 0x08;

int openBeneath(int folder, const char* path, int flags) {
    OpenHow how{static_cast<std::uint64_t>(flags), 0, kBeneath | kNoMagicLinks};
    return static_cast<int>(syscall(SYS_openat2, folder, path, &how, sizeof how));
}

// What follows the folder in the path; null when the path does not begin with it.
const char* behindFolder(const CText& folder, const char* path) {
    const std::size_t length = folder.Length();
    if (length == 0 || std::strncmp(path, folder.GetTextEx(), length) != 0) return nullptr;
    const bool endsInSlash = folder.GetTextEx()[length - 1] == '/';
    if (!endsInSlash && path[length] != '/') return nullptr;
    return path + length + std::strspn(path + length, "/");
}

}  // namespace

bool ReadFileContent(const char* path, CData& content, std::uint32_t& size, std::uint32_t limit) {
    return readContent([path](int flags) { return open(path, flags); }, content, size, limit);
}

bool ReadFileContentBelow(const char* folders, const char* path, CData& content, std::uint32_t& size,
                          std::uint32_t limit) {
    for (const char* next = folders; *next != '\0';) {
        const std::size_t length = std::strcspn(next, ":");
        const CText name(next, static_cast<std::uint32_t>(length));
        const char* rest = behindFolder(name, path);
        next += length + (next[length] == ':' ? 1 : 0);
        if (rest == nullptr) continue;
        const Descriptor folder(open(name.GetTextEx(), kLook | O_DIRECTORY));
        const auto openWith = [&](int flags) { return openBeneath(folder.get(), rest, flags); };
        if (folder.get() != -1 && readContent(openWith, content, size, limit)) return true;
    }
    return false;
}
