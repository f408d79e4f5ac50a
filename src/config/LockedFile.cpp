// LockedFile: locking, reading and replacing a configuration file.
#include "config/LockedFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "config/TemporaryFile.h"
#include "platform/ErrnoKeeper.h"

namespace {

// Made at its first use: a lack of memory before main() could not be told.
Mutex& processMutex() {
    static Mutex mutex(Mutex::kPrivate);
    return mutex;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Writes all of the bytes to the start of the file; the size only ever grows.
bool writeWhole(int fd, const void* bytes, std::uint32_t size) {
    const char* from = static_cast<const char*>(bytes);
    for (std::uint32_t done = 0; done < size;) {
        const ssize_t n = uninterrupted([&] { return ::pwrite(fd, from + done, size - done, off_t{done}); });
        if (n <= 0) return false;
        done += static_cast<std::uint32_t>(n);
    }
    return true;
}

// A write beyond the limit would raise SIGXFSZ, which ends the process unless it is ignored. A library leaves
// signals to its host, so the limit is an error before anything is written.
bool isWithinLimit(std::uint32_t size) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || size <= limit.rlim_cur) return true;
    errno = EFBIG;
    return false;
}

bool writeAndSync(int fd, const void* bytes, std::uint32_t size) {
    return writeWhole(fd, bytes, size) && ::fsync(fd) == 0;
}

// Sees to it that the first size bytes can be written without running out of space; the file stays as long as
// it is, whatever ends the process now. A file system that knows no reservation lets it pass.
bool reserve(int fd, std::uint32_t size) {
    const auto reserveAll = [&] { return ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, off_t{size}); };
    if (size == 0 || uninterrupted(reserveAll) == 0) return true;
    return errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
}

}  // namespace

const char* fileFaultText(FileFault fault) {
    switch (fault) {
        case FileFault::kOpen:
            return "could not open file";
        case FileFault::kLock:
            return "could not lock file";
        case FileFault::kNotRegular:
            return "not a regular file";
        case FileFault::kStatus:
            return "cannot retrieve file status data for";
        case FileFault::kRead:
            return "could not read file";
        case FileFault::kSize:
            return "could not change size of the file";
        case FileFault::kWrite:
            return "could not write file";
        case FileFault::kNone:
            break;
    }
    return "";
}

LockedFile::LockedFile(const CText& path) : path_(path), processLock_(processMutex()) {}

LockedFile::~LockedFile() {
    const ErrnoKeeper keeper;
    if (created_ && isPlain()) ::unlink(path_.GetTextEx());
}

FileFault LockedFile::open(Access access) {
    // Each further attempt means that another writer was done in between; the bound is for a file system
    // whose file numbers cannot be relied on.
    constexpr int kMaxAttempts = 1000;
    for (int i = 0; i < kMaxAttempts; ++i) {
        created_ = false;
        FileFault fault = openAndLock(access == kRead ? O_RDONLY : O_RDWR, access != kRead);
        if (fault == FileFault::kOpen && errno == ENOENT && access == kCreate) {
            fault = openAndLock(O_RDWR | O_CREAT, true);
            created_ = fault == FileFault::kNone && status_.st_size == 0;
        }
        if (fault != FileFault::kNone || isNamedByPath()) return fault;
    }
    errno = ESTALE;
    return FileFault::kOpen;
}

FileFault LockedFile::openAndLock(int flags, bool writeLock) {
    constexpr mode_t kNewFileMode = 0666;  // less the umask, as for any text file
    // Without blocking: the opening of a pipe would wait for somebody at its other end.
    file_.reset(::open(path_.GetTextEx(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kNewFileMode));
    if (file_.get() == -1) return FileFault::kOpen;
    if (!LockOSFile(file_.get(), writeLock)) return FileFault::kLock;
    if (GetFileStatusInfo(path_.GetTextEx(), file_.get(), status_) != 0) return FileFault::kStatus;
    if (S_ISREG(status_.st_mode)) return FileFault::kNone;
    errno = EINVAL;
    return FileFault::kNotRegular;
}

bool LockedFile::isNamedByPath() const {
    struct stat named = {};
    return ::stat(path_.GetTextEx(), &named) == 0 && isSameFile(named, status_);
}

// Whether a rename over the path would replace this file and nothing else.
bool LockedFile::isPlain() const {
    struct stat named = {};
    return ::lstat(path_.GetTextEx(), &named) == 0 && S_ISREG(named.st_mode) && named.st_nlink == 1 &&
           isSameFile(named, status_);
}

FileFault LockedFile::read(CData& out, std::uint32_t maxSize) const {
    // One byte more than is expected shows growth, in the same system call.
    const auto expected = static_cast<std::uint32_t>(std::min(status_.st_size, off_t{maxSize}));
    const std::uint32_t room = std::min(expected + 1, maxSize);
    out.Clear();
    if (!out.SetBufferSize(room)) {
        errno = ENOMEM;
        return FileFault::kRead;
    }
    std::uint32_t size = 0;
    while (size < expected) {
        const auto readOn = [&] {
            return ::pread(file_.get(), out.GetBuffer() + size, room - size, off_t{size});
        };
        const ssize_t n = uninterrupted(readOn);
        if (n == -1) return FileFault::kRead;
        if (n == 0) break;
        size += static_cast<std::uint32_t>(n);
    }
    out.SetDataSize(size);
    return FileFault::kNone;
}

FileFault LockedFile::replace(const char* bytes, std::uint32_t size) {
    TemporaryFile beside(path_);
    beside.removeAbandoned();
    bool replaced = false;
    if (isPlain() && beside.createLike(file_.get(), status_)) {
        if (!isWithinLimit(size) || !writeAndSync(beside.fd(), bytes, size)) return FileFault::kWrite;
        replaced = beside.takePlace();
    }
    const FileFault fault = replaced ? FileFault::kNone : rewriteInPlace(bytes, size);
    if (fault == FileFault::kNone) created_ = false;
    return fault;
}

FileFault LockedFile::rewriteInPlace(const char* bytes, std::uint32_t size) {
    // A shorter content is followed by line feeds up to the old size, in the same write: should the process be
    // killed before the cut, the file has empty lines at its end, and not the rest of the old content. What is
    // longer than this was no configuration that could be read.
    constexpr off_t kLongestFilled = 131072;
    const off_t oldSize = status_.st_size;
    std::uint32_t written = size;
    CData filled;
    if (oldSize > size && oldSize <= kLongestFilled) {
        written = static_cast<std::uint32_t>(oldSize);
        if (!filled.SetBufferSize(written)) {
            errno = ENOMEM;
            return FileFault::kWrite;
        }
        std::memset(filled.GetBuffer(), '\n', written);
        if (size != 0) std::memcpy(filled.GetBuffer(), bytes, size);
    }
    const void* content = written > size ? filled.GetBuffer() : static_cast<const void*>(bytes);
    CData overwritten;
    if (read(overwritten, written) != FileFault::kNone) return FileFault::kRead;

    if (!isWithinLimit(written)) return FileFault::kWrite;  // what was there may be too long to be put back

    FileFault fault = FileFault::kWrite;
    if (reserve(file_.get(), written) && writeAndSync(file_.get(), content, written)) {
        if (ChangeOSFileSize(file_.get(), size)) {
            ::fsync(file_.get());  // the size; the content is safe already
            return FileFault::kNone;
        }
        fault = FileFault::kSize;
    }
    const ErrnoKeeper keeper;
    writeWhole(file_.get(), overwritten.GetBuffer(), overwritten.GetDataSize());
    if (::ftruncate(file_.get(), oldSize) == 0) ::fsync(file_.get());
    return fault;
}
