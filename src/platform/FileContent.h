// Reading a whole local file into a byte block.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UData.h"

// Reads the regular file at path into content; its data size becomes the number of bytes read, which is less
// than size (the file's size when it was opened) when the file shrinks meanwhile. False when the file is no
// regular one, cannot be opened or read, or does not fit into a block.
bool ReadFileContent(const char* path, CData& content, std::uint32_t& size);
