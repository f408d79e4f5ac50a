// What g++'s library headers ask of the C library, for musl: it stands before the file of that name that was
// made for the system's own C library.
#ifndef _GLIBCXX_OS_DEFINES
#define _GLIBCXX_OS_DEFINES 1

#define __NO_CTYPE 1

#include <features.h>

#endif
