#include "eventlog/eventlog_impl.h"

#include <syslog.h>

#include <cstdio>

namespace {

char identityInUse[256];  // openlog() keeps the pointer, so this outlives every caller's text

int systemLoggerPriority(TSysEventType type) {
    switch (type) {
        case SYS_EVENT_WARNING:
            return LOG_WARNING;
        case SYS_EVENT_ERROR:
            return LOG_ERR;
        default:
            return LOG_INFO;
    }
}

}  // namespace

CText formatEventText(TSysEventType type, TSysEventCategory category, const char* fmt, std::va_list* args) {
    CText message;
    message.VArgFormat(fmt, args);
    CText text;
    text.Format("%-10.10s %-8.8s ", GetSystemEventCategoryText(category), GetSystemEventTypeText(type));
    text += message;
    return text;
}

CText formatEventLine(std::uint32_t processId, const std::tm& when, const CText& eventText) {
    CText line;
    line.Format("[%5u] %04d-%02d-%02d %02d:%02d:%02d ", processId, when.tm_year + 1900, when.tm_mon + 1,
                when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
    line += eventText;
    line += '\n';
    return line;
}

bool OpenSystemEventLogEx(const char* identity) {
    std::snprintf(identityInUse, sizeof identityInUse, "%s", identity);
    openlog(identityInUse, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_INFO));
    return true;
}

void CloseSystemEventLogEx() {
    closelog();
}

bool ReportSystemEventEx(TSysEventType type, TSysEventCategory category, const char* fmt,
                         std::va_list* args) {
    syslog(LOG_DAEMON | systemLoggerPriority(type), "%s",
           formatEventText(type, category, fmt, args).GetTextEx());
    return true;
}
