#include "Server/Common_Classes/MemoryWatch.h"

#include "Server/Common_Classes/PerThread.h"

namespace {

VELARTO_PER_THREAD std::uint32_t failedAllocations = 0;

}  // namespace

MemoryWatch::MemoryWatch() : failuresBefore_(failedAllocations) {}

bool MemoryWatch::ranOut() const {
    return failedAllocations != failuresBefore_;
}

void MemoryWatch::countFailure() {
    ++failedAllocations;
}
