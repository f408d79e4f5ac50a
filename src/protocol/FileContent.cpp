#include "protocol/FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/memory_impl.h"
#include "platform/osfile_impl.h"

bool ReadFileContent(const char* path, CData& content, std::uint32_t& size) {
    // Non-blocking, so that a named pipe at the path cannot hold the request up.
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.get() == -1 || GetFileStatusInfo(path, file.get(), status) != 0 || !S_ISREG(status.st_mode))
        return false;
    if (status.st_size > off_t{0xFFFFFFFF}) return false;

    size = static_cast<std::uint32_t>(status.st_size);
    if (!content.SetBufferSize(size)) return false;
    AdviseHugePages(content.GetBuffer(), size);
    const std::int64_t got = ReadOSFile(file.get(), content.GetBuffer(), size);
    if (got < 0) return false;
    content.SetDataSize(static_cast<std::uint32_t>(got));
    return true;
}
