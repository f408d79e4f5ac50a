// Where a POSIX mutex lies and how it is initialised: on the heap for one process, in a shared mapping for
// several.
#pragma once

#include <pthread.h>

// Both make an initialised mutex, or null. The caller ends it with pthread_mutex_destroy() and gives the
// memory back with the release function of the same kind (null: nothing).
pthread_mutex_t* makePrivateMutex();  // recursive
pthread_mutex_t* makeSharedMutex();   // throws the integer 1 when "/dev/zero" cannot be opened
void releasePrivateMutex(pthread_mutex_t* mutex);
void releaseSharedMutex(pthread_mutex_t* mutex);
