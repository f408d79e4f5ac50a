// ErrnoKeeper: errno stays what it was, whatever a scope does.
#pragma once

#include <cerrno>

// For a clean-up or a report on the way back to a caller who asks errno why something failed.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : errno_(errno) {}
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = errno_; }

    int value() const { return errno_; }

  private:
    const int errno_;
};
