// The inside of the event log: what an event reads like, and the system logger.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <ctime>

#include "Server/Common_Classes/UText.h"
#include "eventlog/eventlog.h"

// Category (10 columns), type (8 columns) and message: the text for the system logger and the tail of the
// line. The argument list is left for the caller's va_end; a null one makes fmt itself the message.
CText formatEventText(TSysEventType type, TSysEventCategory category, const char* fmt, std::va_list* args)
    __attribute__((format(printf, 3, 0)));

// The whole line: process id, date and time, eventText, line feed.
CText formatEventLine(std::uint32_t processId, const std::tm& when, const CText& eventText);

// The process's connection to the system logger, facility LOG_DAEMON. Callers take turns.

// Always true. The identity is copied, cut to 255 characters. From here on the process's messages less urgent
// than LOG_INFO are dropped.
bool OpenSystemEventLogEx(const char* identity);
void CloseSystemEventLogEx();

// Sends the event's text, literally; always true. WARNING and ERROR have priorities of their own, every other
// type is LOG_INFO. When the system logger was not opened, the C library opens it under the program's name.
bool ReportSystemEventEx(TSysEventType type, TSysEventCategory category, const char* fmt, std::va_list* args)
    __attribute__((format(printf, 3, 0)));
