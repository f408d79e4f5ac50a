// The event log: the bytes of its lines, what reaches the system logger, and its life among threads and
// processes. The C library's way to the system logger is replaced by functions defined here.
#include "eventlog/eventlog.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <string>

#include "eventlog/eventlog_impl.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

static int loggerPriority;
static char loggerText[64];

static void keepText(int priority, const char* format, std::va_list args) {
    loggerPriority = priority;
    vsnprintf(loggerText, sizeof loggerText, format, args);
}

// The C library's headers may already define syslog() as an inline call of its checking form.
extern "C" {
void keepSyslog(int priority, const char* format, ...) __asm__("syslog");
void keepSyslog(int priority, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    keepText(priority, format, args);
    va_end(args);
}
void keepCheckedSyslog(int priority, int, const char* format, ...) __asm__("__syslog_chk");
void keepCheckedSyslog(int priority, int, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    keepText(priority, format, args);
    va_end(args);
}
}

namespace {

TEST(EventLogTest, LineHasFixedColumns) {
    std::tm when{};
    strptime("2009-03-07 14:05:09", "%Y-%m-%d %T", &when);
    const struct {
        int type, category;
        const char* line;
    } cases[] = {
        {2, 6, "[ 1234] 2009-03-07 14:05:09 CONFIG     ERROR    x\n"},
        {1, 4, "[ 1234] 2009-03-07 14:05:09 EXCEPTION  WARNING  x\n"},
        {0, 0, "[ 1234] 2009-03-07 14:05:09 START      INFO     x\n"},
        {3, 9, "[ 1234] 2009-03-07 14:05:09 STOP       FATAL    x\n"},
        {-1, 10, "[ 1234] 2009-03-07 14:05:09 UNKNOWN    UNKNOWN  x\n"},
    };
    for (const auto& c : cases) {
        const CText text = formatEventText(static_cast<TSysEventType>(c.type),
                                           static_cast<TSysEventCategory>(c.category), "x", nullptr);
        EXPECT_STREQ(formatEventLine(1234, when, text).GetText(), c.line);
    }
}

TEST(EventLogTest, ReportsGoToTheFileAndLiterallyToTheSystemLogger) {
    const support::TempDir dir;
    const std::string path = dir / "events.log";
    const auto lineOfNow = [] {
        const std::time_t now = std::time(nullptr);
        const auto process = static_cast<std::uint32_t>(getpid());
        const CText line = formatEventLine(process, *std::localtime(&now), "DEBUG      ERROR    100%s%n");
        return std::string(line.GetTextEx());
    };
    EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "lost"));
    EXPECT_FALSE(OpenSystemEventLog((dir / "no/such").c_str(), nullptr));
    ASSERT_TRUE(OpenSystemEventLog(path.c_str(), "gateway"));
    EXPECT_FALSE(OpenSystemEventLog((dir / "other").c_str(), nullptr)) << "open already";
    const std::string before = lineOfNow();
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_DEBUG, "%d%s", 100, "%s%n"));
    const std::string line = support::readFile(path);
    EXPECT_TRUE(before <= line && line <= lineOfNow()) << line;
    EXPECT_EQ(loggerPriority, LOG_DAEMON | LOG_ERR);
    EXPECT_STREQ(loggerText, "DEBUG      ERROR    100%s%n");
    EXPECT_TRUE(CloseSystemEventLog() && OpenSystemEventLog("/dev/full", nullptr));
    EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "x"));
    CloseSystemEventLog();
}

// Lines longer than a stream's buffer, so that a line is more than one write; the log is closed now and then.
TEST(EventLogTest, LinesOfManyThreadsAndProcessesStayWhole) {
    const support::TempDir dir;
    const std::string path = dir / "events.log";
    const std::string message(9000, 'x');
    const auto report = [&] {
        for (int written = 0; written < 50;) {
            OpenSystemEventLog(path.c_str(), "gateway");
            written += ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "%s.", message.c_str());
            if (written % 5 == 0) CloseSystemEventLog();
        }
    };
    const auto reportTwice = [&] {
        support::Runner first(report), second(report);
        return 0;
    };
    const pid_t child = support::startChild(reportTwice);
    reportTwice();
    EXPECT_EQ(support::resultOf(child), 0);
    CloseSystemEventLog();
    std::istringstream content(support::readFile(path));
    int count = 0;
    for (std::string line; std::getline(content, line); ++count)
        ASSERT_EQ(line.substr(line.find(']') + 22), "STOP       INFO     " + message + ".") << count;
    EXPECT_EQ(count, 4 * 50);
}

}  // namespace
