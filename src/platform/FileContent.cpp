#include "platform/FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>

#include "platform/memory_impl.h"
#include "platform/osfile_impl.h"

namespace {

// Opens for reading what was found at the path. Without /proc only the path leads there: then what is opened is
// compared with what was found, and a named pipe that took its place cannot hold the request up.
bool openFound(const char* path, int found, const struct stat& status, Descriptor& file) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", found);
    file.reset(open(link, kFlags));
    if (file.get() != -1) return true;

    file.reset(open(path, kFlags));
    struct stat opened {};
    return file.get() != -1 && GetFileStatusInfo(path, file.get(), opened) == 0 &&
           opened.st_dev == status.st_dev && opened.st_ino == status.st_ino;
}

}  // namespace

bool ReadFileContent(const char* path, CData& content, std::uint32_t& size) {
    // A look before the opening: to open a named pipe wakes its writer, whose data is then lost.
    const Descriptor found(open(path, O_PATH | O_CLOEXEC));
    struct stat status {};
    if (found.get() == -1 || GetFileStatusInfo(path, found.get(), status) != 0 || !S_ISREG(status.st_mode))
        return false;
    if (status.st_size > off_t{0xFFFFFFFF}) return false;
    Descriptor file;
    if (!openFound(path, found.get(), status, file)) return false;

    size = static_cast<std::uint32_t>(status.st_size);
    if (!content.SetBufferSize(size)) return false;
    AdviseHugePages(content.GetBuffer(), size);
    const std::int64_t got = ReadOSFile(file.get(), content.GetBuffer(), size);
    if (got < 0) return false;
    content.SetDataSize(static_cast<std::uint32_t>(got));
    return true;
}
