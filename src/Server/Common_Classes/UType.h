// The case tables of the text routines: they, not the C library's locale, decide what upper and lower case
// mean.
#pragma once

#include <array>
#include <cstdint>

// Indexed by the unsigned byte value. Latin-1 letters fold by 0x20, with two exceptions on the upper side:
// 0xE9 and 0xC9 (e acute) both map to plain 'e' (0x65).
extern const std::array<std::int32_t, 256> k2upper;
extern const std::array<std::int32_t, 256> k2lower;
