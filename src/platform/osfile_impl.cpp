#include "platform/osfile_impl.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/ErrnoKeeper.h"

static_assert(sizeof(off_t) == 8, "a 32-bit build needs _FILE_OFFSET_BITS=64");

namespace {

// Sets the record lock on the whole file (start and length 0), waiting for it; a signal does not end the
// wait.
bool setFileLock(int fd, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return uninterrupted([&] { return fcntl(fd, F_SETLKW, &lock); }) != -1;
}

bool waitUntilWritable(int fd) {
    pollfd entry{fd, POLLOUT, 0};
    return uninterrupted([&] { return poll(&entry, 1, -1); }) == 1;
}

}  // namespace

int GetFileStatusInfo(const char*, int fd, struct stat& out) {
    return fstat(fd, &out);
}

bool ChangeOSFileSize(int fd, std::uint32_t size) {
    return uninterrupted([&] { return ftruncate(fd, off_t{size}); }) != -1;
}

bool LockOSFile(int fd, bool writeLock) {
    return setFileLock(fd, writeLock ? F_WRLCK : F_RDLCK);
}

bool UnLockOSFile(int fd) {
    return setFileLock(fd, F_UNLCK);
}

std::int64_t ReadOSFile(int fd, void* buffer, std::uint32_t size) {
    auto* bytes = static_cast<char*>(buffer);
    std::uint32_t done = 0;
    while (done < size) {
        const ssize_t n = uninterrupted([&] { return read(fd, bytes + done, size - done); });
        if (n == -1) return -1;
        if (n == 0) break;
        done += static_cast<std::uint32_t>(n);
    }
    return done;
}

bool WriteOSFile(int fd, iovec* parts, int count) {
    while (count > 0) {
        if (parts->iov_len == 0) {
            ++parts;
            --count;
            continue;
        }
        ssize_t n = writev(fd, parts, count);
        if (n <= 0) {
            const bool isLater = n == -1 && (errno == EINTR || (errno == EAGAIN && waitUntilWritable(fd)));
            if (!isLater) return false;
            continue;
        }
        for (iovec* part = parts; n > 0; ++part) {
            const std::size_t step = std::min(static_cast<std::size_t>(n), part->iov_len);
            part->iov_base = static_cast<char*>(part->iov_base) + step;
            part->iov_len -= step;
            n -= static_cast<ssize_t>(step);
        }
    }
    return true;
}

iovec TextPart(const char* text) {
    return {const_cast<char*>(text), std::strlen(text)};
}

void Descriptor::reset(int fd) {
    const ErrnoKeeper keeper;
    if (fd_ != -1) close(fd_);
    fd_ = fd;
}
