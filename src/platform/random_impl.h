// Random numbers that nobody can foresee.
#pragma once

#include <cstdint>

// A number from the system's source. Before that has gathered enough at the machine's start it is made of the time
// and the process: different from its neighbours', and no secret.
std::uint64_t RandomNumber();
