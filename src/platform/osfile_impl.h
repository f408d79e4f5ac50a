// Whole-file helpers over an open descriptor: status, size, reading and POSIX record locks; its scoped owner.
#pragma once

#include <sys/stat.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdint>

// All leave errno as the system call set it. Descriptors stay the caller's.
//
// The locks are fcntl() record locks on the whole file, bytes appended later included. They belong to the
// process: they exclude other processes, not other threads of this one, and closing ANY descriptor of the
// file drops them.

int GetFileStatusInfo(const char* name, int fd, struct stat& out);  // 0, or -1; the name is not used
bool ChangeOSFileSize(int fd, std::uint32_t size);
bool LockOSFile(int fd, bool writeLock);  // exclusive when writeLock, else shared; waits until granted
bool UnLockOSFile(int fd);

// Reads from the descriptor's position until size bytes have come or it ends. The count, or -1.
std::int64_t ReadOSFile(int fd, void* buffer, std::uint32_t size);

// Writes all bytes of the parts, in order and in as few system calls as the descriptor allows; waits where it
// is non-blocking and full. False with errno when a write fails. The parts are used up.
bool WriteOSFile(int fd, iovec* parts, int count);

// The characters of a text, to be written. The text stays the caller's.
iovec TextPart(const char* text);

// An open descriptor, closed at the end of its life. Closing leaves errno alone.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(-1); }

    int get() const { return fd_; }
    void reset(int fd);

  private:
    int fd_;
};

// Repeats a system call while a signal interrupts it.
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}
