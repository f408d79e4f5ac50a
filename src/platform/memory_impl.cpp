#include "platform/memory_impl.h"

#include <sys/mman.h>
#include <sys/resource.h>

#include "platform/ErrnoKeeper.h"

void AdviseHugePages(void* block, std::uint32_t size) {
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    if (size < kHugePage) return;
    const auto begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t end = (begin + size) & ~(kHugePage - 1);
    if (first >= end) return;
    const ErrnoKeeper keeper;
    madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
}

// A limit of 0 forbids files only; at 1 Linux also starts no program that would be handed the dump.
void ForbidCoreDumps() {
    const rlimit limit{1, 1};
    setrlimit(RLIMIT_CORE, &limit);
}
