// MemoryWatch: whether all blocks of bytes got the memory that they asked for.
#pragma once

#include <cstdint>

// Tells whether memory ran out for a block of this thread since the watch was made. For operations that put many
// blocks together and must not use a result in which something is missing: they ask once at the end, instead of after
// every step.
class MemoryWatch {
  public:
    MemoryWatch();
    bool ranOut() const;

    static void countFailure();  // told by a block that did not get what it asked for

  private:
    std::uint32_t failuresBefore_;
};
