#include "platform/osfile_impl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

static_assert(sizeof(off_t) == 8, "a 32-bit build needs _FILE_OFFSET_BITS=64");

namespace {

// Sets the record lock on the whole file (start and length 0), waiting for it; a signal does not end the
// wait.
bool setFileLock(int fd, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int result;
    do {
        result = fcntl(fd, F_SETLKW, &lock);
    } while (result == -1 && errno == EINTR);
    return result != -1;
}

}  // namespace

int GetFileStatusInfo(const char*, int fd, struct stat& out) {
    return fstat(fd, &out);
}

bool ChangeOSFileSize(int fd, std::uint32_t size) {
    int result;
    do {
        result = ftruncate(fd, off_t{size});
    } while (result == -1 && errno == EINTR);
    return result != -1;
}

bool LockOSFile(int fd, bool writeLock) {
    return setFileLock(fd, writeLock ? F_WRLCK : F_RDLCK);
}

bool UnLockOSFile(int fd) {
    return setFileLock(fd, F_UNLCK);
}
