/* The system event log: one line an event, appended to a log file (or standard output) and mirrored to syslog.

   Usable from C as from C++. */
#ifndef VELARTO_EVENTLOG_H
#define VELARTO_EVENTLOG_H

#include <stdbool.h>

/* Types and categories come from callers in C: any number must be a value of the enumeration. */
#ifdef __cplusplus
#define VELARTO_ANY_EVENT : int
extern "C" {
#else
#define VELARTO_ANY_EVENT
#endif

typedef enum TSysEventType VELARTO_ANY_EVENT {
    SYS_EVENT_INFO = 0,
    SYS_EVENT_WARNING = 1,
    SYS_EVENT_ERROR = 2,
    SYS_EVENT_FATAL = 3
} TSysEventType;

typedef enum TSysEventCategory VELARTO_ANY_EVENT {
    SYS_EVENT_START = 0,
    SYS_EVENT_RUNTIME = 1,
    SYS_EVENT_VERSION = 2,
    SYS_EVENT_EXCEPTION = 4,
    SYS_EVENT_INSTALL = 5,
    SYS_EVENT_CONFIG = 6,
    SYS_EVENT_DEBUG = 7,
    SYS_EVENT_RESOURCE = 8,
    SYS_EVENT_STOP = 9
} TSysEventCategory;

/* Opens the log file for appending (a null or empty path: standard output) and, when an identity is given,
   the system logger. False when the log is already open, the file cannot be opened or there is no memory for
   its path: nothing changes then. Safe from several threads. */
bool OpenSystemEventLog(const char* path, const char* identity);

/* False when the log was not open or its file could not be closed without an error. The log is closed in
   either case and may be opened again. Waits for the reports that other threads have begun. Standard output
   stays open. Safe from several threads. */
bool CloseSystemEventLog(void);

/* Writes one line; true when it was written whole, false when it was written in part or not at all. Until the
   log is open nothing is written, neither to the file nor to the system logger, and the result is false. A
   message of more than 16384 characters is left out, its line stays. Safe from several threads and several
   processes on one file: no line is torn. A process that itself opens and closes the log file beside this log
   drops the file's lock by that, and with it this safety for the line being written. */
bool ReportSystemEvent(TSysEventType type, TSysEventCategory category, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

const char* GetSystemEventTypeText(TSysEventType type);             /* "UNKNOWN" outside the enumeration */
const char* GetSystemEventCategoryText(TSysEventCategory category); /* likewise */

#ifdef __cplusplus
}
#endif

#endif
