#include "eventlog/eventlog.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/Common_Classes/UText.h"
#include "eventlog/eventlog_impl.h"
#include "platform/mutexobj.h"
#include "platform/osfile_impl.h"
#include "platform/thread_annotations.h"
#include "platform/threads_impl.h"

// How a report, an opening and a closing meet:
//
// - The file's lock between processes is the whole process's: it does not keep two threads apart, and when
//   one of them drops it, or closes any descriptor of the file, it is gone for all. So the threads of this
//   process take turns (EvtLogTurn), and every line is written under a file lock taken for it alone.
// - The stream is opened under EvtLogCS, and closed by one who holds the turn and EvtLogCS. Whoever has the
//   turn may therefore use an open stream without EvtLogCS, also while it waits for the file's lock.
// - A glance at EvtLogFile without any lock only saves work. The look that counts is the one under the turn
//   (a report, a closing) or under EvtLogCS (an opening).
//
// Order: EvtLogTurn, the file's lock, EvtLogCS.
//
// Nothing here is destroyed by a closing, so that a report that comes late finds the locks alive, and nothing
// is made before its first use, so that a process that never opens the log pays nothing.

namespace {

Mutex& EvtLogTurn() {
    static Mutex mutex(Mutex::kPrivate);
    return mutex;
}

Mutex& EvtLogCS() {
    static Mutex mutex(Mutex::kPrivate);
    return mutex;
}

std::atomic<std::FILE*> EvtLogFile{nullptr};  // the log file or standard output; null while the log is closed
CText EvtLogFileName VELARTO_GUARDED_BY(EvtLogCS());  // empty for standard output

std::tm localTime(std::time_t time) {
    std::tm local{};
    return localtime_r(&time, &local) != nullptr ? local : std::tm{};
}

bool writeLine(std::FILE* file, const CText& line) {
    const std::size_t length = line.Length();
    const bool stored = std::fwrite(line.GetTextEx(), 1, length, file) == length;
    return std::fflush(file) == 0 && stored;
}

__attribute__((format(printf, 3, 0))) bool reportEvent(TSysEventType type, TSysEventCategory category,
                                                       const char* fmt, std::va_list* args) {
    const CText line = formatEventLine(GetCurrentProcessID(), localTime(std::time(nullptr)),
                                       formatEventText(type, category, fmt, args));
    MutexLock turn(EvtLogTurn());
    std::FILE* const file = EvtLogFile;
    if (file == nullptr) return false;

    LockOSFile(fileno(file), true);
    MutexLock hold(EvtLogCS());
    const bool written = writeLine(file, line);
    UnLockOSFile(fileno(file));
    ReportSystemEventEx(type, category, fmt, args);
    return written;
}

constexpr const char* kTypeTexts[] = {"INFO", "WARNING", "ERROR", "FATAL"};
constexpr const char* kCategoryTexts[] = {"START",   "RUNTIME", "VERSION", nullptr,    "EXCEPTION",
                                          "INSTALL", "CONFIG",  "DEBUG",   "RESOURCE", "STOP"};

template <std::size_t N>
const char* textOf(const char* const (&texts)[N], int value) {
    const auto index = static_cast<std::size_t>(value);
    return index < N && texts[index] != nullptr ? texts[index] : "UNKNOWN";
}

}  // namespace

bool OpenSystemEventLog(const char* path, const char* identity) {
    if (EvtLogFile != nullptr) return false;
    MutexLock hold(EvtLogCS());
    if (EvtLogFile != nullptr) return false;

    const MemoryWatch memory;  // a name that was cut is another file's, or standard output's
    EvtLogFileName = path;
    if (memory.ranOut()) return false;
    std::FILE* const file = EvtLogFileName.IsEmpty() ? stdout : std::fopen(EvtLogFileName.GetText(), "a+e");
    if (file == nullptr) return false;
    if (identity != nullptr) OpenSystemEventLogEx(identity);
    EvtLogFile = file;
    return true;
}

// A stream whose closing reports an error is closed all the same.
bool CloseSystemEventLog() {
    if (EvtLogFile == nullptr) return false;
    MutexLock turn(EvtLogTurn());
    MutexLock hold(EvtLogCS());
    std::FILE* const file = EvtLogFile.exchange(nullptr);
    if (file == nullptr) return false;

    CloseSystemEventLogEx();
    return EvtLogFileName.IsEmpty() || std::fclose(file) == 0;
}

bool ReportSystemEvent(TSysEventType type, TSysEventCategory category, const char* fmt, ...) {
    if (EvtLogFile == nullptr) return false;
    std::va_list args;
    va_start(args, fmt);
    const bool written = reportEvent(type, category, fmt, &args);
    va_end(args);
    return written;
}

const char* GetSystemEventTypeText(TSysEventType type) {
    return textOf(kTypeTexts, type);
}

const char* GetSystemEventCategoryText(TSysEventCategory category) {
    return textOf(kCategoryTexts, category);
}
