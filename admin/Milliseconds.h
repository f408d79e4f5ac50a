// Times of steps, and how they are told.
#pragma once

#include <chrono>
#include <string>

#include "common/Text.h"

using Milliseconds = std::chrono::duration<double, std::milli>;

inline Milliseconds since(std::chrono::steady_clock::time_point moment) {
    return std::chrono::steady_clock::now() - moment;
}

inline std::string textOf(Milliseconds time) {
    return format("%.1f ms", time.count());
}
