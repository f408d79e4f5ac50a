// What the operating system does for large blocks of memory.
#pragma once

#include <cstdint>

// Asks for huge pages where whole ones lie inside the block (Linux, madvise(2)): one page fault in place of
// 512 when the block is filled. Only an advice: nothing depends on it, the content stays.
void AdviseHugePages(void* block, std::uint32_t size);
