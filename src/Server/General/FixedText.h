// Text in a character array of fixed size.
#pragma once

#include <cstddef>
#include <cstring>

// Copies as much of source as fits, and a NUL after it. Null counts as empty.
template <std::size_t N>
void CopyFixedText(char (&dest)[N], const char* source) {
    if (source == nullptr) source = "";
    const std::size_t length = strnlen(source, N - 1);
    std::memcpy(dest, source, length);
    dest[length] = 0;
}
