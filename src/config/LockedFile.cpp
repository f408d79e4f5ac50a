// LockedFile: locking, reading and replacing a configuration file.
#include "config/LockedFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Made at its first use: a lack of memory before main() could not be told.
Mutex& processMutex() {
    static Mutex mutex(Mutex::kPrivate);
    return mutex;
}

// Keeps errno for the caller who asks why, through a clean-up.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : errno_(errno) {}
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = errno_; }

  private:
    int errno_;
};

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

bool writeAndSync(int fd, const void* bytes, std::uint32_t size) {
    return writeWhole(fd, bytes, size) && ::fsync(fd) == 0;
}

// Sees to it that the first size bytes can be written without running out of space; the file stays as long as
// it is, whatever ends the process now. A file system that knows no reservation lets it pass.
bool reserve(int fd, std::uint32_t size) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && size > limit.rlim_cur) {
        errno = EFBIG;
        return false;
    }
    const auto reserveAll = [&] { return ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, off_t{size}); };
    if (size == 0 || uninterrupted(reserveAll) == 0) return true;
    return errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
}

// The folder part of a path, with the slash that ends it; empty when the path has none.
CText folderOf(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? CText(path, static_cast<std::uint32_t>(slash + 1 - path)) : CText();
}

// The name in a folder is made durable by syncing the folder. Not every folder may be opened, and by then the
// new file is in its place: no failure.
void syncFolder(const CText& folder) {
    const char* name = folder.IsEmpty() ? "." : folder.GetTextEx();
    const Descriptor opened(::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.get() != -1) ::fsync(opened.get());
}

// A new file ".name.XXXXXX" in the folder of a path. It goes at the end of its life unless it took the place
// of the other.
class TemporaryFile {
  public:
    explicit TemporaryFile(const CText& path) : path_(path), folder_(folderOf(path.GetTextEx())) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        const ErrnoKeeper keeper;
        if (exists_) ::unlink(name_.GetTextEx());
    }

    int fd() const { return file_.get(); }

    // False when there can be none with the owner, group and mode of the model, or no memory for its name.
    bool create(const struct stat& model) {
        name_ = folder_;
        name_ += ".";
        name_ += path_.GetTextEx() + folder_.Length();
        name_ += ".XXXXXX";
        if (memory_.ranOut()) return false;
        file_.reset(::mkostemp(reinterpret_cast<char*>(name_.GetBuffer()), O_CLOEXEC));
        exists_ = fd() != -1;
        const mode_t mode = model.st_mode & 07777;
        struct stat status = {};
        // The mode comes second: a new owner clears the set-id bits.
        return exists_ && ::fchown(fd(), model.st_uid, model.st_gid) == 0 && ::fchmod(fd(), mode) == 0 &&
               ::fstat(fd(), &status) == 0 && (status.st_mode & 07777) == mode;
    }

    bool takePlace() {
        if (std::rename(name_.GetTextEx(), path_.GetTextEx()) != 0) return false;
        exists_ = false;
        syncFolder(folder_);
        return true;
    }

  private:
    const MemoryWatch memory_;
    const CText& path_;
    CText folder_;
    CText name_;
    Descriptor file_;
    bool exists_ = false;
};

}  // namespace

const char* fileFaultText(FileFault fault) {
    switch (fault) {
        case FileFault::kOpen:
            return "could not open file";
        case FileFault::kLock:
            return "could not lock file";
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
    file_.reset(::open(path_.GetTextEx(), flags | O_CLOEXEC, kNewFileMode));
    if (file_.get() == -1) return FileFault::kOpen;
    if (!LockOSFile(file_.get(), writeLock)) return FileFault::kLock;
    return GetFileStatusInfo(path_.GetTextEx(), file_.get(), status_) == 0 ? FileFault::kNone
                                                                           : FileFault::kStatus;
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
    bool replaced = false;
    if (isPlain() && beside.create(status_)) {
        if (!writeAndSync(beside.fd(), bytes, size)) return FileFault::kWrite;
        replaced = beside.takePlace();
    }
    const FileFault fault = replaced ? FileFault::kNone : rewriteInPlace(bytes, size);
    if (fault == FileFault::kNone) created_ = false;
    return fault;
}

FileFault LockedFile::rewriteInPlace(const char* bytes, std::uint32_t size) {
    CData overwritten;
    if (read(overwritten, size) != FileFault::kNone) return FileFault::kRead;

    FileFault fault = FileFault::kWrite;
    if (reserve(file_.get(), size) && writeAndSync(file_.get(), bytes, size)) {
        if (ChangeOSFileSize(file_.get(), size)) {
            ::fsync(file_.get());  // the size; the content is safe already
            return FileFault::kNone;
        }
        fault = FileFault::kSize;
    }
    const ErrnoKeeper keeper;
    writeWhole(file_.get(), overwritten.GetBuffer(), overwritten.GetDataSize());
    if (::ftruncate(file_.get(), status_.st_size) == 0) ::fsync(file_.get());
    return fault;
}
