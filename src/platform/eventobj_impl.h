// The POSIX objects under an event, and deadlines.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>

// Initialises both with default attributes; false when that fails, with neither left behind.
bool makeEventObjects(pthread_cond_t& condition, pthread_mutex_t& mutex);
void releaseEventObjects(pthread_cond_t& condition, pthread_mutex_t& mutex);

// The time of day ms milliseconds from now, 0 <= out.tv_nsec < 1000000000. Where time_t has 32 bits, the end
// of its range is the latest deadline.
void GetAbsoluteTime(std::uint32_t ms, timespec& out);
