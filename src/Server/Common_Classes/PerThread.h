// VELARTO_PER_THREAD: a variable of which every thread has its own.
#pragma once

// A program that runs one thread is built with VELARTO_ONE_THREAD, and spared the storage and its
// registration.
#ifdef VELARTO_ONE_THREAD
#define VELARTO_PER_THREAD
#else
#define VELARTO_PER_THREAD thread_local
#endif
