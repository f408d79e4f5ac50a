// The event log: the bytes of its lines, what reaches the system logger, and its life among threads and
// processes.
#include "eventlog/eventlog.h"

#include <gtest/gtest.h>
#include <syslog.h>

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
    ASSERT_TRUE(OpenSystemEventLog((dir / "events.log").c_str(), "gateway"));
    // What goes to the system logger is written here too; no notes.
    openlog("test", LOG_PERROR, LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_WARNING));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_DEBUG, "x"));
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_WARNING, SYS_EVENT_STOP, "y"));
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_DEBUG, "%d%s", 100, "%s%n"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "test: STOP       WARNING  y\ntest: DEBUG      ERROR    100%s%n\n");
    const std::string lines = support::readFile(dir / "events.log");
    EXPECT_EQ(lines.substr(lines.rfind(']') + 22), "DEBUG      ERROR    100%s%n\n");
    CloseSystemEventLog();
}

// Lines longer than a stream's buffer, so that a line is more than one write.
TEST(EventLogTest, LinesOfManyThreadsAndProcessesStayWhole) {
    setlogmask(LOG_MASK(LOG_ERR));  // the machine's own log gets none of them
    const support::TempDir dir;
    const std::string message(9000, 'x');
    const auto report = [&] {
        bool whole = OpenSystemEventLog((dir / "events.log").c_str(), nullptr);
        for (int i = 0; i < 300; ++i)
            whole &= ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "%s.", message.c_str());
        return whole ? 0 : 1;
    };
    const pid_t child = support::startChild(report);
    std::thread other(report);
    report();
    other.join();
    EXPECT_EQ(support::resultOf(child), 0);
    CloseSystemEventLog();
    std::istringstream content(support::readFile(dir / "events.log"));
    int count = 0;
    for (std::string line; std::getline(content, line); ++count)
        ASSERT_EQ(line.substr(line.find(']') + 22), "STOP       INFO     " + message + ".") << count;
    EXPECT_EQ(count, 3 * 300);
}

}  // namespace
