// The event log: the bytes of its lines, what reaches the system logger, and its life among threads and
// processes. The C library's way to the system logger is replaced by functions defined here.
#include "eventlog/eventlog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "eventlog/eventlog_impl.h"
#include "platform/osfile_impl.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

namespace {

using support::Runner;

struct SystemLogger {
    const char* identity = nullptr;  // the pointer itself, as the C library keeps it
    int options = -1, facility = -1, mask = -1, priority = -1;
    std::string text;
} logger;
std::atomic<bool> loggerBusy{false};  // makes openlog() wait

void keepText(int priority, const char* format, std::va_list args) {
    char text[512];
    vsnprintf(text, sizeof text, format, args);
    logger.priority = priority;
    logger.text = text;
}

}  // namespace

extern "C" {
void openlog(const char* identity, int options, int facility) {
    while (loggerBusy)
        usleep(1000);
    logger.identity = identity, logger.options = options, logger.facility = facility;
}
void closelog() {
    logger.identity = nullptr;
}
int setlogmask(int mask) {
    return std::exchange(logger.mask, mask);
}

// The C library's headers may already define syslog() as an inline call of its checking form.
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

// A line without its process id and time.
std::string eventOf(const std::string& line) {
    return line.substr(line.find(']') + 22);
}

class EventLogTest : public testing::Test {
  protected:
    void SetUp() override { logger = SystemLogger(); }
    void TearDown() override { CloseSystemEventLog(); }

    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream content(support::readFile(path));
        for (std::string line; std::getline(content, line);)
            result.push_back(line);
        return result;
    }

    support::TempDir dir;
    const std::string path = dir / "events.log";
};

TEST_F(EventLogTest, LineHasFixedColumns) {
    std::tm when{};
    EXPECT_STREQ(formatEventLine(123456, when, "").GetText(), "[123456] 1900-01-00 00:00:00 \n");
    strptime("2009-03-07 14:05:09", "%Y-%m-%d %T", &when);
    const struct {
        int type, category;
        const char* line;
    } cases[] = {
        {2, 6, "[ 1234] 2009-03-07 14:05:09 CONFIG     ERROR    x\n"},
        {1, 4, "[ 1234] 2009-03-07 14:05:09 EXCEPTION  WARNING  x\n"},
        {0, 0, "[ 1234] 2009-03-07 14:05:09 START      INFO     x\n"},
        {3, 9, "[ 1234] 2009-03-07 14:05:09 STOP       FATAL    x\n"},
        {4, 3, "[ 1234] 2009-03-07 14:05:09 UNKNOWN    UNKNOWN  x\n"},
        {-1, 10, "[ 1234] 2009-03-07 14:05:09 UNKNOWN    UNKNOWN  x\n"},
    };
    for (const auto& c : cases) {
        const CText text = formatEventText(static_cast<TSysEventType>(c.type),
                                           static_cast<TSysEventCategory>(c.category), "x", nullptr);
        EXPECT_STREQ(formatEventLine(1234, when, text).GetText(), c.line);
    }
}

TEST_F(EventLogTest, LineCarriesProcessAndLocalTime) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    const std::time_t before = std::time(nullptr);
    ASSERT_TRUE(OpenSystemEventLog(path.c_str(), nullptr));
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_RUNTIME, "%d of %s", 7, "nine"));
    const std::string line = lines().at(0);
    char start[20];
    std::snprintf(start, sizeof start, "[%5d] ", getpid());
    EXPECT_EQ(line.substr(0, line.find(']') + 2), start);
    EXPECT_EQ(eventOf(line), "RUNTIME    INFO     7 of nine");
    std::tm local{};
    ASSERT_STREQ(strptime(line.c_str() + line.find(']'), "] %Y-%m-%d %T", &local),
                 (" " + eventOf(line)).c_str());
    const std::time_t reported = std::mktime(&local);
    EXPECT_TRUE(before <= reported && reported <= std::time(nullptr));
    unsetenv("TZ");
    tzset();
}

TEST_F(EventLogTest, SystemLoggerGetsTheTextLiterally) {
    std::string identity = "gateway";
    ASSERT_TRUE(OpenSystemEventLog(path.c_str(), identity.c_str()));
    identity = "changed";
    EXPECT_STREQ(logger.identity, "gateway");
    EXPECT_EQ(logger.options, LOG_PID | LOG_NDELAY);
    EXPECT_EQ(logger.facility, LOG_DAEMON);
    EXPECT_EQ(logger.mask, LOG_UPTO(LOG_INFO));
    const int priorities[] = {LOG_INFO, LOG_WARNING, LOG_ERR, LOG_INFO, LOG_INFO};
    for (int type = 0; type < 5; ++type) {
        EXPECT_TRUE(ReportSystemEvent(static_cast<TSysEventType>(type), SYS_EVENT_DEBUG, "%s", "100%s%n"));
        EXPECT_EQ(logger.priority, LOG_DAEMON | priorities[type]) << type;
    }
    EXPECT_EQ(logger.text, "DEBUG      UNKNOWN  100%s%n");
    EXPECT_TRUE(CloseSystemEventLog());
    EXPECT_EQ(logger.identity, nullptr);
}

TEST_F(EventLogTest, ClosedLogWritesNothingAndOpensAgain) {
    for (std::size_t life = 1; life <= 2; ++life) {
        EXPECT_FALSE(CloseSystemEventLog());
        EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "lost"));
        EXPECT_FALSE(OpenSystemEventLog((dir / "no/such").c_str(), "gateway"));
        EXPECT_EQ(logger.identity, nullptr);
        EXPECT_TRUE(OpenSystemEventLog(path.c_str(), nullptr));
        EXPECT_FALSE(OpenSystemEventLog((dir / "other").c_str(), nullptr));
        EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "kept"));
        EXPECT_TRUE(CloseSystemEventLog());
        EXPECT_EQ(lines().size(), life);
    }
    EXPECT_NE(access((dir / "other").c_str(), F_OK), 0);
    EXPECT_EQ(logger.text, "CONFIG     ERROR    kept");
}

TEST_F(EventLogTest, EmptyPathMeansStandardOutputWhichStaysOpen) {
    std::fflush(stdout);
    const int saved = dup(1), file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, 1);
    EXPECT_TRUE(OpenSystemEventLog("", nullptr));
    EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "out"));
    EXPECT_TRUE(CloseSystemEventLog());
    EXPECT_TRUE(std::puts("after") >= 0 && std::fflush(stdout) == 0);
    dup2(saved, 1), close(saved), close(file);
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(eventOf(lines()[0]), "STOP       INFO     out");
    EXPECT_EQ(lines()[1], "after");
}

TEST_F(EventLogTest, TooLongAMessageLeavesTheFixedPart) {
    ASSERT_TRUE(OpenSystemEventLog(path.c_str(), nullptr));
    for (const int length : {16384, 16385}) {
        EXPECT_TRUE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "%0*d", length, 0));
    }
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(eventOf(lines()[0]), "STOP       INFO     " + std::string(16384, '0'));
    EXPECT_EQ(eventOf(lines()[1]), "STOP       INFO     ");
}

TEST_F(EventLogTest, FullDiskIsReported) {
    ASSERT_TRUE(OpenSystemEventLog("/dev/full", nullptr));
    EXPECT_FALSE(ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "x"));
}

// Lines longer than a stream's buffer, so that a line is more than one write.
TEST_F(EventLogTest, LinesOfManyThreadsAndProcessesStayWhole) {
    constexpr int kReports = 50;
    std::atomic<int> written{0};
    const auto report = [&](char letter) {
        const std::string message(9000, letter);
        for (int n = 0; n < kReports; ++n) {
            written += ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "%s", message.c_str());
        }
    };
    pid_t children[3];
    for (pid_t& child : children) {
        child = support::startChild([&] {
            OpenSystemEventLog(path.c_str(), nullptr);
            const auto letter = static_cast<char>('a' + 2 * (&child - children));
            {
                Runner threads[] = {Runner([&] { report(letter); }), Runner([&] { report(letter + 1); })};
            }
            return written.load();
        });
    }
    for (const pid_t child : children)
        EXPECT_EQ(support::resultOf(child), 2 * kReports);
    const auto all = lines();
    EXPECT_EQ(all.size(), 3u * 2u * kReports);
    for (const std::string& line : all) {
        ASSERT_EQ(line.front(), '[');
        ASSERT_EQ(line.find_first_not_of(line.back(), line.size() - 9000), std::string::npos);
    }
}

TEST_F(EventLogTest, TwoOpeningsAtOnceOpenItOnce) {
    std::atomic<int> opened{0};
    const auto open = [&] { opened += OpenSystemEventLog(path.c_str(), "gateway"); };
    loggerBusy = true;
    {
        Runner first(open), second(open);
        EXPECT_TRUE(first.blocks() && second.blocks());
        loggerBusy = false;
    }
    EXPECT_EQ(opened, 1);
}

// Another process has the file's lock: the report waits for it, and the closing for the report.
TEST_F(EventLogTest, ClosingWaitsForTheReportUnderWay) {
    ASSERT_TRUE(OpenSystemEventLog(path.c_str(), nullptr));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = support::startChild([&] {
        const bool locked = LockOSFile(open(path.c_str(), O_RDWR), true);
        return write(ready[1], "", 1) != 1 || !locked || pause();
    });
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    std::atomic<bool> reported{false}, closed{false};
    {
        Runner reporter([&] { reported = ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "x"); });
        EXPECT_TRUE(reporter.blocks());
        Runner closer([&] { closed = CloseSystemEventLog(); });
        EXPECT_TRUE(closer.blocks());
        kill(child, SIGKILL);
    }
    EXPECT_TRUE(reported && closed);
    EXPECT_EQ(lines().size(), 1u);
    support::resultOf(child);
    close(ready[0]), close(ready[1]);
}

TEST_F(EventLogTest, ReportsMeetOpeningsAndClosings) {
    std::atomic<std::size_t> written{0};
    const auto report = [&] {
        while (written < 300)
            written += ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_STOP, "x");
    };
    const auto reopen = [&] {
        while (written < 300)
            OpenSystemEventLog(path.c_str(), "gateway"), CloseSystemEventLog();
    };
    { Runner threads[] = {Runner(report), Runner(report), Runner(reopen), Runner(reopen)}; }
    EXPECT_EQ(lines().size(), written);
}

}  // namespace
