// The event log: the bytes of its lines, what reaches the system logger, and its life among threads and
// processes.
#include "eventlog/eventlog.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <sstream>

#include "eventlog/eventlog_impl.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

namespace {

TEST(EventLogTest, LineHasFixedColumns) {
    std::tm when{};
    strptime("2009-03-07 14:05:09", "%Y-%m-%d %T", &when);
    const CText text = formatEventText(SYS_EVENT_WARNING, static_cast<TSysEventCategory>(-1), "x", nullptr);
    EXPECT_STREQ(formatEventLine(1234, when, text).GetText(),
                 "[ 1234] 2009-03-07 14:05:09 UNKNOWN    WARNING  x\n");
}

TEST(EventLogTest, ReportsGoToTheFileAndLiterallyToTheSystemLogger) {
    const support::TempDir dir;
    EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "lost"));
    ASSERT_TRUE(OpenSystemEventLog((dir / "events.log").c_str(), "gateway"));
    // What goes to the system logger is written here too; errors alone.
    openlog("test", LOG_PERROR, LOG_DAEMON);
    setlogmask(LOG_MASK(LOG_ERR));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_DEBUG, "x"));
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_DEBUG, "%d%s", 100, "%s%n"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "test: DEBUG      ERROR    100%s%n\n");
    const std::string lines = support::readFile(dir / "events.log");
    EXPECT_EQ(lines.substr(lines.rfind(']') + 22), "DEBUG      ERROR    100%s%n\n");
    EXPECT_TRUE(CloseSystemEventLog() && OpenSystemEventLog("/dev/full", nullptr));
    EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "x"));
    CloseSystemEventLog();
}

// Lines longer than a stream's buffer, so that a line is more than one write; the log is closed now and then.
TEST(EventLogTest, LinesOfManyThreadsAndProcessesStayWhole) {
    setlogmask(LOG_MASK(LOG_ERR));  // the machine's own log gets none of them
    const support::TempDir dir;
    const std::string path = dir / "events.log";
    const std::string message(9000, 'x');
    const auto report = [&] {
        for (int written = 0; written < 300;) {
            OpenSystemEventLog(path.c_str(), nullptr);
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
    EXPECT_EQ(count, 4 * 300);
}

}  // namespace
