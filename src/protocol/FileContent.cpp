#include "protocol/FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

class FileDescriptor {
  public:
    // Non-blocking, so that a named pipe at the path cannot hold the request up.
    explicit FileDescriptor(const char* path)
        : fd_(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }

    bool isOpen() const { return fd_ >= 0; }
    int get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

bool ReadFileContent(const char* path, CData& content, std::uint32_t& size) {
    const FileDescriptor file(path);
    struct stat status {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (status.st_size > off_t{0xFFFFFFFF}) return false;

    size = static_cast<std::uint32_t>(status.st_size);
    if (!content.SetBufferSize(size)) return false;
    std::uint32_t got = 0;
    while (got < size) {
        const ssize_t n = read(file.get(), content.GetBuffer() + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<std::uint32_t>(n);
    }
    content.SetDataSize(got);
    return true;
}
