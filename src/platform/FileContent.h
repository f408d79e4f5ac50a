// Reading a whole local file into a byte block.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UData.h"

constexpr std::uint32_t kLargestContent = 0xFFFFFFFF;  // bytes

// Reads the regular file at path into content; its data size becomes the number of bytes read, which is less
// than size (the file's size when it was opened) when the file shrinks meanwhile. False when the file is no
// regular one, cannot be opened or read, is larger than limit, or does not fit into a block.
bool ReadFileContent(const char* path, CData& content, std::uint32_t& size,
                     std::uint32_t limit = kLargestContent);

// The same for a path that must stay below one of the folders, a list joined with ":": the path begins with the folder's
// own, and the kernel resolves the rest beneath it (Linux, openat2(2), RESOLVE_BENEATH), without absolute symbolic links
// and without those of /proc. False, too, where the kernel cannot (before Linux 5.6).
bool ReadFileContentBelow(const char* folders, const char* path, CData& content, std::uint32_t& size,
                          std::uint32_t limit = kLargestContent);
