// Millisecond ticks and sleep.
#pragma once

#include <sys/time.h>

#include <cstdint>

// The time of day when the program started: what ticks count from. Zero until then, and if it cannot be read.
extern const timeval BaseTimeValue;

// Whole milliseconds between two times of day. Wraps after 2^32 of them (about 49.7 days); the difference of
// two such counts is right across the wrap.
std::uint32_t millisecondsBetween(const timeval& from, const timeval& to);

// The clock that nobody sets, in nanoseconds from some point.
std::int64_t MonotonicTime();

// Milliseconds since BaseTimeValue, 0 when that or the time of day cannot be had. Follows the time of day,
// also when it is set.
std::uint32_t GetTickCountEx();

// Sleeps for ms milliseconds, signals or not. 0, or -1 with errno as select() set it.
int MilliSleep(std::uint32_t ms);
