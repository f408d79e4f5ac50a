// Whole-file helpers over an open descriptor: status, size and POSIX record locks.
#pragma once

#include <sys/stat.h>

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
