// What the operating system does for blocks of memory, and with them after a crash.
#pragma once

#include <cstdint>

// Asks for huge pages where whole ones lie inside the block (Linux, madvise(2)): one page fault in place of
// 512 when the block is filled. Only an advice: nothing depends on it, the content stays.
void AdviseHugePages(void* block, std::uint32_t size);

// From here on a crash leaves no picture of the process's memory behind. A debugger may attach as before.
void ForbidCoreDumps();
